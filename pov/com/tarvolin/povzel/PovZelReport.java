package com.tarvolin.povzel;

/**
 * Names one database object, and describes it as far as the call that filled the report did.
 *
 * <pre>{@code
 * PovZelReport report = new PovZelReport();
 * report.oop = object.oop();
 * if (PovZelInterface._setup(session.id(), report, new PovZelException()) == 0) {
 *     System.out.println(report.namedSize + " named slots, " + report.indexedSize + " others");
 * }
 * }</pre>
 *
 * <p>A native fills a report with an object's oop, its class, its sizes and the first part of its
 * contents. A report given to a native names the object whose oop it holds or, when {@link #objType}
 * is -1, a new value that the native creates in the database first: {@link #valueType} says which of
 * the value fields it is made from, and the new oop is written back into {@link #oop}.
 *
 * <p>The natives write only the fields that apply to the object; every other field keeps its value.
 * Use a new report for each result.
 */
public class PovZelReport {
    /** The object's oop, zero-extended from 32 bits; 0 and 1 name no object. */
    public long oop;

    /** The oop of the object's class. */
    public long classOop;

    /** The oop held in named slot 12 of the object's class. */
    public long classHistoryOop;

    /** The kind of object: 0 pointers, 1 bytes, 2 unordered set, 3 special; -1 a new value. */
    public byte objType;

    /** How many named slots the object has. */
    public int namedSize;

    /** How many indexed slots, bytes or elements the object has. */
    public long indexedSize;

    /** Whether the object has indexed contents. */
    public boolean isCollection;

    /** Whether the object is a string of either width. */
    public boolean isString;

    /** Whether the object is a double-byte string. */
    public boolean isDBString;

    /**
     * Which value fields hold the value: -1 none, 0 nil, 1 boolean, 2 character, 3 small integer,
     * 4 float, 5 bytes, 6 oops, 7 string, 8 double-byte string, 9 date-time.
     */
    public byte valueType;

    /** The year of a date-time. */
    public int valueInt1;

    /** The day of the year of a date-time, from 1. */
    public int valueInt2;

    /** A boolean (0 or 1), a character, a small integer, or the milliseconds within a date-time's day. */
    public long valueLong;

    /** The value of a float. */
    public double valueDouble;

    /** The first bytes of a byte object, at most as many as the preload size. */
    public byte[] valueBytes;

    /** The first oops of a pointer object or a set, each zero-extended. */
    public long[] valueLongs;

    /** The text of a new string; results never set it. */
    public String valueString;

    /** A report that names nothing yet. */
    public PovZelReport() {
    }
}
