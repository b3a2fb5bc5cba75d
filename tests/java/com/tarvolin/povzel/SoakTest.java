package com.tarvolin.povzel;

import static org.junit.jupiter.api.Assertions.*;

import java.lang.reflect.*;
import java.util.*;
import java.util.stream.*;
import org.junit.jupiter.api.Test;

// Random natives with random arguments, many of them wrong: whatever the call, its status and its
// error report agree, and what was put comes back. -Dpovzel.test.seed repeats a failure.
class SoakTest {
    private static final int SESSIONS = 20;
    private static final int CALLS = 5_000;
    private static final List<Method> NATIVES = Stream
            .of(PovZelInterface.class.getDeclaredMethods())
            .filter(m -> Modifier.isNative(m.getModifiers())
                    && !List.of("_initialize", "_login", "_logout").contains(m.getName()))
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

    // Calls, and returns the status.
    private static int call(Method called, Object[] arguments) throws ReflectiveOperationException {
        PovZelException error = (PovZelException) arguments[arguments.length - 1];
        int status = (int) called.invoke(null, arguments);
        assertTrue(status >= -1, () -> "status " + status);
        assertEquals(status == -1, error.message != null && error.number > 0, error.message);
        return status;
    }

    // The first `count` bytes, or the oops of as many reports.
    private static List<Object> contents(Object array, int count) {
        return IntStream.range(0, count).mapToObj(i -> array instanceof PovZelReport[] reports
                ? (Object) reports[i].oop : ((byte[]) array)[i]).toList();
    }

    // Calls the get that belongs to a put, with the same arguments.
    private static void compare(Method put, Object[] arguments) throws ReflectiveOperationException {
        Method get = PovZelInterface.class.getDeclaredMethod(
                put.getName().replace("_put", "_get"), put.getParameterTypes());
        Object given = arguments[4];
        int count = (int) arguments[3];
        arguments[1] = PovZelValues.existing(((PovZelReport) arguments[1]).oop);
        arguments[4] = given instanceof byte[] ? new byte[count]
                : Stream.generate(PovZelReport::new).limit(count).toArray(PovZelReport[]::new);
        assertEquals(count, call(get, arguments));
        assertEquals(contents(given, count), contents(arguments[4], count));
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
                        if (call(called, arguments) == 0 && called.getName().startsWith("_put")
                                && (int) arguments[3] > 0) {
                            compare(called, arguments);
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
