package com.tarvolin.povzel.shell;

import java.io.FileDescriptor;
import java.io.FileOutputStream;
import java.io.PrintStream;
import java.lang.reflect.Constructor;
import java.nio.charset.StandardCharsets;

/**
 * The shell's start. The launcher gives it descriptor 3 for results: descriptor 1, to which the
 * native library writes lines of its own, leads elsewhere.
 *
 * <p>It names no class of another jar, so that it can say which one is missing.
 */
public final class Main {
    private static final int RESULTS = 3;
    private static final int FAILED = 1;

    private Main() {
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
        int status = run(arguments, out);
        out.flush();
        if (out.checkError()) {
            System.err.println("povzel: standard output cannot be written");
            status = FAILED;
        }
        System.exit(status);
    }

    private static int run(String[] arguments, PrintStream out) {
        try {
            return new Shell(out).run(arguments);
        } catch (LinkageError e) {
            System.err.println("povzel: a jar of the installation is damaged, or of another version: "
                    + e.getMessage() + "\nInstall povzel again");
            return FAILED;
        }
    }

    static PrintStream printStream(FileDescriptor descriptor) {
        return new PrintStream(new FileOutputStream(descriptor), false, StandardCharsets.UTF_8);
    }
}
