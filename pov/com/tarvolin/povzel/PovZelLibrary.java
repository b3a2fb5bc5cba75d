package com.tarvolin.povzel;

import java.io.File;

/**
 * The native library behind every session: found, loaded and initialized once per process.
 *
 * <p>{@link PovZelSession#login(String, String)} does all of this with the default settings. A
 * program that wants others calls {@link #initialize(boolean, String, int, int, boolean)} before its
 * first login.
 *
 * <pre>{@code
 * if (PovZelLibrary.isAvailable()) {
 *     PovZelLibrary.initialize(false, "reports", 1 << 20, 4096, false);
 * } else {
 *     System.out.println(PovZelLibrary.unavailabilityCause().getMessage());
 * }
 * }</pre>
 *
 * <p>The library is the file that the system property {@value #LIBRARY_PROPERTY} names or
 * {@value #FILE_NAME} in the {@code lib} of the installation that {@value #HOME_PROPERTY} names. When
 * neither is set, it is the first one in {@code $TARVOLIN/lib}, in a directory of
 * {@code java.library.path}, beside the jar of these classes, or in the installation whose {@code
 * java} the jar lies in; one beside the jar or in its installation is passed over if others than root
 * and this user may replace it. The database's interface library and the messages are those of
 * {@code TARVOLIN} whenever that is set.
 *
 * <p>When there is none, the jar's own is unpacked into a private folder in {@code java.io.tmpdir}, or
 * where {@value #TMPDIR_PROPERTY} says, and removed when the process ends. The built-in database comes
 * with it, unless {@code TARVOLIN}, {@code ZELRTL_BASELIBNAME} or {@code ZELRTL_VERSION} are set and
 * speak of another.
 */
public final class PovZelLibrary {
    /** The system property that names the library's file. */
    public static final String LIBRARY_PROPERTY = "povzel.library";

    /** The system property that names the installation, whose {@code lib} holds the library. */
    public static final String HOME_PROPERTY = "povzel.home";

    /** The system property that names the folder for what the jar unpacks. */
    public static final String TMPDIR_PROPERTY = "povzel.tmpdir";

    /** The library's file name. */
    public static final String FILE_NAME = "libpovzel30.so";

    /** The size of the transfer buffers unless a program asks for another: 64 KiB. */
    public static final int DEFAULT_BUFFER_SIZE = 64 * 1024;

    /** How many bytes of an object come with its description unless a program asks otherwise. */
    public static final int DEFAULT_PRELOAD_SIZE = 1024;

    /** Smaller buffers would make chunked transfers crawl. */
    private static final int SMALLEST_BUFFER = 256;

    /** The natives allow one call at a time, in the whole process. */
    static final PovZelLock LOCK = new PovZelLock();

    /** The library's file, once it is loaded. */
    private static volatile File loaded;
    private static String unfit;
    private static boolean initialized;
    private static int bufferSize;
    private static PovZelException errorReport = PovZelException.report();

    private PovZelLibrary() {
    }

    /** One native, called with the error report it fills on failure. */
    interface Native {
        int call(PovZelException errorReport);
    }

    /**
     * Loads the library and initializes it with the default settings. Does nothing when that has
     * been done before.
     *
     * @return whether this call initialized the library
     * @throws PovZelException if it cannot be loaded or initialized
     */
    public static boolean initialize() {
        return initialize(false, null, DEFAULT_BUFFER_SIZE, DEFAULT_PRELOAD_SIZE, false);
    }

    /**
     * Loads the library and initializes it. The settings of the call that does so hold for the life
     * of the process; later calls change nothing.
     *
     * @param linked whether to use the linked interface library rather than the remote one
     * @param applicationName the name by which the database knows the program, or null
     * @param bufferBytes the size of the transfer buffers: the most that one native call moves; at
     *     least 256
     * @param preloadBytes how many bytes of an object come with its description
     * @param debug whether to trace every call on standard output
     * @return whether this call initialized the library
     * @throws PovZelException if it cannot be loaded or initialized; its message says what was looked
     *     for, where, and what to set
     */
    public static boolean initialize(boolean linked, String applicationName, int bufferBytes,
            int preloadBytes, boolean debug) {
        if (bufferBytes < SMALLEST_BUFFER || preloadBytes < 0) {
            throw new IllegalArgumentException("The buffers need " + SMALLEST_BUFFER
                    + " bytes or more and the preload size may not be negative; asked for "
                    + bufferBytes + " and " + preloadBytes);
        }
        LOCK.lock();
        try {
            if (initialized) {
                return false;
            }
            load();
            try {
                check(e -> PovZelInterface._initialize(linked ? 1 : 0, applicationName, bufferBytes,
                        preloadBytes, debug ? 1 : 0, e));
            } catch (PovZelException e) {
                e.explain(PovZelDiagnosis.ofInterfaceLibrary(e.getMessage(), linked, loaded));
                throw e;
            }
            bufferSize = bufferBytes;
            initialized = true;
            return true;
        } finally {
            LOCK.unlock();
        }
    }

