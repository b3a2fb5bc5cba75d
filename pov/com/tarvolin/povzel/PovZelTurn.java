package com.tarvolin.povzel;

import java.util.concurrent.locks.Condition;

/**
 * A call's turn with the library: from its entry, while it waits for the library and while it has
 * it, to its end. Unless something else is said, {@link PovZelLock}'s guard guards what can change.
 */
final class PovZelTurn {
    /** What may end a call before its time. */
    enum Kind {
        /** Everything may. */
        CALL,
        /** Everything may while it waits; once it has begun, its timeout may not. */
        COMMIT,
        /** Nothing may but its session's end while it waits. */
        UNBREAKABLE
    }

    /**
     * Why a call ends before its time: {@link #SOFT} lets its program be continued, the others do
     * not.
     */
    enum Break {
        SOFT, CANCEL, THREAD, TIMEOUT, CLOSED
    }

    /** Whose call it is; null for one that belongs to no session. */
    final PovZelCalls calls;
    final Kind kind;
    final Thread thread = Thread.currentThread();
    /** By the clock of {@link System#nanoTime}; without meaning unless {@link #timed}. */
    final long deadline;
    /** The turn of the same thread within which this one began. */
    PovZelTurn outer;
    boolean timed;
    /** Woken when the turn may have come; null when it came at once. */
    Condition ready;
    /** Whether the library was told of the break while it ran a program of this call. */
    boolean delivered;
    /** Noted under the guard, read without. */
    volatile Break broken;
    /**
     * Whether breaks are the library's to see, since what it does is the call's own work. Set by
     * the thread itself, cleared under the guard.
     */
    volatile boolean loud;
    /**
     * Whether soft breaks are the library's to see, too: the native runs that the call was made for,
     * whose program can be continued. Set by the thread itself, cleared under the guard.
     */
    volatile boolean softly;
    /** Whether that native has answered: what is done with it cannot be continued, so it goes on. */
    volatile boolean answered;
    /** For the thread itself: whether the turn has come and no native was called in it yet. */
    boolean fresh;
    /** For the thread itself: whether Java's collector was had to run for the call. */
    boolean collected;

    /** A turn that ends after {@code nanos}, unless they are 0. */
    PovZelTurn(PovZelCalls calls, Kind kind, long nanos) {
        this.calls = calls;
        this.kind = kind;
        this.timed = nanos != 0;
        this.deadline = nanos == 0 ? 0 : System.nanoTime() + nanos;
    }

    boolean isBreakable() {
        return kind != Kind.UNBREAKABLE;
    }

    /** Whether a break of the kind can end the call before its time. */
    boolean isBreakable(Break cause) {
        return isBreakable() && !(cause == Break.SOFT && answered);
    }

    /** Whether the break is for the library to see. */
    boolean isHeard() {
        return loud && (broken != Break.SOFT || softly);
    }

    /**
     * Notes a break. A harder one takes the place of a soft one; of the hard ones the first counts.
     */
    void note(Break cause) {
        if (broken == null || broken == Break.SOFT && cause != Break.SOFT) {
            broken = cause;
            delivered = false;
        }
    }

    /**
     * Throws what ends the call, if something does. A soft break waits for the call's own program
     * where nothing else is run before, so that there is one to continue, and is none behind it.
     */
    void requireUnbroken() {
        Break cause = broken;
        if (cause != null && !(cause == Break.SOFT && (fresh || answered))) {
            throw PovZelException.broken(cause);
        }
        if (calls != null) {
            calls.requireOpen();
        }
    }
}
