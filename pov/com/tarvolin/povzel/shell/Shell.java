package com.tarvolin.povzel.shell;

import com.tarvolin.povzel.PovZelException;
import com.tarvolin.povzel.PovZelLibrary;
import com.tarvolin.povzel.PovZelSession;
import java.io.FileDescriptor;
import java.io.IOException;
import java.io.PrintStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import picocli.CommandLine;
import picocli.CommandLine.ParameterException;
import picocli.CommandLine.ParseResult;

/** What the command line asks for: help, a login, and then texts or a conversation. */
final class Shell {
    private static final String WELL_KNOWN_PASSWORD = "swordfish";
    private static final int FAILED = 1;
    private static final int MISUSED = 2;

    private final PrintStream out;
    private final PrintStream err = Main.printStream(FileDescriptor.err);
    private final boolean interactive;
    private final boolean embedded;

    Shell(PrintStream out) {
        this.out = out;
        this.interactive = Boolean.getBoolean("povzel.interactive");
        this.embedded = Boolean.getBoolean("povzel.embedded");
    }

    /** Answers the exit status. */
    int run(String[] arguments) {
        Options options = new Options();
        // Words are what they are: a file's name behind an @ is none of them.
        CommandLine commandLine = new CommandLine(options).setExpandAtFiles(false);
        try {
            ParseResult parsed = commandLine.parseArgs(arguments);
            if (parsed.isUsageHelpRequested()) {
                commandLine.usage(out);
                return 0;
            }
            if (parsed.isVersionHelpRequested()) {
                commandLine.printVersionHelp(out);
                return 0;
            }
        } catch (ParameterException e) {
            return complain(MISUSED, e.getMessage() + "\nTry: povzel --help");
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
        String password = knownPassword(options);
        if (interactive && (password == null || options.texts.isEmpty())) {
            try (Console console = new Console()) {
                return run(options, password, console);
            }
        }
        if (password == null) {
            return complain(MISUSED, "a password is needed: name a --password-file, or run povzel in a"
                    + " terminal to be asked for it");
        }
        return loggedIn(options, password, session -> runTexts(options, session));
    }

    private int run(Options options, String known, Console console) throws IOException {
        String password = known != null ? known
                : console.readPassword("Password of " + options.user + ": ");
        if (password == null) {
            return complain(FAILED, "no password given\nType it, or name a file with --password-file");
        }
        return loggedIn(options, password, session -> options.texts.isEmpty()
                ? new Interaction(session, console, out, description(options), embedded).run()
                : runTexts(options, session));
    }

    /** What is done in a session. */
    private interface Work {
        int in(PovZelSession session) throws IOException;
    }

    private int loggedIn(Options options, String password, Work work) throws IOException {
        PovZelSession session;
        try {
            session = PovZelSession.login(options.server == null ? "" : options.server, options.user,
                    password);
        } catch (PovZelException e) {
            return complain(FAILED, "cannot log in as " + options.user + ": " + e.getMessage()
                    + "\nName another user with --user, the password with --password-file, or another"
                    + " server with --server");
        }
        try (session) {
            return work.in(session);
        } catch (PovZelException e) {
            return complain(FAILED, e.getMessage());
        }
    }

    private int runTexts(Options options, PovZelSession session) throws IOException {
        Filter filter = new Filter(session, out, err, description(options), embedded);
        if (!options.texts.isEmpty()) {
            return filter.run(options.texts);
        }
        try {
            return filter.run(System.in);
        } catch (IOException e) {
            throw new IOException("standard input cannot be read: " + e.getMessage()
                    + "\nGive it texts, as in povzel <FILE, or name a text with -e", e);
        }
    }

    /** The password to log in with, or null when the user has to be asked. */
    private String knownPassword(Options options) throws IOException {
        if (options.passwordFile != null) {
            return firstLine(options.passwordFile);
        }
        boolean wellKnown = embedded && options.server == null
                && options.user.equals(Options.DEFAULT_USER);
        return wellKnown ? WELL_KNOWN_PASSWORD : null;
    }

    private static String firstLine(Path file) throws IOException {
        try {
            List<String> lines = Files.readAllLines(file, StandardCharsets.UTF_8);
            return lines.isEmpty() ? "" : lines.get(0);
        } catch (IOException e) {
            String reason = Files.isDirectory(file) ? "it is a folder"
                    : Files.notExists(file) ? "it is not there"
                    : Files.isReadable(file) ? "it is no text in UTF-8" : "it may not be read";
            throw new IOException("cannot read the password file " + file + ": " + reason
                    + "\nName a file that has the password in its first line", e);
        }
    }

    private String description(Options options) {
        String place = options.server != null ? "server " + options.server
                : embedded ? "the built-in database" : "the database";
        return options.user + " at " + place + " (" + (options.access.linked ? "linked" : "rpc") + ")";
    }

    private int complain(int status, String message) {
        err.println("povzel: " + message.stripTrailing());
        err.flush();
        return status;
    }
}
