package com.tarvolin.povzel.shell;

import com.tarvolin.povzel.PovZelException;
import com.tarvolin.povzel.PovZelLibrary;
import com.tarvolin.povzel.PovZelSession;
import java.io.FileDescriptor;
import java.io.IOException;
import java.io.PrintStream;

/** What the command line asks for: help, a login, and then texts or a conversation. */
final class Shell {
    private static final int FAILED = 1;
    private static final int MISUSED = 2;

    private final PrintStream out;
    private final PrintStream err = Main.printStream(FileDescriptor.err);
    private final boolean interactive;

    Shell(PrintStream out) {
        this.out = out;
        this.interactive = Boolean.getBoolean("povzel.interactive");
    }

    /** Answers the exit status. */
    int run(String[] arguments) {
        Options options = Arguments.read(arguments);
        if (options == null) {
            try {
                Grammar grammar = new Grammar(arguments);
                if (grammar.helps(out)) {
                    return 0;
                }
                options = grammar.options();
            } catch (IllegalArgumentException e) {
                return complain(MISUSED, e.getMessage() + "\nTry: povzel --help");
            }
        }
        String flaw = flaw(options);
        if (flaw != null) {
            return complain(MISUSED, flaw);
        }
        try {
            initialize(options);
            return run(options);
        } catch (PovZelException e) {
            return complain(FAILED, e.getMessage());
        } catch (IOException e) {
            return complain(FAILED, e.getMessage());
        }
    }

    /** What is wrong with the words of the command line; null if nothing is. */
    private static String flaw(Options options) {
        if (options.create && options.server == null) {
            return "--create makes a database in a file: name it with --server";
        }
        if (!options.isOnServer()) {
            return null;
        }
        // Not shown, neither here nor to the server.
        return ServerUrl.hasPassword(options.server)
                ? "a password in a URL can be seen by others, in the list of processes\nPut it into ~/.pgpass or"
                        + " the file that PGPASSFILE names, or into a service file"
                : options.create ? "--create makes a database in a file\nOn a server: povzel create URL" : null;
    }

    /** Before anybody is asked for a password: what is wrong with the installation comes first. */
    private static void initialize(Options options) throws IOException {
        Throwable cause = PovZelLibrary.unavailabilityCause();
        if (cause != null) {
            // The last line names properties, which the launcher sets.
            throw new IOException(cause.getMessage().replaceFirst("\n[^\n]*$", "")
                    + "\nInstall povzel again, or set TARVOLIN to an installation that is whole; tvinfo"
                    + " looks at all of it");
        }
        PovZelLibrary.initialize(options.access.linked, "povzel", PovZelLibrary.DEFAULT_BUFFER_SIZE,
                PovZelLibrary.DEFAULT_PRELOAD_SIZE, options.debug);
    }

    private int run(Options options) throws IOException {
        char[] password = Passwords.known(options);
        if (interactive && (password == null || options.sources.isEmpty())) {
            try (Console console = new Console()) {
                return run(options, password, console);
            }
        }
        if (password == null) {
            return complain(MISUSED, "a password is needed: name a --password-file, or set POVZEL_PASSWORD,"
                    + " or run povzel in a terminal to be asked for it");
        }
        return loggedIn(options, password, session -> runTexts(options, session));
    }

    private int run(Options options, char[] known, Console console) throws IOException {
        char[] password = known != null ? known
                : options.creates() ? newPassword(console)
                : console.readPassword("Password of " + options.user + ": ");
        if (password == null) {
            return complain(FAILED, "no password given\nType it, or name a file with --password-file");
        }
        return loggedIn(options, password, session -> options.sources.isEmpty()
                ? new Interaction(session, options, console, out).run()
                : runTexts(options, session));
    }

    /** Asks for the password of a new database until it will do; null when the user declines. */
    private static char[] newPassword(Console console) throws IOException {
        while (true) {
            char[] password = console.readPassword("New password of SystemUser and DataCurator: ");
            char[] again = password == null ? null : console.readPassword("The same again: ");
            if (again == null) {
                Passwords.clear(password);
                return null;
            }
            String flaw = Passwords.flaw(password, again);
            Passwords.clear(again);
            if (flaw == null) {
                return password;
            }
            Passwords.clear(password);
            console.print(flaw + ": type another one");
        }
    }

    /** What is done in a session. */
    private interface Work {
        int in(PovZelSession session) throws IOException;
    }

    private int loggedIn(Options options, char[] password, Work work) throws IOException {
        PovZelSession session;
        try {
            session = PovZelSession.login(options.login(), options.user, password);
        } catch (PovZelException e) {
            return complain(FAILED, "cannot log in as " + options.user + ": " + e.getMessage()
                    + "\nName another user with --user, the password with --password-file or"
                    + " POVZEL_PASSWORD, or another server with --server");
        } finally {
            Passwords.clear(password);
        }
        try (session) {
            return work.in(session);
        } catch (PovZelException e) {
            return complain(FAILED, e.getMessage());
        }
    }

    private int runTexts(Options options, PovZelSession session) throws IOException {
        try {
            return new Filter(session, options, out, err).run(System.in);
        } catch (IOException e) {
            throw new IOException("standard input cannot be read: " + e.getMessage()
                    + "\nGive it texts, as in povzel <FILE, or name a text with -e", e);
        }
    }

    private int complain(int status, String message) {
        err.println("povzel: " + message.stripTrailing());
        err.flush();
        return status;
    }
}
