package com.tarvolin.povzel.shell;

import com.tarvolin.povzel.PovZelSession;

/**
 * What Ctrl-C does to the entries of a conversation: the first stops the one that runs so that it can
 * go on, the next, while it has not stopped, for good.
 */
final class Interrupts {
    /** How soon to try again: an interrupt is lost between two calls, and to one about to end. */
    private static final long RETRY_MILLIS = 10;

    private final PovZelSession session;
    /** Who runs the entry; null while nobody does. */
    private Thread runner;
    /** How many the entry has got. */
    private int wanted;

    Interrupts(PovZelSession session) {
        this.session = session;
    }

    /** Begins a run on this thread, unless there was an interrupt since the last one ended. */
    synchronized boolean begin() {
        runner = wanted == 0 ? Thread.currentThread() : null;
        wanted = 0;
        return runner != null;
    }

    /** Ends the run, if there is one: earlier interrupts are not for what follows. */
    synchronized void end() {
        if (runner != null) {
            Thread.interrupted();
        }
        runner = null;
        wanted = 0;
        notifyAll();
    }

    /** An interrupt, from any thread. */
    synchronized void interrupt() {
        wanted++;
        if (runner != null && wanted > 1) {
            // Between two calls there is none to cancel, and the next does not begin.
            runner.interrupt();
            session.cancel();
        }
        try {
            while (runner != null && wanted == 1) {
                session.interrupt();
                wait(RETRY_MILLIS);
            }
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
        }
    }
}
