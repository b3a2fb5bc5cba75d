package com.tarvolin.povzel.shell;

import java.io.FileDescriptor;
import java.io.FileInputStream;
import java.io.FileOutputStream;
import java.io.IOException;
import java.io.InputStream;
import java.io.PrintStream;
import java.lang.reflect.Constructor;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;

/**
 * The shell's start. The launcher gives it a descriptor for results: descriptor 1, to which the
 * native library writes lines of its own, leads to where nobody reads them.
 *
 * <p>It names no class of another jar, so that it can say which one is missing.
 */
public final class Main {
    private static final String RESULTS = "povzel.results";
    private static final int FAILED = 1;
    /** The status that SIGPIPE would have ended with. */
    private static final int UNHEARD = 128 + 13;

    private static final int FILE_KIND = 0170000;
    private static final int PIPE = 0010000;
    private static final int SOCKET = 0140000;

    private Main() {
    }

    /**
     * Runs the shell and ends the process.
     *
     * @param arguments the command line
     */
    public static void main(String[] arguments) {
        PrintStream out = printStream(descriptor(Integer.getInteger(RESULTS)));
        int status = run(arguments, out);
        System.exit(out.checkError() ? unwritten() : status);
    }

    /** Says that results are lost, unless their reader went away; answers the exit status. */
    private static int unwritten() {
        try {
            Path results = Path.of("/proc/self/fd/" + System.getProperty(RESULTS));
            int kind = (int) Files.getAttribute(results, "unix:mode") & FILE_KIND;
            if (kind == PIPE || kind == SOCKET) {
                return UNHEARD;
            }
        } catch (IOException e) {
            // Then it is as bad as any.
        }
        System.err.println("povzel: standard output cannot be written");
        return FAILED;
    }

    private static int run(String[] arguments, PrintStream out) {
        try {
            return new Shell(out).run(arguments);
        } catch (LinkageError e) {
            System.err.println("povzel: a jar of the installation is damaged, or of another version: "
                    + e.getMessage() + "\nInstall povzel again");
            return FAILED;
        } catch (OutOfMemoryError e) {
            System.err.println("povzel: Java's memory is full\nGive it more: JAVA_TOOL_OPTIONS=-Xmx1g");
            return FAILED;
        }
    }

    /** A descriptor that the launcher opened. */
    private static FileDescriptor descriptor(Integer number) {
        try {
            Constructor<FileDescriptor> open = FileDescriptor.class.getDeclaredConstructor(int.class);
            open.setAccessible(true);
            return open.newInstance(number);
        } catch (ReflectiveOperationException e) {
            throw new LinkageError("the launcher did not start this JVM", e);
        }
    }

    static InputStream inputStream(int descriptor) {
        return new FileInputStream(descriptor(descriptor));
    }

    static PrintStream printStream(FileDescriptor descriptor) {
        return new PrintStream(new FileOutputStream(descriptor), false, StandardCharsets.UTF_8);
    }
}
