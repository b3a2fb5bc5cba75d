package com.tarvolin.povzel;

/** What the jar asks of the library beside the natives of {@link PovZelInterface}. */
final class PovZelSupport {
    private PovZelSupport() {
    }

    /** The library's version. For any moment. */
    static native String libraryVersion();

    /**
     * The name of an error number, such as rtErrDoesNotUnderstand; null when it has none. For any
     * moment.
     */
    static native String errorName(int number);

    /**
     * Breaks the program that runs, whatever its session. From any thread, while another one's call
     * is under way.
     *
     * @param hard whether for good, so that it cannot be continued
     * @return whether a program ran
     */
    static native boolean breakProgram(boolean hard);

    /** Commits a session's changes, as the natives of {@link PovZelInterface} work and fail. */
    static native int commit(int sessionId, PovZelException errReport);

    /** Drops a session's changes, in the same way. */
    static native int abort(int sessionId, PovZelException errReport);
}
