package com.tarvolin.povzel;

import static org.junit.jupiter.api.Assertions.*;

import java.io.*;
import java.util.*;
import org.junit.jupiter.api.Test;

// Long contents: bytes, streams, lists, named slots, sets; references and changes.
class ContentsTest extends LoggedIn {
    private static final int BUFFER = PovZelLibrary.DEFAULT_BUFFER_SIZE;

    private static byte[] random(int size) {
        byte[] bytes = new byte[size];
        new Random(size).nextBytes(bytes);
        return bytes;
    }

    @Test
    void bytesOfEverySizeComeBackInChunks() {
        for (int size : new int[] {0, 1, 1025, BUFFER - 1, BUFFER, BUFFER + 1, 5 * BUFFER + 7}) {
            byte[] bytes = random(size);
            PovZelObject object = session.newBytes(bytes);
            assertEquals(size, object.size());
            List<Long> progress = new ArrayList<>();
            assertArrayEquals(bytes, object.bytes(progress::add));
            assertEquals(size, progress.get(progress.size() - 1));
            assertTrue(progress.size() >= size / BUFFER, progress::toString);
        }
        PovZelObject object = session.newBytes(new byte[] {1, 2, 3, 4});
        List<Long> progress = new ArrayList<>();
        object.setBytes(3, random(3 * BUFFER), progress::add);
        assertEquals(List.of((long) BUFFER, 2L * BUFFER, 3L * BUFFER), progress);
        assertEquals(3 * BUFFER + 2, object.size());
        assertArrayEquals(new byte[] {1, 2}, Arrays.copyOf(object.bytes(), 2));
        assertThrows(PovZelException.class, () -> object.setBytes(0, new byte[1], null));
    }

    @Test
    void streamsReadAndWrite() throws IOException {
        byte[] bytes = random(3 * BUFFER + 11);
        PovZelObject object = session.newBytes(new byte[0]);
        try (OutputStream out = object.outputStream(1)) {
            out.write(bytes[0]);
            out.write(bytes, 1, 100);
            out.flush();
            assertEquals(101, object.size());
            out.write(bytes, 101, bytes.length - 101);
        }
        try (InputStream in = object.inputStream()) {
            assertEquals(bytes[0] & 0xFF, in.read());
            assertEquals(BUFFER, in.skip(BUFFER));
            byte[] rest = Arrays.copyOfRange(bytes, BUFFER + 1, bytes.length);
            assertArrayEquals(rest, in.readAllBytes());
            assertEquals(-1, in.read());
            assertEquals(0, in.skip(1));
        }
        OutputStream closed = object.outputStream(1);
        closed.close();
        assertThrows(IOException.class, () -> closed.write(1));
        assertThrows(IllegalArgumentException.class, () -> object.outputStream(0));
        OutputStream wrong = session.executeForObject("Array new: 1").outputStream(1);
        wrong.write(1);
        Throwable cause = assertThrows(IOException.class, wrong::flush).getCause();
        assertTrue(cause instanceof PovZelException);
    }

    @Test
    void listsOfAHundredThousandElements() {
        List<Object> elements = new ArrayList<>();
        for (long i = 0; i < 100_000; i++) {
            elements.add(i % 10 == 0 ? "element " + i : (Object) i);
        }
        PovZelObject array = session.newArray(elements);
        List<Object> list = array.list();
        assertEquals(elements, list);
        assertEquals("element 99990", list.set(99_990, 'c'));
        assertEquals('c', list.get(99_990));
        assertEquals('c', session.perform(array, "at:", 99_991));
        assertThrows(IndexOutOfBoundsException.class, () -> list.get(100_000));
        assertThrows(UnsupportedOperationException.class, () -> list.add(1));
        array.setElements(2, elements.subList(0, 50_000));
        assertEquals(elements.subList(0, 50_000), array.list().subList(1, 50_001));
    }

    @Test
    void namedSlotsAndSets() {
        PovZelObject pair = session.executeForObject("#key -> 'value'");
        assertEquals(List.of("key", "value"), pair.namedSlots());
        pair.setNamedSlot(2, 99);
        assertEquals(99L, session.perform(pair, "value"));
        assertThrows(PovZelException.class, () -> pair.setNamedSlot(0, 1));

        PovZelObject set = session.executeForObject("Set new");
        List.of(1, 2, "two", 2).forEach(value -> set.perform("add:", value));
        assertEquals(Set.of(1L, 2L, "two"), new HashSet<>(set.list()));
        assertEquals(3, set.size());
    }

    @Test
    void referencesAreReleasedWhenClosedOrCollected() {
        int before = session.calls().heldObjects();
        PovZelObject kept = session.executeForObject("Array new: 1");
        try (PovZelObject twin = session.object(kept.oop())) {
            assertEquals(before + 1, session.calls().heldObjects());
            assertEquals(kept, twin);
        }
        assertEquals(1, kept.size(), "closing one of two references keeps the object");
        kept.close();
        assertThrows(IllegalStateException.class, kept::size);
        assertEquals(before, session.calls().heldObjects());

        for (int i = 0; i < 1000; i++) {
            session.executeForObject("Array new: 1");
        }
        // Collected references are seen at a later call; the loop ends when all were.
        while (session.calls().heldObjects() > before) {
            System.gc();
            Thread.onSpinWait();
        }
        assertEquals(7L, session.execute("3 + 4"));
    }

    @Test
    void changedObjectsAreTold() {
        PovZelObject watched = session.executeForObject("Array new: 3");
        PovZelObject quiet = session.executeForObject("Array new: 3");
        List<PovZelObject> told = new ArrayList<>();
        session.onChange(told::add);
        session.pollChanges();
        told.clear();
        watched.perform("at:put:", 1, "changed");
        assertEquals(List.of(watched), session.pollChanges());
        assertEquals(List.of(watched), told);
        assertEquals(List.of(), session.pollChanges());

        List<PovZelObject> many = new ArrayList<>();
        for (int i = 0; i < 3000; i++) {
            many.add(session.executeForObject("Array new: 1"));
        }
        session.pollChanges();
        many.forEach(object -> object.perform("at:put:", 1, 5));
        assertEquals(new HashSet<>(many), new HashSet<>(session.pollChanges()));
        assertEquals(3, quiet.size());
    }
}
