package com.tarvolin.povzel;

import static org.junit.jupiter.api.Assertions.*;

import java.math.*;
import java.nio.file.Path;
import java.time.*;
import java.time.temporal.ChronoUnit;
import java.util.*;
import java.util.function.*;
import java.util.stream.*;
import org.junit.jupiter.api.*;
import org.junit.jupiter.api.function.Executable;

// Values both ways, nested ones among them, what cannot be passed, results of a class that the
// program names, nulls. -Dpovzel.test.seed repeats a failure.
class ValuesTest {
    private static final LocalDateTime NOON = LocalDateTime.of(2024, 2, 29, 12, 0, 0, 250_000_000);
    private static final Object NOT_PASSED = new Object();
    private final PovZelSession session = PovZelSession.login("DataCurator", "swordfish");
    private final long seed = Long.getLong("povzel.test.seed", 20_240_229L);
    private final Random random = new Random(seed);

    @AfterEach
    void logOut() {
        session.close();
    }

    private PovZelObject object(String text) {
        return session.executeForObject(text);
    }

    private Object stored(Object value) {
        return session.newArray(Collections.singletonList(value)).value();
    }

    private static String refused(Class<? extends Exception> kind, Executable call) {
        return String.valueOf(assertThrows(kind, call).getMessage());
    }

    private static List<Object> listOf(Object... values) {
        return new ArrayList<>(Arrays.asList(values));
    }

    private Object simple() {
        List<Object> edges = Arrays.asList(null, true, Double.NaN, -0.0, 0.5, Long.MIN_VALUE, 1L << 62,
                1L << 29, -1L, "\0", "\ud83d\ude00", "\ude00\ud83d", "a\ud83d", "", '\uffff', 'x');
        return switch (random.nextInt(6)) {
            case 0 -> edges.get(random.nextInt(edges.size()));
            case 1 -> random.nextLong() >> random.nextInt(64);
            case 2 -> BigInteger.valueOf(random.nextLong()).pow(9).setBit(64);
            case 3 -> Double.longBitsToDouble(random.nextLong());
            case 4 -> random.ints(random.nextInt(9), 0, random.nextBoolean() ? 128 : 1 << 16)
                    .mapToObj(c -> String.valueOf((char) c)).collect(Collectors.joining());
            default -> NOON.plus(random.nextInt(), ChronoUnit.MILLIS);
        };
    }

    private Object nested(int depth) {
        int size = random.nextInt(random.nextInt(20) == 0 ? 600 : 7);
        List<Object> parts = Stream.generate(() -> depth == 0 ? 0L : nested(random.nextInt(depth)))
                .limit(size).collect(Collectors.toCollection(ArrayList::new));
        // Of keys that differ in Java, the database takes none for equal.
        Supplier<Object> key = () -> random.nextInt(4) > 0 ? "k" + random.nextInt()
                : listOf("k" + random.nextInt(), null, "\u20ac");
        return switch (depth == 0 ? 0 : random.nextInt(4)) {
            case 0 -> simple();
            case 1 -> parts;
            case 2 -> Stream.generate(key).limit(size).collect(Collectors.toSet());
            default -> parts.stream().collect(HashMap::new, (map, part) -> map.put(key.get(), part),
                    HashMap::putAll);
        };
    }

