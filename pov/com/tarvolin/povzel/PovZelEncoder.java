package com.tarvolin.povzel;

import java.lang.reflect.Array;
import java.math.BigDecimal;
import java.math.BigInteger;
import java.nio.file.Path;
import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.Collection;
import java.util.Collections;
import java.util.Deque;
import java.util.IdentityHashMap;
import java.util.List;
import java.util.Map;
import java.util.Set;
import java.util.function.IntFunction;

/**
 * Stores the values that one call passes to the database. Containers become objects of their own, the
 * inner ones first; one that is met again becomes the same object. Keeps a stack of its own: the depth
 * of what is passed is nobody's concern.
 */
final class PovZelEncoder {
    /** The most elements that one message makes an array with. */
    private static final int LARGEST_BY_MESSAGE = 4;
    private static final String WITH = "with:with:with:with:";
    private static final int LONGEST_KEY_SHOWN = 40;
    private static final int MOST_PLACES = 8;

    private final PovZelCalls calls;
    private final boolean truncateTimes;
    private final IntFunction<String> place;
    /** The containers that were met; those that are under way have no report yet. */
    private final Map<Object, PovZelReport> stored = new IdentityHashMap<>();
    private final Deque<Container> open = new ArrayDeque<>();
    private int position;

    /** Names the value with a given index in messages. */
    PovZelEncoder(PovZelCalls calls, boolean truncateTimes, IntFunction<String> place) {
        this.calls = calls;
        this.truncateTimes = truncateTimes;
        this.place = place;
    }

    /** A report by which a native takes {@code value}, the one with the given index. */
    PovZelReport report(Object value, int index) {
        position = index;
        try {
            PovZelReport report = leaf(value);
            return report != null ? report : store(value);
        } catch (IllegalArgumentException e) {
            throw new IllegalArgumentException(e.getMessage() + " (" + places() + ")", e);
        }
    }

    /** The report of a value that contains no others, or was stored before; null for others. */
    private PovZelReport leaf(Object value) {
        PovZelReport report = PovZelValues.simple(value);
        if (report == null) {
            report = PovZelValues.time(value, truncateTimes);
        }
        if (report != null) {
            return report;
        }
        if (value instanceof PovZelObject) {
            if (((PovZelObject) value).session() != calls.session()) {
                throw new IllegalArgumentException(value + " belongs to another session");
            }
            return ((PovZelObject) value).report();
        }
        if (value instanceof Long || value instanceof BigInteger) {
            return integer((Number) value);
        }
        report = stored.get(value);
        if (report == null && stored.containsKey(value)) {
            throw new IllegalArgumentException("A value of " + value.getClass().getName()
                    + " contains itself, which cannot be passed to the database");
        }
        if (report == null && value instanceof byte[]) {
            report = bytes((byte[]) value);
            stored.put(value, report);
        }
        return report;
    }

    private PovZelReport integer(Number value) {
        int bits = value instanceof BigInteger ? ((BigInteger) value).abs().bitLength() : Long.SIZE;
        if (bits > PovZelValues.LARGEST_INTEGER_BITS) {
            throw new IllegalArgumentException("An integer of " + bits
                    + " bits is larger than the database's, which have "
                    + PovZelValues.LARGEST_INTEGER_BITS + " at most");
        }
        return answer(PovZelValues.string(value.toString(), false), "asInteger");
    }

    private PovZelReport bytes(byte[] bytes) {
        PovZelReport report = answer(PovZelValues.string("", false), "asByteArray");
        try (PovZelObject object = calls.hold(report.oop)) {
            object.setBytes(bytes);
        }
        return report;
    }

    private PovZelReport store(Object value) {
        Container top = open(value);
        while (true) {
            if (top.next < top.size) {
                Object item = top.items.apply(top.next);
                PovZelReport report = leaf(item);
                if (report != null) {
                    top.add(report);
                } else {
                    top = open(item);
                }
                continue;
            }
            PovZelReport report = top.finish();
            stored.put(top.source, report);
            open.pop();
            if (open.isEmpty()) {
                return report;
            }
            top = open.peek();
            top.add(report);
        }
    }

    private Container open(Object value) {
        Container container = container(value);
        open.push(container);
        stored.put(value, null);
        return container;
    }

