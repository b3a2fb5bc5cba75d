package com.tarvolin.povzel;

/**
 * The natives of {@code libpovzel30}, as they are. Programs use {@link PovZelSession} instead.
 *
 * <pre>{@code
 * PovZelReport result = new PovZelReport();
 * PovZelException error = new PovZelException();
 * if (PovZelInterface._executeStr(session.id(), "3 + 4", result, error) < 0) {
 *     System.out.println(error.getNumber() + ": " + error.getMessage());
 * }
 * }</pre>
 *
 * <p>The library must be loaded ({@link System#load}) before the first call, and {@link #_initialize}
 * must be that call. The natives share state without a lock: a program makes at most one call at a
 * time, whatever the session.
 *
 * <p>Every native returns a status: 0, or the count or id it speaks of, on success; -1 when it failed
 * and {@code errReport} says why; -2 when memory for a string or an array could not be had and
 * {@code errReport} may be unfilled. Nothing is thrown. Indexes count from 1.
 */
public final class PovZelInterface {
    private PovZelInterface() {
    }

    /**
     * Loads and starts the interface library; once per process, later calls only return.
     *
     * @param useLinked non-zero for the linked interface library, 0 for the remote one
     * @param appName the application's name, or null
     * @param bufSize the size of the transfer buffers in bytes
     * @param preloadSize how many bytes of an object's contents a report holds at most
     * @param debugFlag 1 or more to trace every call on standard output from now on
     * @param errReport receives the error
     * @return 32, -1 or -2
     */
    public static native int _initialize(int useLinked, String appName, int bufSize, int preloadSize,
            int debugFlag, PovZelException errReport);

    /**
     * Logs in to the database.
     *
     * @param serverName the server's name
     * @param kellnetName the Kell service's name, or null
     * @param userName the database user
     * @param password the user's password
     * @param hostUserName the user on the server's host, or null
     * @param hostPassword the password of that user, or null
     * @param errReport receives the error
     * @return the session's id, -1 or -2
     */
    public static native int _login(String serverName, String kellnetName, String userName,
            String password, String hostUserName, String hostPassword, PovZelException errReport);

    /**
     * Ends a session.
     *
     * @param sessionId the session
     * @param errReport receives the error
     * @return 0 or -1
     */
    public static native int _logout(int sessionId, PovZelException errReport);

    /**
     * Describes an object.
     *
     * @param sessionId the session
     * @param result names the object by its oop, and is filled
     * @param errReport receives the error
     * @return 0, -1 or -2
     */
    public static native int _setup(int sessionId, PovZelReport result, PovZelException errReport);

    /**
     * Compiles a text, runs it and describes its result.
     *
     * @param sessionId the session
     * @param text the text
     * @param result is filled
     * @param errReport receives the error
     * @return 0, -1 or -2
     */
    public static native int _executeStr(int sessionId, String text, PovZelReport result,
            PovZelException errReport);

    /**
     * Compiles and runs a text that is a string object of the database.
     *
     * @param sessionId the session
     * @param text the string object
     * @param result is filled
     * @param errReport receives the error
     * @return 0, -1 or -2
     */
    public static native int _executeObj(int sessionId, PovZelReport text, PovZelReport result,
            PovZelException errReport);

    /**
     * Sends a message.
     *
     * @param sessionId the session
     * @param receiver the object that receives it
     * @param selector the message's name
     * @param args the arguments
     * @param numArgs how many of them, at most 20
     * @param result is filled with the answer
     * @param errReport receives the error
     * @return 0, -1 or -2
     */
    public static native int _perform(int sessionId, PovZelReport receiver, String selector,
            PovZelReport[] args, int numArgs, PovZelReport result, PovZelException errReport);

    /**
     * Takes objects out of the session's export set.
     *
     * @param sessionId the session
     * @param objs the objects
     * @param numObjs how many of them
     * @param errReport receives the error
     * @return 0, -1 or -2
     */
    public static native int _removeFromExportSet(int sessionId, PovZelReport[] objs, int numObjs,
            PovZelException errReport);