    @Test
    void whatJavaStoresComesBackEqual() {
        for (int round = 0; round < 60; round++) {
            Object value = nested(round % 5);
            assertEquals(listOf(value), stored(value), () -> "seed " + seed);
        }
        Set<Object> mixed = new HashSet<>(listOf(null, true, 'x', "x", 1L, 2.5, Double.NaN, NOON,
                BigInteger.TWO.pow(70), List.of(1L)));
        assertEquals(listOf(mixed), stored(mixed));
        List<Object> kinds = listOf(new int[] {1, -1 << 31}, new long[] {1L << 40}, new double[] {-0.0},
                new boolean[] {true}, "ab".toCharArray(), new short[1], new float[] {1.5f},
                new Object[] {new int[0]}, new StringBuilder("text"), new ArrayDeque<>(List.of(7L)), (Iterable<Long>) () ->
                        LongStream.range(0, 5).iterator());
        assertEquals(listOf(listOf(listOf(1L, -1L << 31), listOf(1L << 40), listOf(-0.0), listOf(true),
                listOf('a', 'b'), listOf(0L), listOf(1.5), listOf(listOf()), "text", listOf(7L),
                listOf(0L, 1L, 2L, 3L, 4L))), stored(kinds));
        assertArrayEquals(new byte[] {1, -1}, (byte[]) ((List<?>) stored(new byte[] {1, -1})).get(0));
        assertEquals(Collections.nCopies(40_000, 2L), session.newArray(Collections.nCopies(40_000, 2)).value());
        BigInteger largest = BigInteger.ONE.shiftLeft(65_536).subtract(BigInteger.ONE);
        assertEquals(listOf(listOf(largest, largest.negate())), stored(listOf(largest, largest.negate())));
    }

    @Test
    void timesAreKeptToTheMillisecond() {
        Instant instant = NOON.toInstant(ZoneOffset.UTC);
        assertEquals(listOf(NOON), stored(instant));
        assertEquals(listOf(NOON.toLocalDate().atStartOfDay()), stored(NOON.toLocalDate()));
        assertEquals(instant, session.performFor(Instant.class, NOON, "yourself"));
        assertEquals(NOON.toLocalDate(), session.performFor(LocalDate.class, NOON.toLocalDate(), "yourself"));
        for (Object fine : List.of(NOON.plusNanos(1), instant.minusNanos(1))) {
            assertTrue(refused(IllegalArgumentException.class, () -> stored(fine))
                    .contains(fine + " is finer than the database's milliseconds: use truncatedTo"));
        }
        for (Object far : List.of(Instant.MAX, Instant.MIN, LocalDate.MAX, LocalDateTime.MIN)) {
            assertTrue(refused(IllegalArgumentException.class, () -> stored(far)).matches("The java.time."
                    + far.getClass().getSimpleName() + " \\Q" + far + "\\E is not .*element 1 of the array.*"));
        }
        session.truncateTimes(true);
        assertEquals(listOf(NOON.minus(1, ChronoUnit.MILLIS)), stored(instant.minusNanos(1)));
    }

    // Neither way is there a limit to the depth; what is shared stays shared.
    @Test
    void structuresOfAnyShape() {
        Object deep = "bottom";
        for (int i = 0; i < 5_000; i++) {
            deep = i % 2 == 0 ? Collections.singletonList(deep) : Collections.singletonMap("k", deep);
        }
        Object back = session.newArray(List.of(deep)).value();
        for (int i = 0; i < 5_001; i++) {
            back = back instanceof Map<?, ?> map ? map.get("k") : ((List<?>) back).get(0);
        }
        assertEquals("bottom", back);
        List<Object> wide = listOf(1L);
        for (int i = 0; i < 60; i++) {
            wide = listOf(wide, wide);
        }
        List<?> shared = (List<?>) session.newArray(wide).value();
        assertSame(shared.get(0), shared.get(1));

        // Java would hash these for ever, or until its stack is full.
        for (String grow : List.of("5000 timesRepeat: [x := Array with: x]",
                "40 timesRepeat: [x := Array with: x with: x]")) {
            PovZelObject set = object("| x | x := Array with: 1. " + grow + ". IdentitySet with: x");
            assertInstanceOf(PovZelObject.class, ((Set<?>) set.value()).iterator().next());
        }
        PovZelObject cyclic = object("| a d | a := Array new: 3. d := Dictionary new. a at: 1 put: d."
                + " d at: #self put: a. a at: 2 put: 3 -> 4. a at: 3 put: #(7). a");
        List<?> value = (List<?>) cyclic.value();
        assertEquals(Map.of("self", cyclic), value.get(0));
        assertEquals(listOf(3L, 4L), ((PovZelObject) value.get(1)).namedSlots());
        assertEquals(List.of(7L), value.get(2));
    }

