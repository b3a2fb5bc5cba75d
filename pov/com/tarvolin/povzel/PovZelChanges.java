package com.tarvolin.povzel;

import java.util.ArrayList;
import java.util.LinkedHashMap;
import java.util.LinkedHashSet;
import java.util.List;
import java.util.Map;
import java.util.Queue;
import java.util.Set;
import java.util.concurrent.ConcurrentLinkedQueue;
import java.util.concurrent.CopyOnWriteArrayList;
import java.util.function.Consumer;
import java.util.function.ToIntFunction;

/** A session's changed objects, and who is told of them. The library's lock guards what is untold. */
final class PovZelChanges {
    private static final int LARGEST_BATCH = 1024;

    private final PovZelCalls calls;
    private final ToIntFunction<long[]> source;
    private final List<Listener> listeners = new CopyOnWriteArrayList<>();
    /** Fetched by polls that failed before they told anyone. */
    private final Set<PovZelObject> untold = new LinkedHashSet<>();
    /** Told, by polls that threw what a listener threw instead of returning them. */
    private final Queue<PovZelObject> unreturned = new ConcurrentLinkedQueue<>();

    private final class Listener implements PovZelRegistration {
        private final Consumer<PovZelObject> told;
        private volatile boolean closed;

        private Listener(Consumer<PovZelObject> told) {
            this.told = told;
        }

        @Override
        public void close() {
            closed = true;
            listeners.remove(this);
        }
    }

    /**
     * @param source fills an array with oops of objects changed since it was asked last, and returns
     *     how many: fewer than the array has room for when there are no more
     */
    PovZelChanges(PovZelCalls calls, ToIntFunction<long[]> source) {
        this.calls = calls;
        this.source = source;
    }

    PovZelRegistration add(Consumer<PovZelObject> told) {
        Listener listener = new Listener(told);
        listeners.add(listener);
        return listener;
    }

    /** Tells every listener, then throws what the first of them threw, or returns the changes. */
    List<PovZelObject> poll() {
        Map<Listener, List<PovZelObject>> telling = new LinkedHashMap<>();
        Set<PovZelObject> changed = calls.locked(() -> {
            fetch();
            listeners.forEach(listener -> telling.put(listener, own(untold)));
            Set<PovZelObject> all = new LinkedHashSet<>();
            while (!unreturned.isEmpty()) {
                all.add(unreturned.remove());
            }
            all.addAll(untold);
            untold.clear();
            return all;
        });
        Throwable thrown = tell(telling);
        if (thrown != null) {
            unreturned.addAll(changed);
            PovZelChanges.<RuntimeException>raise(thrown);
        }
        return new ArrayList<>(changed);
    }

    private void fetch() {
        long[] oops = new long[Math.min(LARGEST_BATCH, PovZelLibrary.oopCapacity())];
        int count;
        do {
            count = source.applyAsInt(oops);
            for (int i = 0; i < count; i++) {
                untold.add(calls.hold(oops[i]));
            }
        } while (count == oops.length);
    }

    /** References that a listener may close. */
    private List<PovZelObject> own(Set<PovZelObject> objects) {
        List<PovZelObject> own = new ArrayList<>(objects.size());
        objects.forEach(object -> own.add(calls.hold(object.oop())));
        return own;
    }

    private static Throwable tell(Map<Listener, List<PovZelObject>> telling) {
        Throwable first = null;
        for (Map.Entry<Listener, List<PovZelObject>> each : telling.entrySet()) {
            for (PovZelObject object : each.getValue()) {
                try {
                    if (!each.getKey().closed) {
                        each.getKey().told.accept(object);
                    }
                } catch (Throwable e) {
                    if (first == null) {
                        first = e;
                    } else if (first != e) {
                        first.addSuppressed(e);
                    }
                }
            }
        }
        return first;
    }

    /** Throws what a listener threw, whether it was declared or not. */
    @SuppressWarnings("unchecked")
    private static <E extends Throwable> void raise(Throwable thrown) throws E {
        throw (E) thrown;
    }
}
