package com.tarvolin.povzel;

import static org.junit.jupiter.api.Assertions.*;

import java.lang.reflect.*;
import java.util.*;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;

// Random natives with random arguments, many of them wrong: whatever the call, its status and its
// error report agree, and what was put comes back. -Dpovzel.test.seed repeats a failure.
class SoakTest {
    private static final int SESSIONS = 20;
    private static final int CALLS = 5_000;
    private static final List<Method> NATIVES = Stream
            .of(PovZelInterface.class.getDeclaredMethods())
            .filter(m -> Modifier.isNative(m.getModifiers()))
            .filter(m -> !List.of("_initialize", "_login", "_logout").contains(m.getName()))
            .sorted(Comparator.comparing(Method::getName)).toList();

    private final long seed = Long.getLong("povzel.test.seed", 20_240_229L);
    private final Random random = new Random(seed);
    private final List<Long> oops = new ArrayList<>();

    private <T> T pick(List<T> choices) {
        return choices.get(random.nextInt(choices.size()));
    }

    // A small number, or now and then one at an edge.
    private long number() {
        return random.nextInt(4) > 0 ? 1 + random.nextInt(5) : pick(List.of(-1L, 0L, 20L,
                1L << 31, 1L << 32, (long) Integer.MAX_VALUE, Long.MIN_VALUE, Long.MAX_VALUE));
    }

    private PovZelReport report() {
        return random.nextInt(100) == 0 ? null : random.nextInt(4) > 0
                ? PovZelValues.existing(pick(oops))
                : PovZelValues.simple(pick(List.of(true, 'x', 5, 1 << 30, 2.5, "text", "\u20ac")));
    }

    private Object argument(Class<?> type) {
        int length = random.nextInt(9);
        return switch (type.getSimpleName()) {
            case "int" -> (int) number();
            case "long" -> number();
            case "String" -> pick(Arrays.asList("3 + 4", "3 foo", "(", "size", "at:", "+", null));
            case "PovZelReport" -> report();
            case "PovZelReport[]" ->
                Stream.generate(this::report).limit(length).toArray(PovZelReport[]::new);
            case "byte[]" -> String.valueOf(random.nextLong()).substring(0, length).getBytes();
            case "long[]" -> random.longs(length).toArray();
            default -> new PovZelException();
        };
    }

    private static int call(Method called, Object[] arguments) throws ReflectiveOperationException {
        PovZelException error = (PovZelException) arguments[arguments.length - 1];
        int status = (int) called.invoke(null, arguments);
        assertTrue(status >= -1, () -> "status " + status);
        assertEquals(status == -1, error.message != null && error.number > 0, error.message);
        return status;
    }

    // Calls the get that belongs to a put, with the same arguments.
    private void compare(String put, Object[] arguments) throws ReflectiveOperationException {
        Object given = arguments[4];
        arguments[1] = PovZelValues.existing(((PovZelReport) arguments[1]).oop);
        int count = (int) arguments[3];
        String get = put.replace("_put", "_get");
        Method getter = NATIVES.stream().filter(m -> m.getName().equals(get)).findFirst().get();
        if (given instanceof byte[] bytes) {
            arguments[4] = new byte[bytes.length];
            assertEquals(count, call(getter, arguments));
            byte[] read = (byte[]) arguments[4];
            assertArrayEquals(Arrays.copyOf(bytes, count), Arrays.copyOf(read, count));
        } else {
            PovZelReport[] read = Stream.generate(PovZelReport::new).limit(count)
                    .toArray(PovZelReport[]::new);
            arguments[4] = read;
            assertEquals(count, call(getter, arguments));
            for (int i = 0; i < count; i++) {
                assertEquals(((PovZelReport[]) given)[i].oop, read[i].oop);
            }
        }
    }

    @Test
    void statusAndErrorAgreeAndWhatWasPutComesBack() throws ReflectiveOperationException {
        PovZelLibrary.initialize();
        int compared = 0;
        for (int round = 0; round < SESSIONS; round++) {
            try (PovZelSession session = PovZelSession.login("DataCurator", "swordfish")) {
                oops.clear();
                for (String text : List.of("ByteArray new: 9", "ByteArray new: 9", "'text' copy",
                        "Array new: 9", "Array new: 9", "3 -> 4", "3 -> 4", "Set new", "nil",
                        "[:x | x]")) {
                    PovZelReport made = new PovZelReport();
                    PovZelInterface._executeStr(session.id(), text, made, new PovZelException());
                    oops.add(made.oop);
                }
                for (int i = 0; i < CALLS; i++) {
                    Method called = pick(NATIVES);
                    Object[] arguments = Arrays.stream(called.getParameterTypes())
                            .map(this::argument).toArray();
                    arguments[0] = random.nextInt(100) == 0 ? (int) number() : session.id();
                    String shown = "seed " + seed + ", " + round + "/" + i + ": " + called.getName()
                            + Arrays.toString(arguments);
                    try {
                        boolean put = called.getName().startsWith("_put");
                        if (call(called, arguments) == 0 && put && (int) arguments[3] > 0) {
                            compare(called.getName(), arguments);
                            compared++;
                        }
                    } catch (AssertionError e) {
                        throw new AssertionError(shown, e);
                    }
                }
            }
        }
        assertTrue(compared > 1000, "puts " + compared);
    }
}