    @Test
    void collectionsOfTheDatabase() {
        Map<String, Object> values = Map.of("Set with: 3 with: nil", new HashSet<>(listOf(3L, null)),
                "(1 to: 9 by: 4)", listOf(1L, 5L, 9L), "#(3 1) asSortedCollection: [:a :b | a > b]",
                listOf(3L, 1L), "OrderedCollection new add: 2; addFirst: #(1); yourself",
                listOf(listOf(1L), 2L), "Bag with: 'x' with: 'x'", listOf("x", "x"),
                "Array subclass: 'Row'. Row withAll: #(1 2)", listOf(1L, 2L), "(1 to: 9999) asSet",
                LongStream.range(1, 10_000).boxed().collect(Collectors.toSet()),
                "IdentityDictionary new", Map.of(), "Dictionary with: 'a' -> $b", Map.of("a", 'b'));
        values.forEach((text, value) -> {
            PovZelObject object = object(text);
            assertEquals(value, object.value(), text);
            assertEquals(session.perform(object, "size"), object.size(), text);
        });
        // Two keys that Java would take for one.
        Map<?, ?> twins = (Map<?, ?>) object("IdentityDictionary new at: 'k' put: 1; at: 'k' copy put: 2;"
                + " yourself").value();
        assertEquals(List.of(1L, 2L), List.copyOf(twins.values()));
        twins = (Map<?, ?>) object("Dictionary with: '\ud83d\ude00' -> 1 with: (Character value: 128512) -> 2")
                .value();
        assertEquals(List.of(2, 2L), List.of(twins.size(), twins.get("\ud83d\ude00")));
        PovZelObject text = session.newString("\u00fc\ud83d\ude00");
        assertEquals(List.of(2L, 8L), List.of(text.size(), text.byteSize()));
        PovZelObject pair = object("3 -> 4");
        assertSame(pair, pair.value());
        Map.of("Set new", "value()", "Dictionary new", "value()", "1 to: 3", "value()", "3 -> 4",
                "namedSlots()", "#[1]", "bytes()").forEach((of, hint) -> assertTrue(
                        refused(IllegalArgumentException.class, () -> object(of).list()).endsWith(hint)));
        assertTrue(refused(IllegalArgumentException.class, () -> object("#(1)").byteSize()).contains("size()"));
        assertEquals(List.of("object " + pair.oop(), "session " + session.id(), "Association",
                "object " + pair.oop() + " of class Association"), List.of(pair.toString(),
                        session.toString(), pair.className(), pair.toString()));
    }

    @Test
    void whatCannotBePassedIsNamedWithItsPlace() {
        List<Object> endless = listOf(1);
        endless.add(new Object[] {endless});
        Map<Object, String> messages = new LinkedHashMap<>();
        messages.put(listOf(1, listOf(2, NOT_PASSED)), "java.lang.Object.*element 2 of element 2 of argument 2");
        messages.put(Map.of("k", Set.of(NOT_PASSED)), "element 1 of the value of 'k' of argument 2");
        messages.put(Collections.singletonMap(NOT_PASSED, 1), "key 1 of argument 2");
        messages.put(new Object[] {new BigDecimal("1.5")}, "java.math.BigDecimal .*doubleValue.*element 1");
        messages.put(endless, "contains itself.*element 1 of element 2 of argument 2");
        messages.put(BigInteger.ONE.shiftLeft(65_536).negate(), "65537 bits");
        messages.put(Path.of("x"), "Path cannot.*argument 2");
        messages.put(new HashSet<>(listOf(1, 1.0)), "HashSet has 2 elements.*equal");
        messages.put(Map.of(0.0, 1, -0.0, 2), "2 keys.*equal");
        messages.forEach((value, pattern) -> {
            String message = refused(IllegalArgumentException.class,
                    () -> session.perform(null, "foo:bar:", 1, value));
            assertTrue(message.matches(".*" + pattern + ".*"), message);
        });
        assertTrue(refused(IllegalArgumentException.class, () -> object("Array new: 1")
                .setElements(1, listOf(1, NOT_PASSED))).contains("element 2"));
        try (PovZelSession other = PovZelSession.login("DataCurator", "swordfish")) {
            assertTrue(refused(IllegalArgumentException.class, () -> session.perform(
                    other.newArray(List.of()), "size")).contains("another session (the receiver)"));
        }
        PovZelObject closed = object("Array new: 1");
        closed.close();
        refused(IllegalStateException.class, () -> stored(listOf(closed)));
        session.close();
        List.<Executable>of(() -> session.value(7), () -> session.newSet(Set.of()), () ->
                session.executeFor(Long.class, "3")).forEach(c -> refused(IllegalStateException.class, c));
    }

