package com.tarvolin.povzel;

import java.lang.ref.PhantomReference;
import java.lang.ref.Reference;
import java.lang.ref.ReferenceQueue;
import java.util.ArrayList;
import java.util.Collections;
import java.util.HashMap;
import java.util.HashSet;
import java.util.List;
import java.util.Map;
import java.util.Set;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.TimeUnit;
import java.util.logging.Level;
import java.util.logging.Logger;

/**
 * The sessions that are open. A daemon thread waits for those that Java's collector finds forgotten,
 * has them logged out and warns of them; it ends soon after the last session.
 */
final class PovZelLogins {
    private static final String LOG = "com.tarvolin.povzel";
    private static final long LINGER_MILLIS = 1000;
    /** A JVM can be told not to collect when it is asked to. */
    private static final long LONGEST_COLLECTION_MILLIS = 500;

    private static final ReferenceQueue<Object> FOUND = new ReferenceQueue<>();
    private static final Set<Login> OPEN = new HashSet<>();
    private static boolean watched;

    private PovZelLogins() {
    }

    /** What is left of a session when it is gone. */
    static final class Login extends PhantomReference<Object> {
        private final int id;
        private final PovZelReferences references;
        private volatile Throwable place = new Throwable("logged in here");
        private volatile PovZelPool pool;

        private Login(PovZelSession session, int id, PovZelReferences references) {
            super(session, FOUND);
            this.id = id;
            this.references = references;
        }

        /** Notes which pool the session comes from, and where the program took it. */
        void lend(PovZelPool from, Throwable where) {
            place = where;
            pool = from;
        }

        /** The pool to give the session back to; null when it is none's. */
        PovZelPool pool() {
            return pool;
        }
    }

    /** Comes out of the queue when Java's collector has run. */
    private static final class Marker extends PhantomReference<Object> {
        private final CountDownLatch seen = new CountDownLatch(1);

        Marker() {
            super(new Object(), FOUND);
        }
    }

    /** Notes that a session is open. It keeps what is returned. */
    static Login add(PovZelSession session, int id, PovZelReferences references) {
        Login login = new Login(session, id, references);
        synchronized (OPEN) {
            OPEN.add(login);
            startWatching();
        }
        return login;
    }

    /** Notes that a session ends; answers whether it had not ended. */
    static boolean remove(Login login) {
        synchronized (OPEN) {
            boolean wasOpen = OPEN.remove(login);
            if (OPEN.isEmpty()) {
                // Tells the watch that it may end.
                login.enqueue();
            }
            return wasOpen;
        }
    }

    /** Where the sessions were taken that programs have of a pool. */
    static List<Throwable> places(PovZelPool pool) {
        List<Throwable> places = new ArrayList<>();
        for (Login each : open()) {
            if (each.pool == pool) {
                places.add(each.place);
            }
        }
        return places;
    }

    private static List<Login> open() {
        synchronized (OPEN) {
            return new ArrayList<>(OPEN);
        }
    }

    /**
     * Has Java's collector run, and gives up what the program had forgotten: sessions, and references
     * of every session. Within a call: what the calls of this thread have touched stays.
     */
    static void collect() {
        PovZelTurn mine = PovZelLibrary.LOCK.mine();
        Map<PovZelReferences, Set<Long>> inUse = new HashMap<>();
        for (PovZelTurn turn = mine; turn != null; turn = turn.outer) {
            if (turn.calls != null) {
                inUse.put(turn.calls.references(), turn.calls.references().touched());
            }
        }
        awaitCollection();
        if (mine.outer == null) {
            PovZelLibrary.LOCK.logOutClosed();
        }
        for (Login each : open()) {
            each.references.releaseCollected(each.id,
                    inUse.getOrDefault(each.references, Collections.emptySet()));
        }
    }

    /** Returns when the collector has run and told what it found, or soon when it never does. */
    static void awaitCollection() {
        synchronized (OPEN) {
            startWatching();
        }
        Marker marker = new Marker();
        System.gc();
        try {
            marker.seen.await(LONGEST_COLLECTION_MILLIS, TimeUnit.MILLISECONDS);
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
        }
        marker.clear();
    }

    private static void startWatching() {
        // When no thread is to be had the next login tries again.
        watched = watched
                || PovZelLibrary.startDaemon("povzel forgotten sessions", PovZelLogins::watch);
    }

    private static void watch() {
        List<Marker> markers = new ArrayList<>();
        try {
            while (true) {
                Reference<?> found = await(markers.isEmpty());
                if (found instanceof Login) {
                    endForgotten((Login) found);
                } else if (found != null) {
                    markers.add((Marker) found);
                } else if (!markers.isEmpty()) {
                    markers.forEach(marker -> marker.seen.countDown());
                    markers.clear();
                } else if (isOver()) {
                    return;
                }
            }
        } finally {
            synchronized (OPEN) {
                watched = false;
            }
        }
    }

    /** What one collection found comes out in any order: what comes with a marker is there soon. */
    private static Reference<?> await(boolean unmarked) {
        long millis = 1;
        if (unmarked) {
            synchronized (OPEN) {
                millis = OPEN.isEmpty() ? LINGER_MILLIS : 0;
            }
        }
        try {
            return FOUND.remove(millis);
        } catch (InterruptedException e) {
            // It is nobody's to interrupt.
            return null;
        }
    }

    private static boolean isOver() {
        synchronized (OPEN) {
            watched = !OPEN.isEmpty();
            return !watched;
        }
    }

    private static void endForgotten(Login login) {
        if (!remove(login)) {
            return;
        }
        PovZelLibrary.LOCK.logOut(login.id);
        PovZelPool pool = login.pool;
        if (pool != null) {
            pool.lost();
        }
        try {
            Logger.getLogger(LOG).log(Level.WARNING, "povzel session " + login.id + (pool == null
                    ? " was forgotten: close() it" : " was not given back to its pool: close() it")
                    + ". It has been logged out.", login.place);
        } catch (RuntimeException e) {
            // What handlers of the log throw is nothing to a thread of which they know nothing.
        }
    }
}
