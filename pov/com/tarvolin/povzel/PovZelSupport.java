package com.tarvolin.povzel;

/** What the library answers about itself, before it is initialized and whatever calls are under way. */
final class PovZelSupport {
    private PovZelSupport() {
    }

    /** The library's version. */
    static native String libraryVersion();
}
