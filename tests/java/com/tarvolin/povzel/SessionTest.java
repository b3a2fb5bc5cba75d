package com.tarvolin.povzel;

import static org.junit.jupiter.api.Assertions.*;

import java.math.BigInteger;
import java.time.LocalDateTime;
import java.time.temporal.ChronoUnit;
import java.util.*;
import java.util.concurrent.*;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.function.Executable;

// Logging in, running texts, values both ways, errors, threads, closing.
class SessionTest extends LoggedIn {
    private static PovZelException fails(Executable call) {
        return assertThrows(PovZelException.class, call);
    }

    @Test
    void textsYieldValues() {
        Object[][] texts = {{"3 + 4", 7L}, {"nil", null}, {"3 < 4", true}, {"3 > 4", false},
            {"$A", 'A'}, {"536870911", 536870911L}, {"536870911 + 1", 536870912L},
            {"-536870912 - 1", -536870913L}, {"9223372036854775807", Long.MAX_VALUE},
            {"1.5", 1.5}, {"'two words'", "two words"}, {"''", ""}, {"#symbol", "symbol"},
            {"'gr\u00fcn'", "gr\u00fcn"}};
        for (Object[] text : texts) {
            assertEquals(text[1], session.execute((String) text[0]));
        }
    }

    // What Java stores in an array of the database comes back as it was, or as its widest type.
    @Test
    void valuesSurviveTheWayThereAndBack() {
        List<Object> values = Arrays.asList(null, true, false, 'x', '\u00e4', '\uffff', 0L, -1L,
                536870911L, -536870912L, 536870912L, (long) Integer.MIN_VALUE, Long.MAX_VALUE,
                Long.MIN_VALUE + 1, 0.0, -2.5, Double.MAX_VALUE, Double.POSITIVE_INFINITY, "",
                "plain", "nul \0 inside", "\u00e4\u20ac\ud83d\ude00", "\ud83d alone",
                "abc\u00e4".repeat(5000), LocalDateTime.of(2024, 2, 29, 23, 59, 59, 999_000_000),
                LocalDateTime.of(1, 1, 1, 0, 0));
        PovZelObject array = session.newArray(values);
        assertEquals(values, array.value());
        assertEquals(values, ((PovZelObject) session.perform(array, "yourself")).list());

        List<Object> narrow = Arrays.asList((byte) -7, (short) 300, 70000, 1.5f, BigInteger.TWO,
                new StringBuilder("text"));
        assertEquals(Arrays.asList(-7L, 300L, 70000L, 1.5, 2L, "text"),
                session.newArray(narrow).value());

        List<Object> nested = session.newArray(Arrays.asList(new byte[] {1, -1}, new Object[] {"a"},
                List.of(List.of(5L)))).list();
        assertArrayEquals(new byte[] {1, -1}, (byte[]) ((PovZelObject) nested.get(0)).value());
        assertEquals(List.of("a"), ((PovZelObject) nested.get(1)).value());
        Object inner = ((PovZelObject) nested.get(2)).list().get(0);
        assertEquals(List.of(5L), ((PovZelObject) inner).value());
    }

