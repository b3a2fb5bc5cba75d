package com.tarvolin.povzel.shell;

import com.tarvolin.povzel.PovZelSession;
import java.util.concurrent.Callable;
import java.util.concurrent.CancellationException;
import java.util.concurrent.ExecutionException;
import java.util.concurrent.Future;
import java.util.concurrent.FutureTask;

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
    /** What another thread does meanwhile; null if nothing. */
    private Future<?> aside;

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

    /** Whether there was an interrupt since the last run ended. */
    synchronized boolean pending() {
        return wanted > 0;
    }

    /** What another thread answers, or null if an interrupt comes first: what it waits for may never come. */
    <T> T aside(Callable<T> work) {
        FutureTask<T> task = new FutureTask<>(work);
        Thread thread = new Thread(task, "povzel reader");
        thread.setDaemon(true);
        setAside(task);
        thread.start();
        try {
            return task.get();
        } catch (CancellationException | InterruptedException e) {
            return null;
        } catch (ExecutionException e) {
            if (e.getCause() instanceof Error error) {
                throw error;
            }
            throw new IllegalStateException(e);
        } finally {
            setAside(null);
        }
    }

    private synchronized void setAside(Future<?> task) {
        aside = task;
    }

    /** An interrupt, from any thread. */
    synchronized void interrupt() {
        if (aside != null) {
            aside.cancel(true);
            return;
        }
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
