package com.tarvolin.povzel;

import static org.junit.jupiter.api.Assertions.assertAll;
import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.math.BigInteger;
import java.time.LocalDateTime;
import java.time.temporal.ChronoUnit;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.Arguments;
import org.junit.jupiter.params.provider.MethodSource;

/** Logging in, running texts, values both ways, errors, threads, closing. */
class SessionTest extends LoggedIn {
    static Stream<Arguments> texts() {
        return Stream.of(
                Arguments.of("3 + 4", 7L), Arguments.of("nil", null), Arguments.of("3 < 4", true),
                Arguments.of("3 > 4", false), Arguments.of("$A", 'A'),
                Arguments.of("536870911", 536870911L), Arguments.of("536870911 + 1", 536870912L),
                Arguments.of("-536870912 - 1", -536870913L),
                Arguments.of("9223372036854775807", Long.MAX_VALUE), Arguments.of("1.5", 1.5),
                Arguments.of("'two words'", "two words"), Arguments.of("''", ""),
                Arguments.of("#symbol", "symbol"), Arguments.of("'gr\u00fcn'", "gr\u00fcn"));
    }

    @ParameterizedTest
    @MethodSource("texts")
    void textsYieldValues(String text, Object value) {
        assertEquals(value, session.execute(text));
    }

    /** What Java stores in an array of the database comes back as it was, or as its widest type. */
    @Test
    void valuesSurviveTheWayThereAndBack() {
        String long1 = "abc\u00e4".repeat(5000);
        List<Object> values = Arrays.asList(null, true, false, 'x', '\u00e4', '\uffff', 0L, -1L,
                536870911L, -536870912L, 536870912L, (long) Integer.MIN_VALUE, Long.MAX_VALUE,
                Long.MIN_VALUE + 1, 0.0, -2.5, Double.MAX_VALUE, Double.POSITIVE_INFINITY, "", "plain",
                "nul \0 inside", "\u00e4\u20ac\ud83d\ude00", "\ud83d alone", "x".repeat(5000), long1,
                LocalDateTime.of(2024, 2, 29, 23, 59, 59, 999_000_000), LocalDateTime.of(1, 1, 1, 0, 0));
        PovZelObject array = session.newArray(values);
        assertEquals(values, array.value());
        assertEquals(values, session.perform(array, "yourself") instanceof PovZelObject same
                ? same.list() : null);

        List<Object> narrow = Arrays.asList((byte) -7, (short) 300, 70000, 1.5f, BigInteger.TWO,
                new StringBuilder("text"));
        assertEquals(Arrays.asList(-7L, 300L, 70000L, 1.5, 2L, "text"), session.newArray(narrow).value());

        PovZelObject nested = session.newArray(Arrays.asList(new byte[] {1, -1}, new Object[] {"a"},
                List.of(List.of(5L))));
        assertArrayEquals(new byte[] {1, -1}, (byte[]) ((PovZelObject) nested.list().get(0)).value());
        assertEquals(List.of("a"), ((PovZelObject) nested.list().get(1)).value());
        Object inner = ((PovZelObject) nested.list().get(2)).list().get(0);
        assertEquals(List.of(5L), ((PovZelObject) inner).value());
    }

    @Test
    void stringsOfBothWidthsKeepTheirText() {
        for (String text : List.of("", "plain", "nul \0", "\u00e4\u20ac", "\ud83d\ude00", "z".repeat(70000))) {
            PovZelObject narrow = session.newString(text);
            PovZelObject wide = session.newDoubleByteString(text);
            assertEquals(text, narrow.value());
            assertEquals(text, wide.value());
            assertFalse(narrow.describe().isDBString);
            assertTrue(wide.describe().isDBString);
            assertEquals(2L * text.length(), wide.size());
        }
        PovZelObject latin = session.newString("xx");
        latin.setBytes(new byte[] {(byte) 0xE4, 'b'});
        assertEquals("\u00e4b", latin.value(), "bytes that are no UTF-8 are one character each");
    }

    @Test
    void whatCannotBeConvertedSaysSo() {
        List<Object> endless = new ArrayList<>();
        endless.add(endless);
        for (Object value : Arrays.asList(new Object(), endless, new int[] {1},
                LocalDateTime.of(2024, 1, 1, 0, 0).plus(1, ChronoUnit.MICROS))) {
            String message = assertThrows(IllegalArgumentException.class,
                    () -> session.perform(null, "foo:", value)).getMessage();
            assertTrue(message.contains("cannot be passed") || message.contains("nested")
                    || message.contains("milliseconds"), message);
        }
        try (PovZelSession other = PovZelSession.login("DataCurator", "swordfish")) {
            PovZelObject foreign = other.executeForObject("Array new: 1");
            assertThrows(IllegalArgumentException.class, () -> session.perform(foreign, "size"));
        }
        assertThrows(IllegalArgumentException.class, () -> session.executeForObject("3"));
        assertThrows(IllegalArgumentException.class, () -> session.execute((String) null));
        assertThrows(IllegalArgumentException.class, () -> session.executeForObject("'abc'").list());
    }