    @Test
    void stringsOfBothWidthsKeepTheirText() {
        for (String text : List.of("", "\0", "\u00e4\u20ac", "\ud83d\ude00", "z".repeat(70000))) {
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

    private static void refuses(Executable call, String reason) {
        String message = assertThrows(IllegalArgumentException.class, call).getMessage();
        assertTrue(message.contains(reason), message);
    }

    @Test
    void whatCannotBeConvertedSaysSo() {
        List<Object> endless = new ArrayList<>();
        endless.add(endless);
        LocalDateTime fine = LocalDateTime.of(2024, 1, 1, 0, 0).plus(1, ChronoUnit.MICROS);
        refuses(() -> session.perform(null, "foo:", new Object()), "cannot be passed");
        refuses(() -> session.perform(null, "foo:", new int[] {1}), "cannot be passed");
        refuses(() -> session.perform(null, "foo:", endless), "nested");
        refuses(() -> session.perform(null, "foo:", fine), "milliseconds");
        try (PovZelSession other = PovZelSession.login("DataCurator", "swordfish")) {
            PovZelObject foreign = other.executeForObject("Array new: 1");
            refuses(() -> session.perform(foreign, "size"), "");
        }
        refuses(() -> session.executeForObject("3"), "");
        refuses(() -> session.execute((String) null), "");
        refuses(() -> session.executeForObject("'abc'").list(), "");
    }

    @Test
    void errorsCarryTheirFields() {
        PovZelException unknown = fails(() -> session.execute("3 foo: 'x'"));
        assertEquals(2010, unknown.number);
        assertEquals(unknown.message, unknown.getMessage());
        assertEquals(unknown.argCount, unknown.args.length);
        assertFalse(unknown.fatal);
        fails(() -> session.execute("3 +"));
        fails(() -> session.object(3999999997L));
        assertEquals(2318, fails(() -> session.perform(3, "foo", new Object[21])).number);
        assertEquals(7L, session.execute("3 + 4"), "the session survives its errors");
        assertEquals(4051, fails(() -> PovZelSession.login("DataCurator", "guess")).number);
        fails(() -> PovZelSession.login("DataCurator", null));
    }

    @Test
    void messagesAndObjectsAsText() {
        assertEquals(7L, session.perform(3, "+", 4));
        assertEquals(5L, session.perform("hello", "size"));
        PovZelObject block = session.executeForObject("[:x | x isNil]");
        assertEquals(true, session.perform(block, "value:", (Object[]) null));
        assertEquals(42L, session.execute(session.newString("6 * 7")));
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
        PovZelException suspended = fails(() -> session.execute(text));
        assertEquals(42L, session.continueWith(suspended, 41));
        PovZelException again = fails(() -> session.execute(text));
        PovZelException raised =
                fails(() -> session.continueWithError(again, "no such luck", "Java: main()"));
        assertTrue(raised.message.contains("no such luck"), raised.message);
        fails(() -> session.continueWith(suspended, 1));

        PovZelException waiting =
                fails(() -> session.execute("(System suspend: 'a while') isNil"));
        for (int i = 0; i < 3000; i++) {
            session.execute("'something else'");
        }
        session.execute("System collectGarbage");
        assertEquals(true, session.continueAfterInterrupt(waiting), "the process was kept");
    }

    @Test
    void aClosedSessionRefusesEverything() {
        PovZelObject array = session.executeForObject("Array new: 3");
        session.close();
        session.close();
        array.close();
        for (Executable call : List.<Executable>of(session::pollChanges, array::list, array::bytes,
                () -> session.execute("3"), () -> session.perform(3, "+", 4))) {
            assertThrows(IllegalStateException.class, call);
        }
    }

    // Calls of many threads and sessions take turns; each sees its own results.
    @Test
    void threadsShareSessions() throws Exception {
        CyclicBarrier start = new CyclicBarrier(8);
        ExecutorService pool = Executors.newFixedThreadPool(start.getParties());
        try (PovZelSession other = PovZelSession.login("SystemUser", "swordfish")) {
            List<Future<?>> results = new ArrayList<>();
            for (long t = 0; t < start.getParties(); t++) {
                long mine = t;
                PovZelSession used = t % 2 == 0 ? session : other;
                results.add(pool.submit(() -> {
                    start.await();
                    for (long i = 0; i < 500; i++) {
                        assertEquals(mine * i + 1, used.execute(mine + " * " + i + " + 1"));
                        PovZelObject array = used.newArray(List.of(mine, "t" + mine));
                        assertEquals(List.of(mine, "t" + mine), array.value());
                        fails(() -> used.execute("mine" + mine + " foo"));
                    }
                    return null;
                }));
            }
            for (Future<?> result : results) {
                result.get();
            }
        } finally {
            pool.shutdownNow();
        }
    }
}
