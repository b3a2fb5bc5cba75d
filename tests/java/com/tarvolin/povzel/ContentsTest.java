package com.tarvolin.povzel;

import static com.tarvolin.povzel.SessionTest.allThrow;
import static org.junit.jupiter.api.Assertions.*;

import java.io.*;
import java.util.*;
import java.util.function.*;
import java.util.stream.*;
import org.junit.jupiter.api.*;

// What objects hold, read and written as bytes, by streams and lists; sizes; listeners of changes.
class ContentsTest {
    private static final int BUFFER = PovZelLibrary.DEFAULT_BUFFER_SIZE;

    private final PovZelSession session = PovZelSession.login("DataCurator", "swordfish");

    @AfterEach
    void logOut() {
        session.close();
    }

    private PovZelObject object(String text) {
        return session.executeForObject(text);
    }

    private static byte[] random(int size) {
        byte[] bytes = new byte[size];
        new Random(size).nextBytes(bytes);
        return bytes;
    }

    @Test
    void bytesOfEverySizeComeBackInChunks() {
        for (int size : new int[] {0, 1025, BUFFER, BUFFER + 1, 5 * BUFFER + 7}) {
            assertArrayEquals(random(size), session.newBytes(random(size)).bytes());
        }
        PovZelObject object = session.newBytes(new byte[] {1, 2, 3, 4});
        List<Long> progress = new ArrayList<>();
        object.setBytes(3, random(3 * BUFFER), progress::add);
        assertEquals(List.of((long) BUFFER, 2L * BUFFER, 3L * BUFFER), progress);
        assertEquals(3 * BUFFER + 2, object.byteSize());
    }

    @Test
    void streamsKeepTheContractOfTheirClasses() throws IOException {
        byte[] bytes = random(2 * BUFFER + 3000);
        PovZelObject object = session.newBytes(bytes);
        InputStream in = object.inputStream();
        assertEquals(List.of(bytes.length, false), List.of(in.available(), in.markSupported()));
        assertEquals(List.of(bytes[0] & 0xFF, 0L, 1999L), List.of(in.read(), in.skip(-5), in.skip(1999)));
        assertArrayEquals(Arrays.copyOfRange(bytes, 2000, bytes.length), in.readAllBytes());
        assertEquals(List.of(-1, 0L, 0), List.of(in.read(), in.skip(1), in.available()));
        OutputStream out = object.outputStream(1);
        in.close();
        out.close();
        allThrow(IOException.class, in::read, () -> in.read(new byte[1]), in::available, in::reset,
                () -> in.skip(1), () -> out.write(1), out::flush);

        PovZelObject array = object("Array new: 1");
        allThrow(IllegalArgumentException.class, array::inputStream, () -> array.outputStream(1),
                () -> array.setBytes(new byte[0]), () -> array.setElements(9, List.of(new Object())));
        assertEquals(1, array.size());
        PovZelObject wide = session.newDoubleByteString("ab");
        for (int at : new int[] {10, 14}) {
            OutputStream odd = wide.outputStream(at);
            odd.write(1);
            odd.close();
            wide.setBytes(at + 2, new byte[] {1}, null);
            assertEquals(at + 2, wide.byteSize());
        }
        InputStream orphan = object.inputStream();
        OutputStream empty = object.outputStream(1);
        OutputStream full = object.outputStream(1);
        full.write(1);
        object.close();
        allThrow(IllegalStateException.class, object::inputStream, () -> object.outputStream(1),
                () -> object.setBytes(new byte[0]));
        allThrow(IOException.class, orphan::read, full::flush, full::close, () -> empty.write(1));
        empty.close();
    }

    // A stream whose object is cut behind its back fails until the object is long enough again.
    @Test
    void writesThatFailedAreRepeatedWithoutATrace() throws IOException {
        byte[] bytes = random(4 * BUFFER);
        for (int buffered : new int[] {BUFFER, BUFFER + 10}) {
            PovZelObject object = session.newBytes(new byte[0]);
            OutputStream out = object.outputStream(1);
            out.write(bytes, 0, buffered);
            object.setSize(0);
            assertThrows(IOException.class, () -> out.write(bytes, buffered, 2 * BUFFER));
            object.setBytes(Arrays.copyOf(bytes, BUFFER));
            out.write(bytes, buffered, 2 * BUFFER);
            out.write(bytes[buffered + 2 * BUFFER]);
            out.flush();
            assertArrayEquals(Arrays.copyOf(bytes, buffered + 2 * BUFFER + 1), object.bytes());

            out.write(bytes, 0, 5);
            object.setSize(0);
            String lost = assertThrows(IOException.class, out::close).getMessage();
            assertTrue(lost.contains("5 bytes from byte " + (buffered + 2 * BUFFER + 2)), lost);
            out.close();
            assertThrows(IOException.class, () -> out.write(1));
        }
    }

