package com.tarvolin.povzel;

import static org.junit.jupiter.api.Assertions.*;

import java.lang.reflect.*;
import java.util.*;
import java.util.stream.*;
import org.junit.jupiter.api.Test;

// Random natives with random arguments, many of them wrong: whatever the call, its status and its
// error report agree. -Dpovzel.test.seed repeats a failure.
class SoakTest {
    private static final List<Method> NATIVES = Stream
            .of(PovZelInterface.class.getDeclaredMethods())
            .filter(m -> Modifier.isNative(m.getModifiers())
                    && !List.of("_initialize", "_login", "_logout").contains(m.getName()))
            .sorted(Comparator.comparing(Method::getName)).toList();

    private final long seed = Long.getLong("povzel.test.seed", 20_240_229L);
    private final Random random = new Random(seed);
    private List<PovZelObject> objects = List.of();

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
                ? PovZelValues.existing(pick(objects).oop())
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

    @Test
    @SuppressWarnings("deprecation")
    void statusAndErrorAgree() throws ReflectiveOperationException {
        PovZelLibrary.initialize();
        int done = 0;
        for (int round = 0; round < 20; round++) {
            try (PovZelSession session = PovZelSession.login("DataCurator", "swordfish")) {
                objects = Stream.of("ByteArray new: 9", "'text' copy", "Array new: 9", "3 -> 4",
                        "Set new", "[:x | x]").map(session::executeForObject).toList();
                for (int i = 0; i < 5_000; i++) {
                    Method called = pick(NATIVES);
                    Object[] arguments = Stream.of(called.getParameterTypes()).map(this::argument)
                            .toArray();
                    arguments[0] = random.nextInt(100) == 0 ? (int) number() : session.id();
                    String shown = "seed " + seed + ": " + called + Arrays.toString(arguments);
                    int status = (int) called.invoke(null, arguments);
                    PovZelException error = (PovZelException) arguments[arguments.length - 1];
                    assertTrue(status >= -1, shown);
                    assertEquals(status == -1, error.message != null && error.number > 0, shown);
                    done += status == -1 ? 0 : 1;
                }
            }
        }
        assertTrue(done > 10_000, "successful calls " + done);
    }
}