    /**
     * Reads a range of a byte object.
     *
     * @param sessionId the session
     * @param obj the object
     * @param startIndex the first byte
     * @param numBytes how many bytes, at most the buffer size
     * @param bytes receives them from its first element on
     * @param errReport receives the error
     * @return {@code numBytes}, -1 or -2
     */
    public static native int _getBytes(int sessionId, PovZelReport obj, long startIndex, int numBytes,
            byte[] bytes, PovZelException errReport);

    /**
     * Reads a range of an object's indexed slots.
     *
     * @param sessionId the session
     * @param obj the object
     * @param startIndex the first slot
     * @param numObjs how many slots, at most a quarter of the buffer size
     * @param objs the reports whose oops are set
     * @param errReport receives the error
     * @return how many slots there were, -1 or -2
     */
    public static native int _getObjs(int sessionId, PovZelReport obj, long startIndex, int numObjs,
            PovZelReport[] objs, PovZelException errReport);

    /**
     * Reads a range of an object's named slots.
     *
     * @param sessionId the session
     * @param obj the object
     * @param startIndex the first slot
     * @param numObjs how many slots, at most a quarter of the buffer size
     * @param objs the reports whose oops are set
     * @param errReport receives the error
     * @return how many slots there were, -1 or -2
     */
    public static native int _getNamedObjs(int sessionId, PovZelReport obj, long startIndex,
            int numObjs, PovZelReport[] objs, PovZelException errReport);

    /**
     * Writes a range of a byte object.
     *
     * @param sessionId the session
     * @param obj the object
     * @param startIndex the first byte
     * @param numBytes how many bytes, at most the buffer size
     * @param bytes holds them from its first element on
     * @param errReport receives the error
     * @return 0, -1 or -2
     */
    public static native int _putBytes(int sessionId, PovZelReport obj, long startIndex, int numBytes,
            byte[] bytes, PovZelException errReport);

    /**
     * Writes a range of an object's indexed slots.
     *
     * @param sessionId the session
     * @param obj the object
     * @param startIndex the first slot
     * @param numObjs how many slots, at most a quarter of the buffer size
     * @param objs the values
     * @param errReport receives the error
     * @return 0, -1 or -2
     */
    public static native int _putObjs(int sessionId, PovZelReport obj, long startIndex, int numObjs,
            PovZelReport[] objs, PovZelException errReport);

    /**
     * Writes a range of an object's named slots.
     *
     * @param sessionId the session
     * @param obj the object
     * @param startIndex the first slot
     * @param numObjs how many slots, at most a quarter of the buffer size
     * @param objs the values
     * @param errReport receives the error
     * @return 0, -1 or -2
     */
    public static native int _putNamedObjs(int sessionId, PovZelReport obj, long startIndex,
            int numObjs, PovZelReport[] objs, PovZelException errReport);

    /**
     * Tests class membership.
     *
     * @param sessionId the session
     * @param obj the object
     * @param cls the class
     * @param errReport receives the error
     * @return the library's own boolean, 0 for no; -1 or -2
     */
    public static native int _isKindOf(int sessionId, PovZelReport obj, PovZelReport cls,
            PovZelException errReport);

    /**
     * Takes objects, given by their oops, out of the session's export set.
     *
     * @param sessionId the session
     * @param oops the oops
     * @param numOops how many of them, at most a quarter of the buffer size
     * @param errReport receives the error
     * @return 0 or -1
     */
    public static native int _releaseOops(int sessionId, long[] oops, int numOops,
            PovZelException errReport);

    /**
     * Asks which objects of the export set have changed.
     *
     * @param sessionId the session
     * @param oops receives their oops
     * @param numOops the room in it, at most a quarter of the buffer size
     * @param errReport receives the error
     * @return how many oops were written, or -1
     */
    public static native int _changedOops(int sessionId, long[] oops, int numOops,
            PovZelException errReport);

    /**
     * Resumes a suspended process: with a value, with an error when {@code value} is null, or after
     * an interrupt when {@code errMessage} is null too.
     *
     * @param sessionId the session
     * @param process the process
     * @param value the value, or null
     * @param result is filled with the process's result
     * @param errMessage the error's text, or null
     * @param errStack the error's stack; needed with {@code errMessage}
     * @param errReport receives the error
     * @return 0, -1 or -2
     */
    public static native int _continue(int sessionId, PovZelReport process, PovZelReport value,
            PovZelReport result, String errMessage, String errStack, PovZelException errReport);
}
