package com.tarvolin.povzel;

import java.time.Duration;
import java.util.ArrayDeque;
import java.util.Arrays;
import java.util.Deque;
import java.util.Objects;
import java.util.concurrent.Semaphore;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicBoolean;

/**
 * A number of sessions of one user, which threads take and give back.
 *
 * <pre>{@code
 * try (PovZelPool pool = PovZelPool.builder("", "DataCurator", "swordfish").size(4).build()) {
 *     try (PovZelSession session = pool.session()) {
 *         session.transaction(() -> session.execute("Globals at: #Answer put: 42"));
 *     }
 * }
 * }</pre>
 *
 * <p>A session is given back by its {@link PovZelSession#close()}, and has ended then: what was not
 * committed is taken back, and its references throw an {@code IllegalStateException} from then on, as
 * it does itself. Whoever is next gets one that was logged in anew, and finds nothing of it: no
 * changes, variables, references, listeners or settings. One that does not answer any more is replaced
 * in the same way.
 *
 * <p>The library takes one call at a time, whatever the sessions: a pool keeps the work of threads apart
 * and spares most of them the login, but their calls take turns.
 *
 * <p>A session that is forgotten instead of being given back is logged out after Java's collector
 * found it, and has its place in the pool again, at the latest when somebody has waited in vain for a
 * session; a warning to the log {@code com.tarvolin.povzel} of
 * java.util.logging shows where it was taken.
 *
 * <p>A pool may be used from any thread.
 */
public final class PovZelPool implements AutoCloseable {
    /** A turn with so little time comes at once or not at all. */
    private static final long AT_ONCE_NANOS = 1;
    /** After what time a wait without an end looks for forgotten sessions. */
    private static final long PATIENCE_NANOS = TimeUnit.SECONDS.toNanos(30);

    private final String server;
    private final String user;
    private final char[] password;
    private final int size;
    private final long maxWaitNanos;
    private final long validateNanos;
    /** One for each session that may be taken; the first come are the first served. */
    private final Semaphore places;
    /** Sessions that nobody has used since they were logged in. Guards itself and what follows. */
    private final Deque<Idle> idle = new ArrayDeque<>();
    private volatile boolean closed;

    private static final class Idle {
        private final PovZelSession session;
        private final long since = System.nanoTime();

        Idle(PovZelSession session) {
            this.session = session;
        }
    }

    /**
     * What a pool is to be like.
     *
     * <pre>{@code
     * PovZelPool.Builder builder = PovZelPool.builder("", "DataCurator", "swordfish").size(2)
     *         .maxWait(Duration.ofSeconds(5)).validateAfter(Duration.ofMinutes(1));
     * try (PovZelPool pool = builder.build(); PovZelSession session = pool.session()) {
     *     System.out.println(session.execute("3 + 4"));
     * }
     * }</pre>
     */
    public static final class Builder {
        private final String server;
        private final String user;
        private final char[] password;
        private int size = 8;
        private Duration maxWait = Duration.ofSeconds(30);
        private Duration validateAfter = Duration.ofSeconds(30);

        private Builder(String server, String user, char[] password) {
            this.server = server;
            this.user = user;
            this.password = password;
        }

        /**
         * Says how many sessions can be taken at a time.
         *
         * @param sessions the number; 8 unless this is called. The embedded database has room for 64
         *     sessions, those outside of the pool included
         * @return this
         * @throws IllegalArgumentException if it is less than 1
         */
        public Builder size(int sessions) {
            if (sessions < 1) {
                throw new IllegalArgumentException("A pool of " + sessions + " sessions");
            }
            size = sessions;
            return this;
        }

        /**
         * Says how long {@link PovZelPool#session()} may wait for a session.
         *
         * @param time the time; null or zero for as long as it takes; 30 seconds unless this is called
         * @return this
         * @throws IllegalArgumentException if it is negative
         */
        public Builder maxWait(Duration time) {
            PovZelSession.nanos(time);
            maxWait = time;
            return this;
        }

        /**
         * Says after what time without use a session is asked whether it still answers, before it is
         * taken.
         *
         * @param time the time; zero for always; 30 seconds unless this is called
         * @return this
         * @throws IllegalArgumentException if it is negative
         */
        public Builder validateAfter(Duration time) {
            Objects.requireNonNull(time, "The time is null");
            PovZelSession.nanos(time);
            validateAfter = time;
            return this;
        }

        /**
         * Makes the pool. It logs in when a session is taken.
         *
         * @return the pool
         */
        public PovZelPool build() {
            return new PovZelPool(this);
        }
    }

    private PovZelPool(Builder builder) {
        server = builder.server;
        user = builder.user;
        password = builder.password.clone();
        size = builder.size;
        maxWaitNanos = PovZelSession.nanos(builder.maxWait);
        validateNanos = PovZelSession.nanos(builder.validateAfter);
        places = new Semaphore(size, true);
    }

    /**
     * Begins a pool.
     *
     * @param server the server's name; empty for the database that needs none, such as the embedded one
     * @param user the database user
     * @param password the user's password
     * @return what the pool is built with
     */
    public static Builder builder(String server, String user, String password) {
        Objects.requireNonNull(password, "The password is null");
        return builder(server, user, password.toCharArray());
    }

    /**
     * Begins a pool.
     *
     * @param server the server's name; empty for the database that needs none, such as the embedded one
     * @param user the database user
     * @param password the user's password. The array is left untouched; the pool keeps a copy, and
     *     clears that when it is closed
     * @return what the pool is built with
     */
    public static Builder builder(String server, String user, char[] password) {
        Objects.requireNonNull(server, "The server is null");
        Objects.requireNonNull(user, "The user is null");
        Objects.requireNonNull(password, "The password is null");
        return new Builder(server, user, password.clone());
    }