    @Test
    void objectsAreCutAndGrow() throws IOException {
        List<Supplier<PovZelObject>> made = List.of(() -> session.newBytes(random(9)),
                () -> session.newString("plain"), () -> session.newString("\u00e4\u20ac\ud83d\ude00\ud83dz"),
                () -> session.newDoubleByteString("a\ud83d\ude00z"), () -> {
                    PovZelObject noText = session.newString("z");
                    noText.setBytes(new byte[] {-61, -16, -97, -104, 'z'});
                    return noText;
                });
        for (Supplier<PovZelObject> each : made) {
            int unit = each.get().describe().isDBString ? 2 : 1;
            for (int size = 0; size < 24; size += unit) {
                PovZelObject object = each.get();
                byte[] before = object.bytes();
                object.setSize(size);
                assertArrayEquals(Arrays.copyOf(before, size), object.bytes());
                object.setBytes(size + 2 * unit + 1, before, null);
                assertArrayEquals(before, Arrays.copyOfRange(object.bytes(), size + 2 * unit,
                        size + 2 * unit + before.length));
            }
        }
        PovZelObject array = session.newArray(List.of(1L, 2L, 3L));
        array.setSize(1);
        array.setElements(4, LongStream.range(0, 20_000).boxed().toList());
        assertEquals(Arrays.asList(1L, null, null, 0L), array.list().subList(0, 4));
        assertEquals(List.of(20_003, 19_999L), List.of(array.list().size(), array.list().get(20_002)));
        array.fill("same");
        assertEquals(Collections.nCopies(20_003, "same"), array.value());
        assertEquals(true, object("[:a | a first == a last]").perform("value:", array));
        PovZelObject text = session.newString("");
        OutputStream out = text.outputStream(3);
        out.write('c');
        out.close();
        assertEquals("\0\0c", text.value());
        allThrow(IllegalArgumentException.class, () -> array.setSize(-1), () -> text.fill(1),
                () -> session.newDoubleByteString("ab").setSize(3));
        PovZelObject sorted = object("#(3 1) asSortedCollection");
        assertEquals(List.of(1L, 3L), sorted.list());
        allThrow(UnsupportedOperationException.class, () -> sorted.list().set(0, 9));
        for (PovZelObject placing : List.of(sorted, object("Dictionary new"), object("Set new"))) {
            allThrow(IllegalArgumentException.class, () -> placing.fill(9),
                    () -> placing.setElements(1, List.of(9)));
        }
        allThrow(PovZelException.class, () -> object("1 -> 2").setSize(1), () -> object("#a").setSize(0),
                () -> array.setSize(1L << 40));
    }

    // A list, its parts and a list of Java go the same way, whatever is in hand.
    @Test
    void listsBehaveAsListsOfJava() {
        List<Object> model = IntStream.range(0, 2000).mapToObj(i ->
                i % 3 == 0 ? "text " + i : (Object) (long) i).collect(Collectors.toList());
        PovZelObject array = session.newArray(model);
        List<Object> list = array.list();
        Random random = new Random(7);
        for (int i = 0; i < 1000; i++) {
            int at = random.nextInt(10) == 0 ? random.nextInt(1900) : i;
            int index = i % 300 < 200 ? at : 1900 - at;
            Object value = List.of(-1L, "set", 'x', 1L << 40, 0.5, true).get(i % 6);
            BiFunction<List<Object>, List<Object>, Object> step = switch (random.nextInt(40)) {
                case 0 -> (all, part) -> all.indexOf(value) + part.lastIndexOf(value);
                case 1 -> (all, part) -> List.of(all.contains((long) index), part.toArray().length);
                case 2 -> (all, part) -> {
                    part.sort(Comparator.comparing(String::valueOf));
                    part.replaceAll(each -> each instanceof Long ? (Long) each + 1 : each);
                    return part.get(0);
                };
                case 3, 4, 5, 6, 7, 8 -> (all, part) -> part.set(5, value);
                case 9, 10, 11, 12, 13, 14 -> (all, part) -> all.set(index, value);
                default -> (all, part) -> all.get(index);
            };
            assertEquals(step.apply(model, model.subList(index, index + 100)),
                    step.apply(list, list.subList(index, index + 100)), "step " + i);
        }
        assertEquals(List.of(model, model), List.of(list, array.list()));
        Stream.of(model, list).forEach(Collections::reverse);
        assertEquals(model, array.value());
    }

