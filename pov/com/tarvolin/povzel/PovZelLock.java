package com.tarvolin.povzel;

import java.util.ArrayDeque;
import java.util.Deque;
import java.util.concurrent.locks.LockSupport;
import java.util.concurrent.locks.ReentrantLock;

/**
 * The lock that lets one call at a time into the native library, and knows whose call that is: a
 * break reaches the call for which it is meant, or none.
 *
 * <p>All of it is kept under one guard, which is held for moments only. While a call is told to
 * end, it can neither end nor begin, and so neither can another.
 */
final class PovZelLock {
    private static final long TICK_NANOS = 10_000_000;
    private static final int IDLE_TICKS = 100;
    /** A multiple of the frames that the end of a turn needs, interpreted or compiled. */
    private static final int PROBED_FRAMES = 48;

    private final ReentrantLock guard = new ReentrantLock();
    private final Deque<PovZelTurn> waiting = new ArrayDeque<>();
    /** Sessions that were closed while another thread had the library. */
    private final Deque<Integer> toLogOut = new ArrayDeque<>();
    private final Runnable watch = this::watch;
    private long begun;
    private volatile PovZelTurn current;
    private volatile boolean watched;

    /** The innermost turn of this thread; null when it has none. */
    PovZelTurn mine() {
        PovZelTurn turn = current;
        return turn != null && turn.thread == Thread.currentThread() ? turn : null;
    }

    /** Waits for the library, for work that belongs to no session. */
    void lock() {
        enter(new PovZelTurn(null, PovZelTurn.Kind.UNBREAKABLE, 0));
    }

    /** Ends what {@link #lock} began. */
    void unlock() {
        leave(mine());
    }

    /**
     * Waits until the turn has come, at once inside of another one of the same thread, unless it is
     * broken before. Every turn that came must {@link #leave}. What throws, does so before it has come.
     */
    void enter(PovZelTurn turn) {
        requireStack();
        if (turn.isBreakable() && turn.thread.isInterrupted()) {
            throw PovZelException.broken(PovZelTurn.Break.THREAD);
        }
        PovZelTurn outer = mine();
        guard.lock();
        try {
            if (outer == null && current != null) {
                await(turn);
            }
            turn.outer = outer;
            turn.timed &= turn.kind == PovZelTurn.Kind.CALL;
            turn.fresh = true;
            begun++;
            current = turn;
        } finally {
            guard.unlock();
        }
        if (!watched) {
            startWatching();
        }
    }

    /**
     * Throws a StackOverflowError where the stack has no room to end a turn in, or to give the guard
     * back: one that is not ended, or not given back, locks the library for good.
     */
    static void requireStack() {
        probe(PROBED_FRAMES, 0, 0, 0, 0, 0, 0);
    }

    /** The arguments make the frame large, compiled as well. */
    private static long probe(int frames, long a, long b, long c, long d, long e, long f) {
        return frames == 0 ? a + b + c : probe(frames - 1, b, c, d, e, f, a + frames) + f;
    }

    private void await(PovZelTurn turn) {
        turn.ready = guard.newCondition();
        waiting.add(turn);
        boolean came = false;
        try {
            while (current != null) {
                turn.requireUnbroken();
                sleep(turn);
            }
            turn.requireUnbroken();
            came = true;
        } finally {
            waiting.remove(turn);
            if (!came) {
                wakeNext();
            }
        }
    }

    private static void sleep(PovZelTurn turn) {
        if (!turn.isBreakable()) {
            turn.ready.awaitUninterruptibly();
            return;
        }
        try {
            if (!turn.timed) {
                turn.ready.await();
            } else if (turn.ready.awaitNanos(turn.deadline - System.nanoTime()) <= 0) {
                turn.note(PovZelTurn.Break.TIMEOUT);
            }
        } catch (InterruptedException e) {
            turn.thread.interrupt();
            turn.note(PovZelTurn.Break.THREAD);
        }
    }

    private void wakeNext() {
        PovZelTurn next = waiting.peek();
        if (current == null && next != null) {
            next.ready.signal();
        }
    }

    /** Ends the turn. Sessions that were closed meanwhile are logged out first. */
    void leave(PovZelTurn turn) {
        for (Integer closed = handOn(turn); closed != null; closed = handOn(turn)) {
            logOutQuietly(closed);
        }
    }

    /** Lets the next one have the library; or returns a session to log out before. */
    private Integer handOn(PovZelTurn turn) {
        lockGuard();
        try {
            if (turn.outer == null && !toLogOut.isEmpty()) {
                turn.loud = false;
                return toLogOut.poll();
            }
            current = turn.outer;
            wakeNext();
            return null;
        } finally {
            guard.unlock();
        }
    }

    /** Takes the guard, and does not fail: to wait for it takes memory, which there may be none of. */
    private void lockGuard() {
        while (!guard.tryLock()) {
            try {
                guard.lock();
                return;
            } catch (OutOfMemoryError e) {
                Thread.yield();
            }
        }
    }

    /** Logs out on behalf of a thread that is long gone. There is nobody to tell of a failure. */
    private static void logOutQuietly(int sessionId) {
        PovZelInterface._logout(sessionId, null);
    }

