package com.tarvolin.povzel;

import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.BitSet;
import java.util.Collection;
import java.util.Deque;
import java.util.HashMap;
import java.util.HashSet;
import java.util.LinkedHashMap;
import java.util.LinkedHashSet;
import java.util.List;
import java.util.Map;
import java.util.Set;

/**
 * Reads an object of the database with everything that it contains. What is met again is the same
 * value, or, where it contains itself, a reference. Keeps a stack of its own, as the encoder does.
 */
final class PovZelDecoder {
    /** Java hashes a container with all that it contains, again wherever that is met, and recursively. */
    private static final int LARGEST_HASHED = 10_000;
    private static final int DEEPEST_HASHED = 64;

    private final PovZelCalls calls;
    private final PovZelConverter converter;
    /** The containers that were met, by their oops; those that are under way have no value yet. */
    private final Map<Long, Container> met = new HashMap<>();
    private final Deque<Container> open = new ArrayDeque<>();

    PovZelDecoder(PovZelCalls calls) {
        this.calls = calls;
        this.converter = calls.converter();
    }

    /** The value of an object that a report describes; a reference where Java has no type for it. */
    Object value(PovZelReport report) {
        Object value = leaf(report);
        if (value != null) {
            return value;
        }
        Container top = open(report);
        while (true) {
            if (top.next < top.oops.length) {
                top = step(top);
                continue;
            }
            Container read = open.pop();
            read.finish();
            if (open.isEmpty()) {
                return read.value;
            }
            top = open.peek();
            top.addContainer(read);
        }
    }

    /** Reads the next element; returns the container to go on with, which may be that element. */
    private Container step(Container top) {
        long oop = top.oops[top.next];
        if (!PovZelValues.isReference(oop)) {
            return top.add(PovZelValues.immediate(oop));
        }
        Container known = met.get(oop);
        if (known != null) {
            return known.value != null ? top.addContainer(known) : top.add(calls.hold(oop));
        }
        PovZelReport element = calls.describe(PovZelValues.existing(oop));
        Object value = leaf(element);
        return value != null ? top.add(value) : open(element);
    }

    /** The value of an object that is no container; null for one that is. */
    private Object leaf(PovZelReport report) {
        Object value = converter.simpleValue(report);
        if (value != null) {
            return value;
        }
        if (report.objType == PovZelValues.BYTES) {
            return converter.bytes(report);
        }
        return converter.kindOf(report) == PovZelKind.OBJECT ? converter.reference(report) : null;
    }

    private Container open(PovZelReport report) {
        Container container = new Container(report);
        open.push(container);
        met.put(report.oop, container);
        return container;
    }

    /** The elements of an array, or of what {@code asArray} makes of another collection. */
    private long[] elements(PovZelReport collection) {
        boolean array = converter.kindOf(collection).readAsItIs;
        return converter.indexedOops(array ? collection : answer(collection, "asArray"));
    }

    private PovZelReport answer(PovZelReport receiver, String selector) {
        return converter.perform(PovZelValues.existing(receiver.oop), selector);
    }

    /** A container that is being read; the contents of a dictionary are its keys, then its values. */
    private final class Container {
        private final long oop;
        private final PovZelKind kind;
        private long[] oops;
        private Object[] values;
        private int next;
        private Object value;
        /** How many values it shows with all that it contains, those that are shared each time. */
        private int size = 1;
        private int depth = 1;
        /** The elements that are too large or too deep to be hashed. */
        private BitSet unhashed;

        Container(PovZelReport report) {
            oop = report.oop;
            kind = converter.kindOf(report);
            oops = kind == PovZelKind.DICTIONARY
                    ? joined(elements(answer(report, "keys")), elements(answer(report, "values")))
                    : elements(report);
            values = new Object[oops.length];
        }

        private long[] joined(long[] keys, long[] values) {
            if (keys.length != values.length) {
                throw new IllegalArgumentException("The dictionary " + oop + " has " + keys.length
                        + " keys and " + values.length + " values");
            }
            long[] all = Arrays.copyOf(keys, 2 * keys.length);
            System.arraycopy(values, 0, all, keys.length, values.length);
            return all;
        }

        Container add(Object element) {
            values[next++] = element;
            size = sum(size, 1);
            return this;
        }

        Container addContainer(Container element) {
            if (element.size > LARGEST_HASHED || element.depth > DEEPEST_HASHED) {
                unhashed = unhashed != null ? unhashed : new BitSet();
                unhashed.set(next);
            }
            values[next++] = element.value;
            size = sum(size, element.size);
            depth = Math.max(depth, sum(element.depth, 1));
            return this;
        }

        private int sum(int left, int right) {
            return (int) Math.min((long) left + right, Integer.MAX_VALUE);
        }

        /** Makes the value of what was read, which is needed no more. */
        void finish() {
            value = made();
            oops = null;
            values = null;
            unhashed = null;
        }

        private Object made() {
            switch (kind) {
                case DICTIONARY:
                    int count = values.length / 2;
                    Set<Object> keys = characters(count);
                    Map<Object, Object> map = new LinkedHashMap<>(capacity(count));
                    for (int i = 0; i < count; i++) {
                        map.put(distinct(i, map.keySet(), keys), values[count + i]);
                    }
                    return map;
                case SET:
                    Set<Object> set = new LinkedHashSet<>(capacity(values.length));
                    Set<Object> elements = characters(values.length);
                    for (int i = 0; i < values.length; i++) {
                        set.add(distinct(i, set, elements));
                    }
                    return set;
                default:
                    return new ArrayList<>(Arrays.asList(values));
            }
        }

        private int capacity(int count) {
            return (int) Math.min(Integer.MAX_VALUE, count / 3 * 4L + 4);
        }

        /** The characters that are texts in Java, where a text may be equal to them. */
        private Set<Object> characters(int count) {
            Set<Object> characters = new HashSet<>();
            for (int i = 0; i < count; i++) {
                if (values[i] instanceof String && !PovZelValues.isReference(oops[i])) {
                    characters.add(values[i]);
                }
            }
            return characters;
        }

        /**
         * A key or an element: a reference where Java has no way to hash the value, or takes it for
         * another one that the database tells apart.
         */
        private Object distinct(int index, Collection<Object> others, Set<Object> characters) {
            Object value = values[index];
            if (!PovZelValues.isReference(oops[index])) {
                return value;
            }
            boolean hashed = unhashed == null || !unhashed.get(index);
            return hashed && !others.contains(value) && !characters.contains(value) ? value
                    : calls.hold(oops[index]);
        }
    }
}