    /**
     * Tells whether the library can be used: loads it, unless it is loaded. Never throws; a failure may
     * be tried again.
     *
     * @return whether the library is loaded now
     */
    public static boolean isAvailable() {
        return unavailabilityCause() == null;
    }

    /**
     * Tells why the library cannot be used: loads it, unless it is loaded. Never throws; a failure may
     * be tried again.
     *
     * @return what stood in the way, its message in the words that {@link #initialize()} would throw;
     *     null when the library is loaded now
     */
    public static Throwable unavailabilityCause() {
        if (loaded != null) {
            return null;
        }
        LOCK.lock();
        try {
            load();
            return null;
        } catch (RuntimeException | LinkageError e) {
            return e;
        } finally {
            LOCK.unlock();
        }
    }

    /** The most bytes that one call transfers. */
    static int byteCapacity() {
        return bufferSize;
    }

    /** The most oops that one call transfers. */
    static int oopCapacity() {
        return bufferSize / 4;
    }

    /**
     * Calls a native, with the lock held by the caller, and turns its failures into exceptions. One
     * report serves all calls until one fails.
     */
    @SuppressWarnings("deprecation")
    static int check(Native call) {
        PovZelException report = errorReport;
        int status = call.call(report);
        if (status >= 0) {
            return status;
        }
        errorReport = PovZelException.report();
        if (status != -1 || report.message == null) {
            report.message = "The JVM could not provide a string or an array that the native needs: it is"
                    + " out of memory, or a text has no room in the transfer table (status " + status
                    + ")";
        }
        throw PovZelException.of(report);
    }

    /** The name of an error number; null when it has none, or the library is not there to know it. */
    static String errorName(int number) {
        return loaded == null ? null : PovZelSupport.errorName(number);
    }

    private static void load() {
        if (loaded != null) {
            return;
        }
        if (unfit != null) {
            throw failure(unfit, null);
        }
        if ("64".equals(System.getProperty("sun.arch.data.model"))) {
            throw failure("This JVM is a 64-bit one (" + System.getProperty("os.arch") + ", "
                    + System.getProperty("java.home") + "), and " + FILE_NAME
                    + " is a 32-bit library: run the program with a 32-bit (i386) JVM", null);
        }
        File file = PovZelLibraryFile.find();
        PovZelDiagnosis.check(file);
        try {
            System.load(file.getAbsolutePath());
        } catch (UnsatisfiedLinkError e) {
            throw failure("Cannot load " + file + ": " + e.getMessage()
                    + PovZelDiagnosis.ofLibrary(file, e), e);
        }
        checkVersion(file);
        loaded = file;
    }

    /** The JVM keeps to the first library that answered: one that does not fit is there for good. */
    private static void checkVersion(File file) {
        String wanted = version();
        String product = "povzel.jar" + (wanted == null ? "" : " " + wanted);
        try {
            String found = PovZelSupport.libraryVersion();
            if (wanted != null && !wanted.equals(found)) {
                unfit = file + " is of version " + found + " and does not fit " + product
                        + "\nUse the library and the jar of one version, and start the program again";
                throw failure(unfit, null);
            }
        } catch (UnsatisfiedLinkError e) {
            throw failure(file + " is not the library that belongs to " + product
                    + ": it is another one, or of an older version\nName the right " + FILE_NAME
                    + " with -D" + LIBRARY_PROPERTY + "=FILE", e);
        }
    }

    /** The jar's version; null when the classes come from elsewhere, such as a program's own jar. */
    private static String version() {
        Package jar = PovZelLibrary.class.getPackage();
        return jar != null && "povzel".equals(jar.getImplementationTitle())
                ? jar.getImplementationVersion()
                : null;
    }

    /**
     * Starts a thread that keeps neither the JVM nor a class loader of the program's.
     *
     * @return whether there was a thread to be had
     */
    static boolean startDaemon(String name, Runnable work) {
        try {
            Thread thread = new Thread(work, name);
            thread.setDaemon(true);
            thread.setContextClassLoader(null);
            thread.start();
            return true;
        } catch (VirtualMachineError | SecurityException e) {
            return false;
        }
    }

    static PovZelException failure(String message, Throwable cause) {
        return PovZelException.failure(PovZelException.BRIDGE, message, cause);
    }
}
