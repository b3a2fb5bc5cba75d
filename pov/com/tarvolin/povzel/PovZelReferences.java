package com.tarvolin.povzel;

import java.lang.ref.PhantomReference;
import java.lang.ref.Reference;
import java.lang.ref.ReferenceQueue;
import java.util.HashMap;
import java.util.HashSet;
import java.util.Iterator;
import java.util.LinkedHashSet;
import java.util.Map;
import java.util.Set;

/**
 * Which oops of a session the program still holds. The database keeps an exported object until its
 * oop is released; this does so once the last {@link PovZelObject} for it was closed or collected, in
 * batches, at the start of a later call.
 *
 * <p>All methods need {@link PovZelLibrary#LOCK}.
 */
final class PovZelReferences {
    private final ReferenceQueue<PovZelObject> collected = new ReferenceQueue<>();
    private final Set<Handle> handles = new HashSet<>();
    private final Map<Long, Integer> counts = new HashMap<>();
    private final Set<Long> unused = new LinkedHashSet<>();

    /** What is left of a {@link PovZelObject} when it is gone. */
    static final class Handle extends PhantomReference<PovZelObject> {
        private final long oop;

        private Handle(PovZelObject object, long oop, ReferenceQueue<PovZelObject> queue) {
            super(object, queue);
            this.oop = oop;
        }
    }

    /** Notes that {@code object} holds its oop, until {@link #release} or its collection. */
    Handle hold(PovZelObject object, long oop) {
        Handle handle = new Handle(object, oop, collected);
        handles.add(handle);
        counts.merge(oop, 1, Integer::sum);
        unused.remove(oop);
        return handle;
    }

    /** Ends a hold; does nothing when it has ended. */
    void release(Handle handle) {
        if (!handles.remove(handle)) {
            return;
        }
        int left = counts.merge(handle.oop, -1, Integer::sum);
        if (left == 0) {
            counts.remove(handle.oop);
            unused.add(handle.oop);
        }
    }

    /** Notes that the database exported an oop that the program did not keep. */
    void exported(long oop) {
        if (PovZelValues.isReference(oop) && !counts.containsKey(oop)) {
            unused.add(oop);
        }
    }

    /** How many oops are held. */
    int held() {
        return counts.size();
    }

    /**
     * Gives up what is not held any more. An oop that the database refuses is dropped all the same:
     * the session's end releases it.
     */
    void releaseUnused(int sessionId) {
        for (Reference<? extends PovZelObject> r = collected.poll(); r != null; r = collected.poll()) {
            release((Handle) r);
        }
        Iterator<Long> next = unused.iterator();
        while (next.hasNext()) {
            long[] batch = new long[Math.min(unused.size(), PovZelLibrary.oopCapacity())];
            int count = 0;
            while (count < batch.length && next.hasNext()) {
                batch[count++] = next.next();
                next.remove();
            }
            PovZelInterface._releaseOops(sessionId, batch, count, new PovZelException());
        }
    }
}
