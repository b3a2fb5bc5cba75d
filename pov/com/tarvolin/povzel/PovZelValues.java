package com.tarvolin.povzel;

import java.lang.invoke.MethodType;
import java.math.BigDecimal;
import java.math.BigInteger;
import java.nio.charset.StandardCharsets;
import java.time.DateTimeException;
import java.time.Instant;
import java.time.LocalDate;
import java.time.LocalDateTime;
import java.time.LocalTime;
import java.time.ZoneOffset;
import java.util.Collection;
import java.util.HashMap;
import java.util.Map;
import java.util.function.Function;

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
    static final int SET = 2;
    private static final int SPECIAL = 3;

    private static final int VALUE_INTEGER = 3;
    static final int VALUE_FLOAT = 4;
    static final int VALUE_BYTES = 5;
    static final int VALUE_STRING = 7;
    static final int VALUE_DOUBLE_BYTE_STRING = 8;
    static final int VALUE_DATE_TIME = 9;

    /** Of an integer's magnitude. */
    static final int LARGEST_INTEGER_BITS = 65_536;

    private static final int SMALLEST_IN_OOP = -(1 << 29);
    private static final int LARGEST_IN_OOP = (1 << 29) - 1;
    private static final long LARGEST_OOP = 0xFFFFFFFFL;
    /** The numbers up to it name nothing. */
    private static final long LARGEST_UNUSED = 1;
    private static final int LONGEST_SHOWN = 60;
    private static final long NANOS_PER_MILLI = 1_000_000;
    private static final int FARTHEST_YEAR = 999_999;
    private static final Double NEGATIVE_ZERO = -0.0;

    /** A number as one of another class; null or an ArithmeticException where that is not exact. */
    private static final Map<Class<?>, Function<BigDecimal, Object>> EXACT_NUMBERS = exactNumbers();

    private PovZelValues() {
    }

    /** Whether an oop names an object with contents, rather than being a value itself. */
    static boolean isReference(long oop) {
        return oop > LARGEST_UNUSED && (oop & 2) == 0;
    }

    /** Refuses a number that no oop can be. */
    static void requireOop(long oop) {
        if (oop <= LARGEST_UNUSED || oop > LARGEST_OOP) {
            throw new IllegalArgumentException(oop + " is no oop, which has 32 bits and is neither"
                    + " 0 nor 1");
        }
    }

    /** Whether {@link #immediate} knows the value that an oop is. */
    static boolean isImmediate(long oop) {
        return oop <= LARGEST_UNUSED || oop == NIL || (oop & 31) == FALSE || (oop & 31) == 14 || (oop & 3) == 3;
    }

    /** The value that an oop is, which is no reference. */
    static Object immediate(long oop) {
        if (oop <= LARGEST_UNUSED || oop == NIL) {
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

    /**
     * A report of a moment: an {@code Instant} as its date-time in UTC, a {@code LocalDate} as its
     * midnight; null for what is none.
     */
    static PovZelReport time(Object value, boolean truncate) {
        LocalDateTime time = value instanceof LocalDateTime ? (LocalDateTime) value
                : value instanceof Instant ? inUtc((Instant) value)
                : value instanceof LocalDate ? ((LocalDate) value).atStartOfDay() : null;
        if (time == null) {
            return null;
        }
        if (Math.abs(time.getYear()) > FARTHEST_YEAR) {
            throw new IllegalArgumentException("The " + value.getClass().getName() + " " + value
                    + " is not within the years " + -FARTHEST_YEAR + " to " + FARTHEST_YEAR
                    + " of the database");
        }
        long nanos = time.toLocalTime().toNanoOfDay();
        if (nanos % NANOS_PER_MILLI != 0 && !truncate) {
            throw new IllegalArgumentException("The time " + value + " is finer than the database's"
                    + " milliseconds: use truncatedTo(ChronoUnit.MILLIS), or truncateTimes(true) of"
                    + " the session");
        }
        PovZelReport report = newValue(VALUE_DATE_TIME);
        report.valueInt1 = time.getYear();
        report.valueInt2 = time.getDayOfYear();
        report.valueLong = nanos / NANOS_PER_MILLI;
        return report;
    }

    /** The date-time in UTC, or one as far away where Java has none for the instant. */
    private static LocalDateTime inUtc(Instant instant) {
        try {
            return LocalDateTime.ofInstant(instant, ZoneOffset.UTC);
        } catch (DateTimeException e) {
            return instant.getEpochSecond() < 0 ? LocalDateTime.MIN : LocalDateTime.MAX;
        }
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

    /** A result as a value of the class that the program asked for: numbers only when that is exact. */
    @SuppressWarnings("unchecked")
    static <T> T convert(Object value, Class<T> type) {
        Class<?> boxed = MethodType.methodType(type).wrap().returnType();
        if (boxed.isInstance(value) || value == null && !type.isPrimitive()) {
            return (T) value;
        }
        Object converted = value instanceof Number ? number((Number) value, boxed)
                : value instanceof LocalDateTime ? time((LocalDateTime) value, boxed) : null;
        if (converted == null) {
            throw new IllegalArgumentException(
                    "The result " + shown(value) + " is no " + type.getTypeName());
        }
        return (T) converted;
    }

    /** A value for a message; a container may be too large, or too deep, to be shown. */
    private static String shown(Object value) {
        if (value == null) {
            return "null";
        }
        String name = value.getClass().getName();
        if (value instanceof Collection || value instanceof Map) {
            return "of " + name;
        }
        String text = value.toString();
        return (text.length() > LONGEST_SHOWN ? text.substring(0, LONGEST_SHOWN) + "..." : text) + " ("
                + name + ")";
    }

    private static Object number(Number value, Class<?> type) {
        if (value instanceof Double && type == Float.class) {
            float rounded = value.floatValue();
            return Double.compare(rounded, (Double) value) == 0 ? rounded : null;
        }
        if (value.equals(NEGATIVE_ZERO)) {
            return null;
        }
        Function<BigDecimal, Object> exact = EXACT_NUMBERS.get(type);
        try {
            return exact == null ? null : exact.apply(value instanceof Double
                    ? new BigDecimal((Double) value) : new BigDecimal(value.toString()));
        } catch (ArithmeticException | NumberFormatException e) {
            return null;
        }
    }

    private static Object time(LocalDateTime value, Class<?> type) {
        if (type == Instant.class) {
            return value.toInstant(ZoneOffset.UTC);
        }
        boolean date = type == LocalDate.class && value.toLocalTime().equals(LocalTime.MIDNIGHT);
        return date ? value.toLocalDate() : null;
    }

    private static Map<Class<?>, Function<BigDecimal, Object>> exactNumbers() {
        Map<Class<?>, Function<BigDecimal, Object>> numbers = new HashMap<>();
        numbers.put(Byte.class, BigDecimal::byteValueExact);
        numbers.put(Short.class, BigDecimal::shortValueExact);
        numbers.put(Integer.class, BigDecimal::intValueExact);
        numbers.put(Long.class, BigDecimal::longValueExact);
        numbers.put(BigInteger.class, BigDecimal::toBigIntegerExact);
        numbers.put(BigDecimal.class, value -> value);
        numbers.put(Float.class, value -> isExact(value, value.floatValue()) ? value.floatValue() : null);
        numbers.put(Double.class,
                value -> isExact(value, value.doubleValue()) ? value.doubleValue() : null);
        return numbers;
    }

    private static boolean isExact(BigDecimal value, double rounded) {
        return Double.isFinite(rounded) && new BigDecimal(rounded).compareTo(value) == 0;
    }
}
