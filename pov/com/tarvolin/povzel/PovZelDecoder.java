package com.tarvolin.povzel;

import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Collection;
import java.util.Deque;
import java.util.HashMap;
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
    private final PovZelCalls calls;
    private final PovZelConverter converter;
    /** The containers that were met, by their oops; those that are under way have no value yet. */
    private final Map<Long, Object> read = new HashMap<>();
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
            value = top.finish();
            read.put(top.oop, value);
            open.pop();
            if (open.isEmpty()) {
                return value;
            }
            top = open.peek();
            top.add(value);
        }
    }

    /** Reads the next element; returns the container to go on with, which may be that element. */
    private Container step(Container top) {
        long oop = top.oops[top.next];
        if (!PovZelValues.isReference(oop)) {
            return top.add(PovZelValues.immediate(oop));
        }
        if (read.containsKey(oop)) {
            Object known = read.get(oop);
            return top.add(known != null ? known : calls.hold(oop));
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
        read.put(report.oop, null);
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
        private final long[] oops;
        private final Object[] values;
        private int next;

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

        Container add(Object value) {
            values[next++] = value;
            return this;
        }

        Object finish() {
            switch (kind) {
                case DICTIONARY:
                    int count = values.length / 2;
                    Map<Object, Object> map = new LinkedHashMap<>(capacity(count));
                    for (int i = 0; i < count; i++) {
                        map.put(distinct(i, map.keySet()), values[count + i]);
                    }
                    return map;
                case SET:
                    Set<Object> set = new LinkedHashSet<>(capacity(values.length));
                    for (int i = 0; i < values.length; i++) {
                        set.add(distinct(i, set));
                    }
                    return set;
                default:
                    return new ArrayList<>(Arrays.asList(values));
            }
        }

        private int capacity(int count) {
            return (int) Math.min(Integer.MAX_VALUE, count / 3 * 4L + 4);
        }

        /** The database tells apart what is equal in Java: of such values the later are references. */
        private Object distinct(int index, Collection<Object> others) {
            Object value = values[index];
            return PovZelValues.isReference(oops[index]) && others.contains(value)
                    ? calls.hold(oops[index]) : value;
        }
    }
}