    @Test
    void resultsAreOfTheClassAskedFor() {
        assertEquals(7, session.executeFor(int.class, "3 + 4"));
        assertEquals(List.of((short) 7, 7.0, 0.5f, 3L, new BigDecimal("2.5")), List.of(
                session.executeFor(Short.class, "7"), session.executeFor(Double.class, "7"),
                session.executeFor(Float.class, "0.5"), session.executeFor(Long.class, "3.0"),
                session.executeFor(BigDecimal.class, "2.5")));
        assertEquals(Arrays.asList(null, Float.NaN), Arrays.asList(
                session.executeFor(String.class, "nil"), session.executeFor(Float.class, "Float nan")));
        assertEquals(Map.of(1L, List.of()), session.executeFor(Map.class, "Dictionary with: 1 -> #()"));
        assertEquals("abc", session.executeFor(PovZelObject.class, "'abc'").value());
        assertEquals("an Array( 1 )", session.performForObject(listOf(1), "printString").value());
        assertEquals(3, object("'abc'").performFor(Integer.class, "size"));
        Map.of(Integer.class, "16r80000000", Byte.class, "128", Long.class, "2.5", Double.class,
                "9007199254740993", Float.class, "0.1", String.class, "3", List.class, "3 -> 4",
                BigInteger.class, "Float infinity", int.class, "nil", PovZelObject.class, "3")
                .forEach((type, text) -> assertTrue(refused(IllegalArgumentException.class,
                        () -> session.executeFor(type, text)).endsWith("is no " + type.getTypeName()), text));
        refused(IllegalArgumentException.class, () -> session.performForObject(3, "+", 4));
        refused(IllegalArgumentException.class, () -> session.executeFor(Integer.class, "-0.0"));
        for (long oop : new long[] {-1, 0, 1, 1L << 40}) {
            refused(IllegalArgumentException.class, () -> session.value(oop));
            refused(IllegalArgumentException.class, () -> session.object(oop));
        }
    }

    // Before any native: the session is closed.
    @Test
    void nullsAreRefusedByTheirNames() {
        PovZelObject array = object("Array new: 1");
        session.close();
        Map<String, Executable> calls = Map.ofEntries(
                Map.entry("text", () -> session.execute((String) null)),
                Map.entry("text ", () -> session.executeFor(String.class, null)),
                Map.entry("type", () -> session.performFor(null, 1, "size")),
                Map.entry("selector", () -> array.perform(null)),
                Map.entry("user", () -> PovZelSession.login(null, "swordfish")),
                Map.entry("password", () -> PovZelSession.login("DataCurator", (String) null)),
                Map.entry("suspended error", () -> session.continueWith(null, 3)),
                Map.entry("array of bytes", () -> session.newBytes(null)),
                Map.entry("list of elements", () -> session.newArray(null)),
                Map.entry("map of entries", () -> session.newDictionary(null)),
                Map.entry("list of elements ", () -> array.setElements(1, null)),
                Map.entry("array of bytes ", () -> array.setBytes(null)),
                Map.entry("class", () -> array.isKindOf(null)),
                Map.entry("listener", () -> session.onChange(null)));
        calls.forEach((name, call) -> assertEquals("The " + name.strip() + " is null",
                refused(NullPointerException.class, call)));
    }

    // What a failed program owes is run before the next text: passing values is none.
    @Test
    void passingValuesRunsNoText() {
        PovZelException failed = assertThrows(PovZelException.class,
                () -> session.execute("[3 doubled size] ensure: []"));
        assertFalse(session.needsCommit());
        assertEquals(3L, session.continueWith(failed,
                List.of(Long.MAX_VALUE, new byte[] {1}, BigInteger.ONE.shiftLeft(99))));
    }
}