    /**
     * Takes a session. When all are taken, this waits until one is given back; who came first gets it.
     *
     * @return the session, which nobody has used before; {@link PovZelSession#close()} gives it back
     * @throws PovZelTimeoutException if none was to be had in the time that {@link Builder#maxWait}
     *     allows, or the library was busy with a call in that time, as the message tells. The suppressed
     *     exceptions show where those were taken that others have
     * @throws PovZelCancelledException if the thread is interrupted, which it still is then
     * @throws PovZelLoginException if the database refuses a login
     * @throws IllegalStateException if the pool is closed, or was while this waited
     */
    public PovZelSession session() {
        long begun = System.nanoTime();
        Throwable place = new Throwable("taken here");
        boolean late = await();
        PovZelSession taken = null;
        try {
            taken = take(late ? System.nanoTime() : begun);
            taken.calls().login().lend(this, place);
            return taken;
        } finally {
            if (taken == null) {
                places.release();
            }
        }
    }

    /** Waits for a place; answers whether it came only when those of forgotten sessions were looked for. */
    private boolean await() {
        boolean late;
        try {
            late = !places.tryAcquire(maxWaitNanos == 0 ? PATIENCE_NANOS : maxWaitNanos,
                    TimeUnit.NANOSECONDS);
            if (late) {
                PovZelLogins.awaitCollection();
                if (maxWaitNanos == 0) {
                    places.acquire();
                } else if (!places.tryAcquire()) {
                    throw allTaken();
                }
            }
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
            throw PovZelException.broken(PovZelTurn.Break.THREAD);
        }
        if (closed) {
            // The next one that waits is told, too.
            places.release();
            throw closedFailure();
        }
        return late;
    }

    private PovZelTimeoutException allTaken() {
        return timedOut("No session was given back to the pool within "
                + Duration.ofNanos(maxWaitNanos) + ": all " + size + " are taken");
    }

    private PovZelTimeoutException busy() {
        return timedOut("The library was busy with another call for the pool's "
                + Duration.ofNanos(maxWaitNanos) + ": a session could not be made ready");
    }

    private PovZelTimeoutException timedOut(String message) {
        PovZelTimeoutException failure = PovZelException.timedOut(message);
        PovZelLogins.places(this).forEach(failure::addSuppressed);
        return failure;
    }

    private static IllegalStateException closedFailure() {
        return new IllegalStateException("The pool is closed");
    }

    private PovZelSession take(long begun) {
        for (Idle each = nextIdle(); each != null; each = nextIdle()) {
            if (isGood(each, begun)) {
                return each.session;
            }
        }
        try {
            return login(nanosLeft(begun));
        } catch (PovZelTimeoutException e) {
            throw busy();
        }
    }

    private Idle nextIdle() {
        synchronized (idle) {
            return idle.pollFirst();
        }
    }

    private boolean isGood(Idle each, long begun) {
        if (System.nanoTime() - each.since < validateNanos) {
            return true;
        }
        AtomicBoolean asked = new AtomicBoolean();
        boolean told = false;
        try {
            boolean good = each.session.isValid(nanosLeft(begun), () -> asked.set(true));
            told = good || asked.get();
            if (!told) {
                throw busy();
            }
            if (!good) {
                endQuietly(each.session);
            }
            return good;
        } finally {
            if (!told) {
                addIdle(each);
            }
        }
    }

    private long nanosLeft(long begun) {
        return maxWaitNanos == 0 ? 0
                : Math.max(maxWaitNanos - (System.nanoTime() - begun), AT_ONCE_NANOS);
    }

    private PovZelSession login(long nanos) {
        String secret;
        synchronized (idle) {
            if (closed) {
                throw closedFailure();
            }
            secret = new String(password);
        }
        return PovZelSession.login(server, null, user, secret, null, null, nanos);
    }

    /** A session of the pool has ended: logs in for the next one, unless that has to wait. */
    void giveBack() {
        try {
            addIdle(new Idle(login(AT_ONCE_NANOS)));
        } catch (PovZelException | IllegalStateException e) {
            // Who takes a session next logs in, and is told what is in the way.
        } finally {
            places.release();
        }
    }

    private void addIdle(Idle unused) {
        synchronized (idle) {
            if (!closed) {
                idle.addFirst(unused);
                return;
            }
        }
        endQuietly(unused.session);
    }

    /** A session of the pool was forgotten, and has been logged out. */
    void lost() {
        places.release();
    }

    private static void endQuietly(PovZelSession session) {
        try {
            session.close();
        } catch (PovZelException e) {
            // It has ended all the same, and nobody had it.
        }
    }

    /**
     * Closes the pool: no session can be taken any more, those who wait for one are told so, and the
     * sessions that nobody has are logged out. Those that are taken can be used until they are given
     * back. Waits for no call, and does nothing when the pool is closed.
     */
    @Override
    public void close() {
        Deque<Idle> unused;
        synchronized (idle) {
            if (closed) {
                return;
            }
            closed = true;
            Arrays.fill(password, '\0');
            unused = new ArrayDeque<>(idle);
            idle.clear();
        }
        places.release();
        unused.forEach(each -> endQuietly(each.session));
    }

    @Override
    public String toString() {
        return "pool of " + size + " sessions" + (closed ? ", closed" : "");
    }
}
