package com.tarvolin.povzel.shell;

import com.tarvolin.povzel.PovZelException;
import com.tarvolin.povzel.PovZelLibrary;
import com.tarvolin.povzel.PovZelSession;
import java.io.FileDescriptor;
import java.io.FileOutputStream;
import java.io.IOException;
import java.io.PrintStream;
import java.lang.reflect.Constructor;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import picocli.CommandLine;
import picocli.CommandLine.ParameterException;
import picocli.CommandLine.ParseResult;

/**
 * The shell's start. The launcher gives it descriptor 3 for results: descriptor 1, to which the
 * native library writes lines of its own, leads elsewhere.
 */
public final class Main {
    private static final int RESULTS = 3;
    private static final String WELL_KNOWN_PASSWORD = "swordfish";
    private static final int FAILED = 1;
    private static final int MISUSED = 2;

    private final PrintStream out;
    private final PrintStream err = printStream(FileDescriptor.err);
    private final boolean interactive;
    private final boolean embedded;

    private Main(PrintStream out) {
        this.out = out;
        this.interactive = Boolean.getBoolean("povzel.interactive");
        this.embedded = Boolean.getBoolean("povzel.embedded");
    }

    /**
     * Runs the shell and ends the process.
     *
     * @param arguments the command line
     * @throws ReflectiveOperationException if the launcher did not start this JVM
     */
    public static void main(String[] arguments) throws ReflectiveOperationException {
        Constructor<FileDescriptor> open = FileDescriptor.class.getDeclaredConstructor(int.class);
        open.setAccessible(true);
        PrintStream out = printStream(open.newInstance(RESULTS));
        int status = new Main(out).run(arguments);
        out.flush();
        if (out.checkError()) {
            System.err.println("povzel: standard output cannot be written");
            status = FAILED;
        }
        System.exit(status);
    }

    private static PrintStream printStream(FileDescriptor descriptor) {
        return new PrintStream(new FileOutputStream(descriptor), false, StandardCharsets.UTF_8);
    }

    private int run(String[] arguments) {
        Options options = new Options();
        CommandLine commandLine = new CommandLine(options);
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
            return run(options);
        } catch (IOException e) {
            return complain(FAILED, e.getMessage());
        }
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
                ? new Interaction(session, console, out, description(options)).run()
                : runTexts(options, session));
    }

    /** What is done in a session. */
    private interface Work {
        int in(PovZelSession session) throws IOException;
    }

    private int loggedIn(Options options, String password, Work work) throws IOException {
        PovZelSession session;
        try {
            PovZelLibrary.initialize(options.access.linked, "povzel", PovZelLibrary.DEFAULT_BUFFER_SIZE,
                    PovZelLibrary.DEFAULT_PRELOAD_SIZE, options.debug);
            session = PovZelSession.login(options.server == null ? "" : options.server, options.user,
                    password);
        } catch (PovZelException e) {
            return complain(FAILED, "cannot log in as " + options.user + ": " + e.message);
        }
        try (session) {
            return work.in(session);
        } catch (PovZelException e) {
            return complain(FAILED, e.message);
        }
    }

    private int runTexts(Options options, PovZelSession session) throws IOException {
        Filter filter = new Filter(session, out, err, description(options));
        return options.texts.isEmpty() ? filter.run(System.in) : filter.run(options.texts);
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
