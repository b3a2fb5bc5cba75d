package com.tarvolin.povzel;

import java.math.BigInteger;
import java.util.Arrays;
import java.util.HashMap;
import java.util.List;
import java.util.Map;

/**
 * Converts between values of Java and objects of one session, where that takes natives. All methods
 * run inside {@link PovZelCalls#locked}.
 */
final class PovZelConverter {
    private static final int LARGEST_DEPTH = 100;

    private final PovZelCalls calls;
    /** Which classes of byte objects are integers too large for an oop. */
    private final Map<Long, Boolean> integerClasses = new HashMap<>();

    PovZelConverter(PovZelCalls calls) {
        this.calls = calls;
    }

    /** What a filled report describes, as {@link PovZelSession#execute(String)} returns it. */
    Object value(PovZelReport report) {
        if (!PovZelValues.isReference(report.oop)) {
            return PovZelValues.immediate(report.oop);
        }
        Object value = simpleValue(report);
        return value != null ? value : calls.hold(report.oop);
    }

    /** The value of an object that Java has a type for; null for others. */
    Object simpleValue(PovZelReport report) {
        calls.exported(report.oop);
        switch (report.valueType) {
            case PovZelValues.VALUE_FLOAT:
                return report.valueDouble;
            case PovZelValues.VALUE_BYTES:
                return isInteger(report) ? integer(report) : null;
            case PovZelValues.VALUE_STRING:
                return PovZelValues.decodeSingleByte(bytes(report));
            case PovZelValues.VALUE_DOUBLE_BYTE_STRING:
                return PovZelValues.decodeDoubleByte(bytes(report));
            case PovZelValues.VALUE_DATE_TIME:
                return PovZelValues.dateTime(report);
            default:
                return null;
        }
    }

    private boolean isInteger(PovZelReport object) {
        Boolean known = integerClasses.get(object.classOop);
        if (known == null) {
            try (PovZelObject integers = calls.session().executeForObject("Integer");
                    PovZelObject value = calls.hold(object.oop)) {
                known = value.isKindOf(integers);
            }
            integerClasses.put(object.classOop, known);
        }
        return known;
    }

    /** How the database keeps a large integer is its own affair; what it prints is not. */
    private Object integer(PovZelReport object) {
        BigInteger value = new BigInteger(
                (String) calls.session().perform(calls.hold(object.oop), "printString"));
        return value.bitLength() < Long.SIZE ? (Object) value.longValue() : value;
    }

    private byte[] bytes(PovZelReport report) {
        if (report.valueBytes.length == report.indexedSize) {
            return report.valueBytes;
        }
        try (PovZelObject object = calls.hold(report.oop)) {
            return object.bytes(report, null);
        }
    }

    /** A report by which a native takes {@code value}. */
    PovZelReport report(Object value) {
        return report(value, 0);
    }

    /** Reports by which a native takes {@code values}. */
    PovZelReport[] reports(List<?> values) {
        return reports(values, 0);
    }

    /** A new array of the database. */
    PovZelObject newArray(List<?> elements) {
        return newArray(elements, 0);
    }

    private PovZelReport[] reports(List<?> values, int depth) {
        PovZelReport[] reports = new PovZelReport[values.size()];
        Arrays.setAll(reports, i -> report(values.get(i), depth));
        return reports;
    }

    private PovZelReport report(Object value, int depth) {
        PovZelReport report = PovZelValues.simple(value);
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
            return calls.session().executeForObject(value.toString()).report();
        }
        if (value instanceof byte[]) {
            return calls.session().newBytes((byte[]) value).report();
        }
        if (value instanceof Object[]) {
            return newArray(Arrays.asList((Object[]) value), depth + 1).report();
        }
        if (value instanceof List) {
            return newArray((List<?>) value, depth + 1).report();
        }
        throw new IllegalArgumentException("A value of " + value.getClass().getName()
                + " cannot be passed to the database");
    }

    private PovZelObject newArray(List<?> elements, int depth) {
        if (depth > LARGEST_DEPTH) {
            throw new IllegalArgumentException("Arrays are nested more than " + LARGEST_DEPTH
                    + " deep, or one contains itself");
        }
        PovZelReport[] size = {PovZelValues.simple(elements.size())};
        PovZelReport array = new PovZelReport();
        calls.call((id, e) -> PovZelInterface._perform(id,
                PovZelValues.existing(PovZelValues.ARRAY_CLASS), "new:", size, 1, array, e));
        PovZelObject object = calls.hold(array.oop);
        int chunk = PovZelLibrary.oopCapacity();
        for (int done = 0; done < elements.size(); done += chunk) {
            int count = Math.min(chunk, elements.size() - done);
            PovZelReport[] reports = reports(elements.subList(done, done + count), depth);
            long start = done + 1L;
            calls.call((id, e) ->
                    PovZelInterface._putObjs(id, object.report(), start, count, reports, e));
        }
        return object;
    }
}
