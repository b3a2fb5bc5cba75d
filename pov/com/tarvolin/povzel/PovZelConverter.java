package com.tarvolin.povzel;

import java.math.BigInteger;
import java.util.Arrays;
import java.util.HashMap;
import java.util.Iterator;
import java.util.List;
import java.util.Map;
import java.util.function.IntFunction;

/**
 * Converts between values of Java and objects of one session, where that takes natives. All methods
 * run inside {@link PovZelCalls#locked}.
 */
final class PovZelConverter {
    private static final int DOES_NOT_UNDERSTAND = 2010;
    private static final int LARGEST_FETCH = 4096;
    private static final String MAKE_DICTIONARY = "[:pairs | | made | made := Dictionary new."
            + " 1 to: pairs size by: 2 do: [:i | made at: (pairs at: i) put: (pairs at: i + 1)]. made]";

    private final PovZelCalls calls;
    private final Map<Long, KnownClass> classes = new HashMap<>();
    private PovZelObject dictionaryMaker;
    private volatile boolean truncateTimes;

    /** A class whose instances the program met; the reference keeps its oop from naming another. */
    private static final class KnownClass {
        private final PovZelObject object;
        private PovZelKind kind;
        private String name;

        KnownClass(PovZelObject object) {
            this.object = object;
        }
    }

    PovZelConverter(PovZelCalls calls) {
        this.calls = calls;
    }

    /** From any thread, without the lock. */
    void truncateTimes(boolean truncate) {
        truncateTimes = truncate;
    }

    /** What a filled report describes, as {@link PovZelSession#execute(String)} returns it. */
    Object value(PovZelReport report) {
        if (!PovZelValues.isReference(report.oop)) {
            return PovZelValues.immediate(report.oop);
        }
        Object value = simpleValue(report);
        return value != null ? value : reference(report);
    }

    /** The same, but a reference to every object with contents. */
    Object valueOrReference(PovZelReport report) {
        return PovZelValues.isReference(report.oop) ? reference(report)
                : PovZelValues.immediate(report.oop);
    }

    /** The same with everything that the object contains, as {@link PovZelObject#value()} returns it. */
    Object wholeValue(PovZelReport report) {
        return PovZelValues.isReference(report.oop) ? new PovZelDecoder(calls).value(report)
                : PovZelValues.immediate(report.oop);
    }

    /** The result that a report describes, as a program asked for it. */
    <T> T value(PovZelReport report, Class<T> type) {
        if (type == PovZelObject.class) {
            return PovZelValues.convert(valueOrReference(report), type);
        }
        Object value = value(report);
        if (value instanceof PovZelObject && !type.isInstance(value)) {
            ((PovZelObject) value).close();
            value = wholeValue(report);
        }
        return PovZelValues.convert(value, type);
    }

    /** A reference to a described object. */
    PovZelObject reference(PovZelReport report) {
        PovZelObject object = calls.hold(report.oop);
        KnownClass known = classes.get(report.classOop);
        if (known != null) {
            object.noteClassName(known.name);
        }
        return object;
    }

