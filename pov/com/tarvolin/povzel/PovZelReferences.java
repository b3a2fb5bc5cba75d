package com.tarvolin.povzel;

import java.lang.ref.PhantomReference;
import java.lang.ref.Reference;
import java.lang.ref.ReferenceQueue;
import java.util.Collections;
import java.util.HashMap;
import java.util.HashSet;
import java.util.Iterator;
import java.util.LinkedHashSet;
import java.util.Map;
import java.util.Set;

/**
 * Which oops of a session the program still holds. The database keeps an exported object until its
 * oop is released; this does so once the last {@link PovZelObject} for it was closed or collected,
 * in batches, at the start of a later call.
 *
 * <p>References may be given up at any time; what calls natives needs {@link PovZelLibrary#LOCK}.
 */
final class PovZelReferences {
    private final ReferenceQueue<PovZelObject> collected = new ReferenceQueue<>();
    private final Set<Handle> handles = new HashSet<>();
    private final Map<Long, Integer> counts = new HashMap<>();
    /** What was exported, used or given up since the last release; some of it may be held. */
    private Set<Long> touched = new LinkedHashSet<>();

    /** What is left of a {@link PovZelObject} when it is gone. */
    static final class Handle extends PhantomReference<PovZelObject> {
        private final long oop;

        private Handle(PovZelObject object, long oop, ReferenceQueue<PovZelObject> queue) {
            super(object, queue);
            this.oop = oop;
        }
    }

    /** Notes that {@code object} holds its oop, until {@link #release} or its collection. */
    synchronized Handle hold(PovZelObject object, long oop) {
        Handle handle = new Handle(object, oop, collected);
        handles.add(handle);
        counts.merge(oop, 1, Integer::sum);
        return handle;
    }

    /** Ends a hold; does nothing when it has ended. */
    synchronized void release(Handle handle) {
        if (!handles.remove(handle)) {
            return;
        }
        int left = counts.merge(handle.oop, -1, Integer::sum);
        if (left == 0) {
            counts.remove(handle.oop);
            touched.add(handle.oop);
        }
    }

    /**
     * Notes that the call under way deals with an oop: one that the database exported, which the program
     * may keep or not, or one that it may forget before the call ends.
     */
    synchronized void touch(long oop) {
        if (PovZelValues.isReference(oop)) {
            touched.add(oop);
        }
    }

    /** How many oops are held. */
    synchronized int held() {
        return counts.size();
    }

    /**
     * Gives up what is not held any more. An oop that the database refuses is dropped all the same:
     * the session's end releases it.
     */
    void releaseUnused(int sessionId) {
        releaseAll(sessionId, takeUnused(Collections.emptySet()));
    }

    /**
     * Gives up what Java's collector has found, which has just run. Within a call: what that itself
     * has touched, {@code inUse}, stays.
     */
    void releaseCollected(int sessionId, Set<Long> inUse) {
        try {
            // The collector's finds come one by one.
            for (Reference<?> r = collected.remove(1); r != null; r = collected.remove(1)) {
                release((Handle) r);
            }
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
        }
        releaseAll(sessionId, takeUnused(inUse));
    }

    /** What was exported, used or given up since the last release. */
    synchronized Set<Long> touched() {
        return new HashSet<>(touched);
    }

    private synchronized Set<Long> takeUnused(Set<Long> inUse) {
        for (Reference<? extends PovZelObject> r = collected.poll(); r != null; r = collected.poll()) {
            release((Handle) r);
        }
        if (touched.isEmpty()) {
            return Collections.emptySet();
        }
        touched.removeAll(counts.keySet());
        touched.removeAll(inUse);
        if (touched.isEmpty() && inUse.isEmpty()) {
            return Collections.emptySet();
        }
        Set<Long> unused = touched;
        touched = new LinkedHashSet<>(inUse);
        return unused;
    }

    private static void releaseAll(int sessionId, Set<Long> oops) {
        Iterator<Long> next = oops.iterator();
        while (next.hasNext()) {
            long[] batch = new long[Math.min(oops.size(), PovZelLibrary.oopCapacity())];
            int count = 0;
            while (count < batch.length && next.hasNext()) {
                batch[count++] = next.next();
            }
            PovZelInterface._releaseOops(sessionId, batch, count, null);
        }
    }
}