    @Test
    void errorsCarryTheirFields() {
        PovZelException unknown = assertThrows(PovZelException.class, () -> session.execute("3 foo: 'x'"));
        assertEquals(2010, unknown.number);
        assertEquals(unknown.message, unknown.getMessage());
        assertEquals(unknown.argCount, unknown.args.length);
        assertFalse(unknown.fatal);
        assertThrows(PovZelException.class, () -> session.execute("3 +"));
        assertThrows(PovZelException.class, () -> session.object(3999999997L));
        Object[] tooMany = new Object[21];
        PovZelException refused = assertThrows(PovZelException.class,
                () -> session.perform(3, "foo", tooMany));
        assertEquals(2318, refused.number);
        assertEquals(7L, session.execute("3 + 4"), "the session survives its errors");
    }

    @Test
    void messagesAndObjectsAsText() {
        assertEquals(7L, session.perform(3, "+", 4));
        assertEquals(5L, session.perform("hello", "size"));
        assertEquals(true, session.perform(session.executeForObject("[:x | x isNil]"), "value:", (Object[]) null));
        PovZelObject text = session.newString("6 * 7");
        assertEquals(42L, session.execute(text));
        PovZelObject array = session.executeForObject("#(1 2 3)");
        assertEquals("Array", array.className());
        assertTrue(array.isKindOf(session.executeForObject("Object")));
        assertFalse(array.isKindOf(session.executeForObject("Set")));
        assertEquals(array, session.object(array.oop()));
        assertEquals(array.hashCode(), session.object(array.oop()).hashCode());
    }

    @Test
    void suspendedProcessesGoOn() {
        String text = "| x | x := 3 undefinedMessage. x + 1";
        PovZelException suspended = assertThrows(PovZelException.class, () -> session.execute(text));
        assertEquals(42L, session.continueWith(suspended, 41));
        PovZelException again = assertThrows(PovZelException.class, () -> session.execute(text));
        PovZelException raised = assertThrows(PovZelException.class,
                () -> session.continueWithError(again, "no such luck", "Java: main()"));
        assertTrue(raised.message.contains("no such luck"), raised.message);
        assertThrows(PovZelException.class, () -> session.continueWith(suspended, 1));

        PovZelException waiting = assertThrows(PovZelException.class,
                () -> session.execute("(System suspend: 'a while') isNil"));
        for (int i = 0; i < 3000; i++) {
            session.execute("'something else'");
        }
        session.execute("System collectGarbage");
        assertEquals(true, session.continueAfterInterrupt(waiting), "the process was kept");
    }

    @Test
    void wrongPasswordIsRefused() {
        PovZelException refused = assertThrows(PovZelException.class,
                () -> PovZelSession.login("DataCurator", "guess"));
        assertNotNull(refused.message);
        assertEquals(4051, refused.number);
        assertThrows(PovZelException.class, () -> PovZelSession.login("DataCurator", null));
    }

    @Test
    void aClosedSessionRefusesEverything() {
        PovZelObject array = session.executeForObject("Array new: 3");
        session.close();
        session.close();
        array.close();
        assertAll(
                () -> assertThrows(IllegalStateException.class, () -> session.execute("3")),
                () -> assertThrows(IllegalStateException.class, () -> session.perform(3, "+", 4)),
                () -> assertThrows(IllegalStateException.class, () -> array.list()),
                () -> assertThrows(IllegalStateException.class, () -> array.bytes()),
                () -> assertThrows(IllegalStateException.class, () -> session.pollChanges()));
    }

    /** Calls of many threads and sessions take turns; each sees its own results. */
    @Test
    void threadsShareSessions() throws Exception {
        int threads = 8;
        ExecutorService pool = Executors.newFixedThreadPool(threads);
        CountDownLatch start = new CountDownLatch(threads);
        try (PovZelSession other = PovZelSession.login("SystemUser", "swordfish")) {
            List<Future<Void>> results = new ArrayList<>();
            for (int t = 0; t < threads; t++) {
                long mine = t;
                PovZelSession used = t % 2 == 0 ? session : other;
                results.add(pool.submit(() -> {
                    start.countDown();
                    start.await();
                    for (long i = 0; i < 500; i++) {
                        assertEquals(mine * i + 1, used.execute(mine + " * " + i + " + 1"));
                        PovZelObject array = used.newArray(List.of(mine, "t" + mine));
                        assertEquals(List.of(mine, "t" + mine), array.value());
                        assertThrows(PovZelException.class, () -> used.execute("mine" + mine + " foo"));
                    }
                    return null;
                }));
            }
            for (Future<Void> result : results) {
                result.get();
            }
        } finally {
            pool.shutdownNow();
        }
    }
}