    private Container container(Object value) {
        if (value instanceof Map) {
            List<Object> pairs = new ArrayList<>();
            ((Map<?, ?>) value).forEach((k, v) -> Collections.addAll(pairs, k, v));
            return new Container(value, pairs.toArray());
        }
        if (value instanceof Collection) {
            return new Container(value, ((Collection<?>) value).toArray());
        }
        // A path contains the paths of its names, without end.
        if (value instanceof Iterable && !(value instanceof Path)) {
            List<Object> elements = new ArrayList<>();
            ((Iterable<?>) value).forEach(elements::add);
            return new Container(value, elements.toArray());
        }
        if (value.getClass().isArray()) {
            return new Container(value, Array.getLength(value), i -> Array.get(value, i));
        }
        String hint = value instanceof BigDecimal ? ", which has no decimals: use its doubleValue()"
                + " or toString()" : "";
        throw new IllegalArgumentException("A value of " + value.getClass().getName()
                + " cannot be passed to the database" + hint);
    }

    /** Where the value at hand is, from the inside out. */
    private String places() {
        StringBuilder text = new StringBuilder();
        int shown = 0;
        for (Container container : open) {
            if (container.next < container.size && shown++ < MOST_PLACES) {
                text.append(container.place()).append(" of ");
            }
        }
        text.append(shown > MOST_PLACES ? "... of " : "");
        return text.append(place.apply(position)).toString();
    }

    /** What an object answers. The answer lives until the call that is under way ends. */
    private PovZelReport answer(PovZelReport receiver, String selector, PovZelReport... arguments) {
        return PovZelValues.existing(calls.converter().perform(receiver, selector, arguments).oop);
    }

    /** A container whose contents are being stored. */
    private final class Container {
        private final Object source;
        private final int size;
        private final IntFunction<Object> items;
        private final PovZelReport[] chunk;
        private PovZelReport array;
        private int next;
        private int filled;

        Container(Object source, Object[] items) {
            this(source, items.length, i -> items[i]);
        }

        Container(Object source, int size, IntFunction<Object> items) {
            this.source = source;
            this.size = size;
            this.items = items;
            this.chunk = new PovZelReport[Math.min(size, PovZelLibrary.oopCapacity())];
        }

        void add(PovZelReport item) {
            chunk[filled++] = item;
            next++;
            if (filled == chunk.length && size > LARGEST_BY_MESSAGE) {
                storeChunk();
            }
        }

        private void storeChunk() {
            PovZelReport arrays = PovZelValues.existing(PovZelValues.ARRAY_CLASS);
            if (array == null) {
                array = answer(arrays, "new:", PovZelValues.simple(size));
            }
            long start = next - filled + 1L;
            int count = filled;
            calls.transfer((id, e) -> PovZelInterface._putObjs(id, array, start, count, chunk, e));
            filled = 0;
        }

        /** The object that holds the contents, all of which are there. */
        PovZelReport finish() {
            if (size > LARGEST_BY_MESSAGE) {
                if (filled > 0) {
                    storeChunk();
                }
            } else {
                PovZelReport arrays = PovZelValues.existing(PovZelValues.ARRAY_CLASS);
                array = size == 0 ? answer(arrays, "new:", PovZelValues.simple(0))
                        : answer(arrays, WITH.substring(0, 5 * size), chunk);
            }
            if (source instanceof Map) {
                return hashed(dictionary(), size / 2);
            }
            return source instanceof Set ? hashed(answer(array, "asSet"), size) : array;
        }

        /** The place that an error has is one in a text which the program does not know. */
        private PovZelReport dictionary() {
            try {
                return answer(calls.converter().dictionaryMaker(), "value:", array);
            } catch (PovZelException e) {
                e.explain(" while storing a Map");
                throw e;
            }
        }

        /** Java tells apart what is equal in the database, such as 1 and 1.0. */
        private PovZelReport hashed(PovZelReport object, int expected) {
            if (answer(object, "size").oop != PovZelValues.simple(expected).oop) {
                throw new IllegalArgumentException("A value of " + source.getClass().getName()
                        + " has " + expected + (source instanceof Map ? " keys" : " elements")
                        + ", some of which are equal in the database, as 1 and 1.0 are");
            }
            return object;
        }

        String place() {
            if (!(source instanceof Map)) {
                return "element " + (next + 1);
            }
            if (next % 2 == 0) {
                return "key " + (next / 2 + 1);
            }
            Object key = items.apply(next - 1);
            return key instanceof String && ((String) key).length() <= LONGEST_KEY_SHOWN
                    ? "the value of '" + key + "'" : "value " + (next / 2 + 1);
        }
    }
}
