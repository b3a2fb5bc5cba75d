package com.tarvolin.povzel;

import static org.junit.jupiter.api.Assertions.*;

import java.nio.file.*;
import java.util.*;
import java.util.stream.*;
import org.junit.jupiter.api.*;
import org.junit.jupiter.api.function.Executable;
import org.junit.jupiter.api.io.TempDir;

// Logging in, running texts, strings, references, errors, threads, closing.
class SessionTest {
    private final PovZelSession session = PovZelSession.login("DataCurator", "swordfish");

    @AfterEach
    void logOut() {
        session.close();
    }

    private static PovZelException fails(Executable call) {
        return assertThrows(PovZelException.class, call);
    }

    static void allThrow(Class<? extends Throwable> kind, Executable... calls) {
        Stream.of(calls).forEach(call -> assertThrows(kind, call));
    }

    private PovZelObject object(String text) {
        return session.executeForObject(text);
    }

    @Test
    void stringsOfBothWidthsKeepTheirText() {
        for (String text : List.of("", "\0\u00e4\ud83d\ude00", "z".repeat(70000))) {
            PovZelObject narrow = session.newString(text);
            PovZelObject wide = session.newDoubleByteString(text);
            assertEquals(List.of(text, text), List.of(narrow.value(), wide.value()));
            assertTrue(wide.describe().isDBString && !narrow.describe().isDBString);
        }
        assertEquals(42L, session.execute(session.newDoubleByteString("6 * 7")));
        PovZelObject latin = session.newString("xx");
        latin.setBytes(new byte[] {(byte) 0xE4, 'b'});
        assertEquals("\u00e4b", latin.value(), "bytes that are no UTF-8 are one character each");
    }

    // A text is found whether Java or a program stored it, and whether Java or a program looks.
    @Test
    void equalTextsAreEqualWhoeverStoredThem() {
        PovZelObject table = object("Table := Dictionary new");
        PovZelObject set = object("Texts := Set new");
        for (String text : List.of("\u00fc", "\u20ac", "\ud83d\ude00", "a\ud83d", "nul \0 \u00fc", "a")) {
            String literal = "'" + text + "'";
            session.perform(table, "at:put:", text, 1);
            session.execute("Table at: " + literal + " put: (Table at: " + literal + ") + 1");
            session.perform(table, "at:put:", session.newString(text), 3);
            assertEquals(3L, session.perform(table, "at:", session.newDoubleByteString(text)));
            session.execute("Texts add: " + literal + "; add: " + literal + " asSymbol");
            session.perform(set, "add:", text);
            assertEquals(true, session.perform(object(literal), "=", text), text);
            assertEquals(text, session.execute(literal));
            assertEquals(text, session.execute(literal + " reversed reversed"));
        }
        assertEquals(List.of(6L, 6L), List.of(session.execute("Table size"), session.execute("Texts size")));
        assertEquals(Arrays.asList('\u20ac', "\ud83d\ude00"),
                session.newArray(List.of(session.value(0x20ACL << 5 | 14), "\ud83d\ude00")).value());
        assertEquals("\ud83d\ude00", session.execute("'\u00fc\ud83d\ude00' at: 2"));
        assertTrue(fails(() ->
                session.perform(object("Error new"), "signal:number:", "z\u00e4hler \u20ac", 77))
                .getMessage().startsWith("z\u00e4hler \u20ac (Exception>>"));
    }

    @Test
    void errorsCarryTheirFields() {
        allThrow(IllegalArgumentException.class, () -> session.perform(3, "foo", new Object[21]),
                () -> object("1 -> 2").setNamedSlot(0, 1), () -> object("1 -> 2").fill(1),
                () -> object("#[1]").setBytes(0, new byte[1], null),
                () -> object("#(1)").setElements(-1, List.of()));
        allThrow(PovZelException.class, () -> session.object(3999999997L),
                () -> object("1 -> 2").setNamedSlot(3, 1));
        assertEquals(7L, session.execute("3 + 4"), "the session survives its errors");
    }

    @Test
    void suspendedProcessesGoOn() {
        PovZelException suspended = fails(() -> session.execute("3 undefinedMessage"));
        PovZelException raised =
                fails(() -> session.continueWithError(suspended, "no such luck", "Java: main()"));
        assertTrue(raised.getMessage().contains("no such luck"), raised.getMessage());
        assertEquals(42L, session.continueWith(raised, 42));

        allThrow(IllegalArgumentException.class, () ->
                session.continueWith(fails(() -> session.execute("3 +")), 3));
        PovZelException waiting = fails(() -> session.execute("(System suspend: 1) isNil"));
        session.execute("System collectGarbage");
        assertEquals(true, session.continueAfterInterrupt(waiting), "the process was kept");
    }

    @Test
    void referencesAreReleasedWhenClosedOrCollected() {
        int before = session.calls().heldObjects();
        PovZelObject kept = object("Array new: 1");
        PovZelObject twin = session.object(kept.oop());
        assertEquals(Set.of(kept), Set.of(twin));
        twin.close();
        assertEquals(1, kept.size(), "closing one of two references keeps the object");
        kept.close();
        assertEquals(before, session.calls().heldObjects());

        for (int i = 0; i < 1000; i++) {
            object("Array new: 1");
        }
        // Collected references are seen at a later call; the loop ends when all were.
        while (session.calls().heldObjects() > before) {
            System.gc();
            Thread.onSpinWait();
        }
    }

    @Test
    void aClosedSessionRefusesEverything() {
        PovZelObject array = object("Array new: 3");
        session.close();
        array.close();
        allThrow(IllegalStateException.class, session::pollChanges, array::list, array::bytes,
                () -> session.execute("3"), () -> session.perform(3, "+", 4));
    }

    // The name reaches the database whole, by every way; what one session committed the others find.
    @Test
    void filesAreServers(@TempDir Path folder) throws Exception {
        String file = folder.resolve("\u00fc.povzel").toString();
        String maker = file + "?create=true";
        assertEquals(4051, fails(() -> PovZelSession.login(file, "SystemUser", "own")).getNumber());
        assertEquals(4051, fails(() -> PovZelSession.login("shop", "SystemUser", "own")).getNumber());
        try (PovZelSession first = PovZelSession.login(maker, "SystemUser", "own".toCharArray())) {
            first.abort();
            assertFalse(Files.exists(Path.of(file)));
            first.transaction(() -> first.execute("Globals at: #Kept put: (Array with: 1)"));
        }
        try (PovZelPool pool = PovZelPool.builder(file, "DataCurator", "own").size(2).build();
                PovZelSession one = pool.session(); PovZelSession two = pool.session()) {
            one.transaction(() -> one.execute("Kept at: 1 put: 2"));
            assertEquals(2L, two.execute("Kept at: 1"));
            assertEquals(false, session.execute("Globals includesKey: #Kept"));
        }
    }

    // Calls of many threads and sessions take turns; each sees its own results.
    @Test
    void threadsShareSessions() {
        try (PovZelSession other = PovZelSession.login("SystemUser", "swordfish")) {
            LongStream.range(0, 8).parallel().forEach(mine -> {
                PovZelSession used = mine % 2 == 0 ? session : other;
                for (long i = 0; i < 500; i++) {
                    assertEquals(mine * i + 1, used.execute(mine + " * " + i + " + 1"));
                    fails(() -> used.execute("mine" + mine + " foo"));
                }
            });
        }
    }
}
