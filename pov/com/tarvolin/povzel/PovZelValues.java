package com.tarvolin.povzel;

import java.math.BigInteger;
import java.nio.charset.StandardCharsets;
import java.time.DateTimeException;
import java.time.LocalDate;
import java.time.LocalDateTime;

/**
 * Values of Java as reports that the natives understand, and reports as values of Java.
 *
 * <p>Nil, booleans, characters and small integers live in the oop itself and need no native at all.
 */
final class PovZelValues {
    static final long NIL = 10;
    static final long FALSE = 6;
    static final long TRUE = 38;
    static final long ARRAY_CLASS = 1045;

    static final int NEW_VALUE = -1;
    static final int BYTES = 1;
    private static final int SPECIAL = 3;

    private static final int VALUE_INTEGER = 3;
    static final int VALUE_FLOAT = 4;
    static final int VALUE_BYTES = 5;
    static final int VALUE_STRING = 7;
    static final int VALUE_DOUBLE_BYTE_STRING = 8;
    static final int VALUE_DATE_TIME = 9;

    private static final int SMALLEST_IN_OOP = -(1 << 29);
    private static final int LARGEST_IN_OOP = (1 << 29) - 1;
    private static final long NANOS_PER_MILLI = 1_000_000;

    private PovZelValues() {
    }

    /** Whether an oop names an object with contents, rather than being a value itself. */
    static boolean isReference(long oop) {
        return oop > 1 && (oop & 2) == 0;
    }

    /** The value that an oop is, which is no reference. */
    static Object immediate(long oop) {
        if (oop <= 1 || oop == NIL) {
            return null;
        }
        if ((oop & 31) == FALSE) {
            return oop != FALSE;
        }
        if ((oop & 31) == 14) {
            return character((int) (oop >> 5));
        }
        if ((oop & 3) == 3) {
            return (long) ((int) oop >> 2);
        }
        throw new IllegalArgumentException("The oop " + oop + " is no value that Java knows");
    }

    /** A character, as a text of two where {@code char} has no room for it. */
    private static Object character(int code) {
        return Character.isBmpCodePoint(code)
                ? (Object) (char) code
                : new String(Character.toChars(code));
    }

    /** A report that names an existing object. */
    static PovZelReport existing(long oop) {
        PovZelReport report = new PovZelReport();
        report.objType = isReference(oop) ? 0 : (byte) SPECIAL;
        report.oop = oop;
        return report;
    }

    /**
     * A report of a value that any native takes as it is.
     *
     * @return null for one that takes more, such as an array or an integer of more than 32 bits
     */
    static PovZelReport simple(Object value) {
        if (value == null) {
            return existing(NIL);
        }
        if (value instanceof Boolean) {
            return existing((Boolean) value ? TRUE : FALSE);
        }
        if (value instanceof Character) {
            return existing(((long) (Character) value << 5) | 14);
        }
        if (value instanceof Long || value instanceof Integer || value instanceof Short
                || value instanceof Byte) {
            return integer(((Number) value).longValue());
        }
        if (value instanceof BigInteger && ((BigInteger) value).bitLength() < Long.SIZE) {
            return integer(((BigInteger) value).longValue());
        }
        if (value instanceof Double || value instanceof Float) {
            PovZelReport report = newValue(VALUE_FLOAT);
            report.valueDouble = ((Number) value).doubleValue();
            return report;
        }
        if (value instanceof CharSequence) {
            String text = value.toString();
            return string(text, !isPlain(text));
        }
        if (value instanceof LocalDateTime) {
            return dateTime((LocalDateTime) value);
        }
        return null;
    }

    private static PovZelReport integer(long value) {
        if (value >= SMALLEST_IN_OOP && value <= LARGEST_IN_OOP) {
            return existing((value << 2 | 3) & 0xFFFFFFFFL);
        }
        if (value != (int) value) {
            return null;
        }
        PovZelReport report = newValue(VALUE_INTEGER);
        report.valueLong = value;
        return report;
    }