    @Test
    void listsReadAndWriteNoMoreThanTheyMust() {
        PovZelObject array = object("(1 to: 20000) asArray collect: "
                + "[:i | i \\\\ 100 = 2 ifTrue: [Array new: 1] ifFalse: [#symbol]]");
        List<Object> list = array.list();
        int held = session.calls().heldObjects();
        PovZelObject one = (PovZelObject) list.get(12_001);
        list.set(17_000, one);
        assertEquals(held + 1, session.calls().heldObjects(), "a jump reads one element");
        assertEquals(12_001, list.indexOf(one));
        assertEquals(held + 1, session.calls().heldObjects());
        one.close();
        assertTrue(((PovZelObject) list.get(12_001)).isUsable(), "read again, as the program closed it");

        list.sort(Comparator.comparing(each -> each instanceof String ? 0 : 1));
        PovZelObject ends = object("[:a | a first class name, ' ', a last class name]");
        assertEquals("Symbol Array", ends.perform("value:", array));
        allThrow(ConcurrentModificationException.class,
                () -> list.replaceAll(each -> array.perform("at:put:", 1, 0)));
        Iterator<Object> results = Collections.<Object>nCopies(19_999, 1).iterator();
        allThrow(IllegalArgumentException.class,
                () -> list.replaceAll(each -> results.hasNext() ? results.next() : new Object()));
        assertEquals("SmallInteger Array", ends.perform("value:", array), "all or nothing");
        Iterable<Object> breaking = () -> {
            assertTrue(session.cancel());
            return Collections.emptyIterator();
        };
        list.set(19_999, "last");
        allThrow(PovZelCancelledException.class,
                () -> list.replaceAll(each -> each.equals("last") ? breaking : (Object) 7));
        assertEquals("SmallInteger String", ends.perform("value:", array), "whatever ends the call");
        assertTrue(assertThrows(IllegalArgumentException.class, () -> list.set(7, new Object()))
                .getMessage().contains("index 7"));
        Iterator<Object> cut = list.iterator();
        cut.next();
        array.setSize(1);
        allThrow(ConcurrentModificationException.class, cut::next);
        allThrow(IndexOutOfBoundsException.class, () -> list.get(9), () -> list.set(9, 1));
        array.close();
        allThrow(IllegalStateException.class, () -> list.get(19_999), () -> list.sort(null));
    }

    @Test
    void listenersAreToldEachChangeOnce() {
        List<PovZelObject> both = List.of(object("Array new: 1"), object("Array new: 1"));
        List<RuntimeException> thrown = List.of(new RuntimeException(), new IllegalStateException());
        List<PovZelObject> told = new ArrayList<>();
        List<PovZelRegistration> late = new ArrayList<>();
        session.pollChanges();
        session.onChange(PovZelObject::close);
        PovZelRegistration failing = session.onChange(object -> {
            throw thrown.get(both.indexOf(object));
        });
        session.onChange(object -> late.forEach(PovZelRegistration::close));
        session.onChange(told::add);
        session.onChange(object -> late.add(session.onChange(again -> told.add(null))));

        both.forEach(object -> object.perform("at:put:", 1, 5));
        RuntimeException error = assertThrows(RuntimeException.class, session::pollChanges);
        assertEquals(thrown, List.of(error, error.getSuppressed()[0]));
        failing.close();
        assertEquals(List.of(both, both), List.of(told, session.pollChanges()), "returned once");
        told.clear();
        both.get(1).perform("at:put:", 1, 6);
        assertEquals(List.of(both.get(1)), session.pollChanges());
        assertEquals(List.of(both.get(1)), told, "those closed by a listener before were not told");
        session.close();
        failing.close();
        assertThrows(IllegalStateException.class, () -> session.onChange(told::add));
    }

    @Test
    void changesOfAPollThatFailedAreToldByTheNext() {
        List<PovZelObject> all = Stream.generate(() -> object("Array new: 1")).limit(1500).toList();
        session.pollChanges();
        all.forEach(object -> object.perform("at:put:", 1, 5));
        int[] asked = {0};
        PovZelChanges changes = new PovZelChanges(session.calls(), oops -> {
            if (++asked[0] == 2) {
                throw PovZelLibrary.failure("half way", null);
            }
            return PovZelInterface._changedOops(session.id(), oops, oops.length, null);
        });
        List<PovZelObject> told = new ArrayList<>();
        changes.add(told::add);
        assertThrows(PovZelException.class, changes::poll);
        assertEquals(List.of(List.of(), all, all), List.of(List.copyOf(told), changes.poll(), told));
    }
}