    /** The value of an object that Java has a type for, no container or bytes; null for others. */
    Object simpleValue(PovZelReport report) {
        calls.touch(report.oop);
        switch (report.valueType) {
            case PovZelValues.VALUE_FLOAT:
                return report.valueDouble;
            case PovZelValues.VALUE_BYTES:
                return kindOf(report) == PovZelKind.INTEGER ? integer(report) : null;
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

    /** How the database keeps a large integer is its own affair; what it prints is not. */
    private Object integer(PovZelReport object) {
        PovZelReport printed = perform(PovZelValues.existing(object.oop), "printString");
        BigInteger value = new BigInteger((String) simpleValue(printed));
        return value.bitLength() < Long.SIZE ? (Object) value.longValue() : value;
    }

    /** The bytes of a described byte object. */
    byte[] bytes(PovZelReport report) {
        if (report.valueBytes.length == report.indexedSize) {
            return report.valueBytes;
        }
        try (PovZelObject object = calls.hold(report.oop)) {
            return object.bytes(report, null);
        }
    }

    /** The indexed slots of a described object; the first ones came with the description. */
    long[] indexedOops(PovZelReport object) {
        if (object.indexedSize > Integer.MAX_VALUE) {
            throw new IllegalArgumentException("The object " + object.oop + " has "
                    + object.indexedSize + " elements, more than an array of Java can");
        }
        long[] oops = new long[(int) object.indexedSize];
        int preloaded = object.valueLongs == null ? 0 : object.valueLongs.length - object.namedSize;
        int done = Math.max(Math.min(preloaded, oops.length), 0);
        if (done > 0) {
            System.arraycopy(object.valueLongs, object.namedSize, oops, 0, done);
        }
        int most = Math.min(LARGEST_FETCH, PovZelLibrary.oopCapacity());
        while (done < oops.length) {
            long[] some = indexedOops(PovZelValues.existing(object.oop), done + 1L,
                    Math.min(most, oops.length - done));
            if (some.length == 0) {
                return Arrays.copyOf(oops, done);
            }
            System.arraycopy(some, 0, oops, done, some.length);
            done += some.length;
        }
        return oops;
    }

    /** Some of an object's indexed slots, as far as it has them. */
    long[] indexedOops(PovZelReport object, long start, int count) {
        return calls.fetch(count, (reports, id, e) ->
                PovZelInterface._getObjs(id, object, start, count, reports, e));
    }

    /** What a described object is to Java; the database is asked once for each class. */
    PovZelKind kindOf(PovZelReport object) {
        if (object.classOop == PovZelValues.ARRAY_CLASS) {
            return PovZelKind.ARRAY;
        }
        KnownClass known = knownClass(object.classOop);
        if (known.kind == null) {
            known.kind = askKind(object);
        }
        return known.kind;
    }

    private PovZelKind askKind(PovZelReport object) {
        PovZelReport named = PovZelValues.existing(object.oop);
        if (object.objType == PovZelValues.BYTES) {
            return answersTrue(named, "isInteger") ? PovZelKind.INTEGER : PovZelKind.OBJECT;
        }
        if (object.objType == PovZelValues.SET) {
            return PovZelKind.SET;
        }
        if (calls.call((id, e) -> PovZelInterface._isKindOf(id, named,
                PovZelValues.existing(PovZelValues.ARRAY_CLASS), e)) != 0) {
            return PovZelKind.ARRAY;
        }
        if (answersTrue(named, "isDictionary")) {
            return PovZelKind.DICTIONARY;
        }
        if (answersTrue(named, "isSequenceable")) {
            return answersTrue(named, "respondsTo:", PovZelValues.simple("sortBlock"))
                    ? PovZelKind.SORTED : PovZelKind.SEQUENCE;
        }
        return answersTrue(named, "isCollection") ? PovZelKind.COLLECTION : PovZelKind.OBJECT;
    }

    private boolean answersTrue(PovZelReport object, String selector, PovZelReport... arguments) {
        try {
            return perform(object, selector, arguments).oop == PovZelValues.TRUE;
        } catch (PovZelException e) {
            if (e.getNumber() == DOES_NOT_UNDERSTAND) {
                return false;
            }
            throw e;
        }
    }

    /** Refuses a described object whose elements have no order or are in no slots. */
    void requireList(PovZelReport report, PovZelObject object) {
        if (report.objType == PovZelValues.BYTES) {
            throw new IllegalArgumentException(object + " holds bytes: use bytes()");
        }
        PovZelKind kind = kindOf(report);
        if (!isPlaced(report) && kind != PovZelKind.SORTED) {
            throw new IllegalArgumentException(object + " is no list: use "
                    + (kind == PovZelKind.OBJECT ? "namedSlots()" : "value()"));
        }
    }

    /** Refuses a described object whose elements are not where a program puts them. */
    void requirePlaces(PovZelReport report, PovZelObject object) {
        if (report.objType == PovZelValues.BYTES) {
            throw new IllegalArgumentException(object + " holds bytes: use setBytes()");
        }
        if (!isPlaced(report)) {
            throw new IllegalArgumentException(object + " has no elements to place: "
                    + (kindOf(report) == PovZelKind.OBJECT ? "use setNamedSlot()"
                    : "perform its messages, such as add:"));
        }
    }

    private boolean isPlaced(PovZelReport report) {
        PovZelKind kind = kindOf(report);
        return report.isCollection && report.objType != PovZelValues.BYTES
                && (kind == PovZelKind.ARRAY || kind == PovZelKind.SEQUENCE
                        || kind == PovZelKind.OBJECT);
    }

    /** The name of a described object's class. */
    String className(PovZelReport object) {
        KnownClass known = knownClass(object.classOop);
        if (known.name == null) {
            known.name = String.valueOf(value(perform(known.object.report(), "name")));
        }
        return known.name;
    }

    private KnownClass knownClass(long classOop) {
        KnownClass known = classes.get(classOop);
        if (known == null) {
            calls.describe(PovZelValues.existing(classOop));
            known = new KnownClass(calls.hold(classOop));
            classes.put(classOop, known);
        }
        return known;
    }

    /** Sends a message; the answer lives until the call that is under way ends. */
    PovZelReport perform(PovZelReport receiver, String selector, PovZelReport... arguments) {
        PovZelReport answer = new PovZelReport();
        calls.call((id, e) -> PovZelInterface._perform(id, receiver, selector, arguments,
                arguments.length, answer, e));
        calls.touch(answer.oop);
        return answer;
    }

    /** A report by which a native takes {@code value}. */
    PovZelReport report(Object value) {
        return report(value, "the value");
    }

    /** The same of a value of which messages speak as {@code what}. */
    PovZelReport report(Object value, String what) {
        return report(value, 0, index -> what);
    }

    /** The same of a value with an index, of which messages speak as {@code place}. */
    PovZelReport report(Object value, int index, IntFunction<String> place) {
        PovZelReport report = known(value);
        return report != null ? report
                : new PovZelEncoder(calls, truncateTimes, place).report(value, index);
    }

    /** Reports by which a native takes {@code values}, elements from {@code start} on. */
    PovZelReport[] elements(List<?> values, long start) {
        return reports(values, index -> "element " + (start + index));
    }

    /** Reports by which a native takes {@code values}, of which messages speak as {@code places}. */
    PovZelReport[] reports(List<?> values, IntFunction<String> places) {
        PovZelReport[] reports = new PovZelReport[values.size()];
        PovZelEncoder encoder = null;
        Iterator<?> next = values.iterator();
        for (int i = 0; i < reports.length; i++) {
            Object value = next.next();
            reports[i] = known(value);
            if (reports[i] == null) {
                encoder = encoder != null ? encoder : new PovZelEncoder(calls, truncateTimes, places);
                reports[i] = encoder.report(value, i);
            }
        }
        return reports;
    }

    /** The report of a value that needs nothing to be stored before; null for others. */
    private PovZelReport known(Object value) {
        return value instanceof PovZelObject && ((PovZelObject) value).session() == calls.session()
                ? ((PovZelObject) value).report() : PovZelValues.simple(value);
    }

    /** A new object that holds what a container does. */
    PovZelObject create(Object container, String what) {
        return calls.hold(report(container, what).oop);
    }

    /**
     * The block that makes a dictionary of keys and values in turn. No message does that, so a session
     * compiles a text at its first map.
     */
    PovZelReport dictionaryMaker() {
        if (dictionaryMaker == null) {
            PovZelReport block = new PovZelReport();
            calls.call((id, e) -> PovZelInterface._executeStr(id, MAKE_DICTIONARY, block, e));
            dictionaryMaker = calls.hold(block.oop);
        }
        return dictionaryMaker.report();
    }
}