    /** Logs a session out that has no call: now, or at the end of the call that has the library. */
    void logOut(int sessionId) {
        PovZelTurn turn = new PovZelTurn(null, PovZelTurn.Kind.UNBREAKABLE, 0);
        guard.lock();
        try {
            toLogOut.add(sessionId);
            if (current != null) {
                return;
            }
            current = turn;
        } finally {
            guard.unlock();
        }
        leave(turn);
    }

    /** Logs out, before this thread's outermost turn ends, what was closed since it began. */
    void logOutClosed() {
        for (Integer closed = nextClosed(); closed != null; closed = nextClosed()) {
            logOutQuietly(closed);
        }
    }

    private Integer nextClosed() {
        requireStack();
        guard.lock();
        try {
            return toLogOut.poll();
        } finally {
            guard.unlock();
        }
    }

    /**
     * Keeps breaks from the library: what this thread's turn does next is not the call's own work.
     */
    void hush(PovZelTurn turn) {
        requireStack();
        guard.lock();
        turn.loud = false;
        guard.unlock();
    }

    /** Keeps soft breaks from the library: what comes next is none that could be continued. */
    void hushSoftly(PovZelTurn turn) {
        requireStack();
        guard.lock();
        turn.softly = false;
        guard.unlock();
    }

    /** How many calls have the library or wait for it. */
    int turns() {
        guard.lock();
        try {
            return (current == null ? 0 : 1) + waiting.size();
        } finally {
            guard.unlock();
        }
    }

    /**
     * Ends the session's call that has the library or, when there is none, those that wait for it.
     *
     * @return whether there was a call
     */
    boolean breakCall(PovZelCalls calls, PovZelTurn.Break cause) {
        requireStack();
        guard.lock();
        try {
            return breakRunning(calls, cause) || breakWaiting(calls, cause);
        } finally {
            guard.unlock();
        }
    }

    private boolean breakRunning(PovZelCalls calls, PovZelTurn.Break cause) {
        boolean found = false;
        for (PovZelTurn turn = current; turn != null; turn = turn.outer) {
            if (turn.calls == calls && turn.isBreakable(cause)) {
                found = true;
                turn.note(cause);
                if (cause != PovZelTurn.Break.SOFT || turn.broken == cause) {
                    deliver(turn);
                }
            }
        }
        return found;
    }

    private boolean breakWaiting(PovZelCalls calls, PovZelTurn.Break cause) {
        boolean found = false;
        for (PovZelTurn turn : waiting) {
            if (turn.calls == calls && turn.isBreakable()) {
                turn.note(cause);
                turn.ready.signal();
                found = true;
            }
        }
        return found;
    }

    /** Tells the library of the turn's break, unless it is at something that the break is not for. */
    private void deliver(PovZelTurn turn) {
        if (turn == current && turn.isHeard()) {
            turn.delivered = PovZelSupport.breakProgram(turn.broken != PovZelTurn.Break.SOFT);
        }
    }

    /**
     * Ends a session's calls, and sees to its logout.
     *
     * @param turn a turn of this thread's, to log out in when the library is free
     * @return whether this thread logs out now: {@code turn} has come then, or an outer one is
     *     there
     */
    boolean close(PovZelCalls calls, PovZelTurn turn) {
        PovZelTurn outer = mine();
        guard.lock();
        try {
            for (PovZelTurn waiter : waiting) {
                if (waiter.calls == calls) {
                    waiter.ready.signal();
                }
            }
            if (outer == null && current != null) {
                breakRunning(calls, PovZelTurn.Break.CLOSED);
                toLogOut.add(calls.sessionId());
                return false;
            }
            turn.outer = outer;
            current = turn;
            return true;
        } finally {
            guard.unlock();
        }
    }

    // ---- The watch ----

    /**
     * Nothing tells of an interrupted thread or of a deadline, and a break is lost to a program
     * that has not begun: a thread looks after the call that has the library, and ends when there
     * was none for a second. One that ends before it is looked at costs nothing.
     */
    private void startWatching() {
        synchronized (waiting) {
            // When no thread is to be had the call goes on without, and the next one tries again.
            watched = watched || PovZelLibrary.startDaemon("povzel watch", watch);
        }
    }

    private void watch() {
        long seen = -1;
        int idle = 0;
        while (idle < IDLE_TICKS) {
            LockSupport.parkNanos(this, TICK_NANOS);
            guard.lock();
            try {
                idle = current == null && begun == seen ? idle + 1 : 0;
                seen = begun;
                freeAbandoned();
                look();
                watched = idle < IDLE_TICKS;
            } finally {
                guard.unlock();
            }
        }
    }

    /** A thread that ended has no call, whatever kept it from ending its turn. */
    private void freeAbandoned() {
        if (current != null && !current.thread.isAlive()) {
            current = null;
            wakeNext();
        }
    }

    private void look() {
        for (PovZelTurn turn = current; turn != null; turn = turn.outer) {
            if (!turn.isBreakable()) {
                continue;
            }
            if (turn.thread.isInterrupted()) {
                turn.note(PovZelTurn.Break.THREAD);
            } else if (turn.timed && turn.deadline - System.nanoTime() <= 0) {
                turn.note(PovZelTurn.Break.TIMEOUT);
            }
            if (turn.broken != null && !turn.delivered) {
                deliver(turn);
            }
        }
    }
}