    /** A new string of the given width. */
    static PovZelReport string(String text, boolean doubleByte) {
        PovZelReport report = newValue(doubleByte ? VALUE_DOUBLE_BYTE_STRING : VALUE_STRING);
        report.valueString = text;
        return report;
    }

    private static PovZelReport dateTime(LocalDateTime value) {
        long nanos = value.toLocalTime().toNanoOfDay();
        if (nanos % NANOS_PER_MILLI != 0) {
            throw new IllegalArgumentException("The date-time " + value + " is finer than the"
                    + " database's milliseconds: use truncatedTo(ChronoUnit.MILLIS)");
        }
        PovZelReport report = newValue(VALUE_DATE_TIME);
        report.valueInt1 = value.getYear();
        report.valueInt2 = value.getDayOfYear();
        report.valueLong = nanos / NANOS_PER_MILLI;
        return report;
    }

    private static PovZelReport newValue(int valueType) {
        PovZelReport report = new PovZelReport();
        report.objType = NEW_VALUE;
        report.valueType = (byte) valueType;
        return report;
    }

    /** The date-time that a report describes. */
    static LocalDateTime dateTime(PovZelReport report) {
        try {
            return LocalDate.ofYearDay(report.valueInt1, report.valueInt2).atStartOfDay()
                    .plusNanos(Math.multiplyExact(report.valueLong, NANOS_PER_MILLI));
        } catch (DateTimeException | ArithmeticException e) {
            throw new IllegalArgumentException("The database's date-time of year " + report.valueInt1
                    + ", day " + report.valueInt2 + ", millisecond " + report.valueLong
                    + " is no date-time of Java", e);
        }
    }

    /** Whether a text is the same in every single-byte encoding. */
    static boolean isPlain(String text) {
        for (int i = 0; i < text.length(); i++) {
            if (text.charAt(i) >= 0x80 || text.charAt(i) == 0) {
                return false;
            }
        }
        return true;
    }

    /** The text in a double-byte string's bytes. */
    static String decodeDoubleByte(byte[] bytes) {
        char[] chars = new char[bytes.length / 2];
        for (int i = 0; i < chars.length; i++) {
            chars[i] = (char) (bytes[2 * i] & 0xFF | bytes[2 * i + 1] << 8);
        }
        return new String(chars);
    }

    /**
     * The text in a single-byte string's bytes: what Java stored there comes back as it was. Bytes
     * that are no UTF-8, neither the standard kind nor the JVM's own, are taken one per character.
     */
    static String decodeSingleByte(byte[] bytes) {
        StringBuilder text = new StringBuilder(bytes.length);
        int i = 0;
        while (i < bytes.length) {
            int length = appendCharacter(bytes, i, text);
            if (length == 0) {
                return new String(bytes, StandardCharsets.ISO_8859_1);
            }
            i += length;
        }
        return text.toString();
    }

    /** Decodes one character and returns how many bytes it took, 0 for bytes that are no UTF-8. */
    private static int appendCharacter(byte[] bytes, int at, StringBuilder text) {
        int first = bytes[at] & 0xFF;
        if (first < 0x80) {
            text.append((char) first);
            return 1;
        }
        int length = first < 0xC0 ? 0 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : first < 0xF8 ? 4 : 0;
        if (length == 0 || length > bytes.length - at) {
            return 0;
        }
        int code = first & (0x7F >> length);
        for (int i = 1; i < length; i++) {
            if ((bytes[at + i] & 0xC0) != 0x80) {
                return 0;
            }
            code = code << 6 | bytes[at + i] & 0x3F;
        }
        // The JVM writes NUL in two bytes and surrogates in three bytes each.
        boolean overlong = length == 2 && code < 0x80 && code != 0 || length == 3 && code < 0x800
                || length == 4 && (code < 0x10000 || code > Character.MAX_CODE_POINT);
        if (overlong) {
            return 0;
        }
        text.appendCodePoint(code);
        return length;
    }
}
