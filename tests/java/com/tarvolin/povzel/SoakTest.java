package com.tarvolin.povzel;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.util.ArrayList;
import java.util.Arrays;
import java.util.HashSet;
import java.util.List;
import java.util.Random;
import java.util.Set;
import java.util.concurrent.TimeUnit;
import org.junit.jupiter.api.Test;

/**
 * Random natives with random arguments, wrong ones among them, against a model of the database in
 * Java. The seed is in the report of every failure; -Dpovzel.test.seed repeats it.
 */
class SoakTest {
    private static final int CALLS = 1_000_000;
    private static final long LONGEST_NANOS = TimeUnit.SECONDS.toNanos(20);
    private static final int OBJECTS = 8;
    private static final int LARGEST = 3000;
    private static final int BUFFER = PovZelLibrary.DEFAULT_BUFFER_SIZE;
    private static final int OOPS = BUFFER / 4;

    private final long seed = Long.getLong("povzel.test.seed", 20_240_229L);
    private final Random random = new Random(seed);
    private int session;
    private PovZelException error;
    private String call;

    private final long[] byteOops = new long[OBJECTS];
    private final byte[][] byteModel = new byte[OBJECTS][0];
    private final long[] arrayOops = new long[OBJECTS];
    private final List<List<Long>> arrayModel = new ArrayList<>();
    private final Set<Long> changed = new HashSet<>();
    private long byteArrayClass;
    private long arrayClass;

    @Test
    void randomCallsAgreeWithAModel() {
        PovZelLibrary.initialize();
        session = PovZelInterface._login("", null, "DataCurator", "swordfish", null, null,
                new PovZelException());
        for (int i = 0; i < OBJECTS; i++) {
            byteOops[i] = evaluate("ByteArray new").oop;
            arrayOops[i] = evaluate("Array new").oop;
            arrayModel.add(new ArrayList<>());
        }
        byteArrayClass = evaluate("ByteArray").oop;
        arrayClass = evaluate("Array").oop;
        Runnable[] natives = {this::putBytes, this::getBytes, this::putObjs, this::getObjs, this::setup,
            this::execute, this::perform, this::isKindOf, this::release, this::changedOops,
            this::namedObjs, this::wrongSession, this::continueProcess, this::initialize};
        int[] weights = {20, 20, 20, 20, 10, 5, 20, 10, 5, 5, 5, 2, 2, 1};
        int[] deck = new int[Arrays.stream(weights).sum()];
        int filled = 0;
        for (int i = 0; i < weights.length; i++) {
            Arrays.fill(deck, filled, filled += weights[i], i);
        }
        long end = System.nanoTime() + LONGEST_NANOS;
        int calls = 0;
        try {
            while (calls < CALLS && System.nanoTime() < end) {
                error = new PovZelException();
                natives[deck[random.nextInt(deck.length)]].run();
                calls++;
            }
        } catch (AssertionError | RuntimeException e) {
            throw new AssertionError("seed " + seed + ", call " + calls + ": " + call, e);
        }
        assertEquals(0, PovZelInterface._logout(session, error));
        System.out.println(calls + " calls agreed");
    }

    private PovZelReport evaluate(String text) {
        PovZelReport result = new PovZelReport();
        assertEquals(0, PovZelInterface._executeStr(session, text, result, new PovZelException()));
        return result;
    }

    /** A start index that is usually good, otherwise a wrong one. */
    private long start(int size) {
        long[] edges = {Long.MIN_VALUE, -1, 0, 1, size, size + 1L, size + 2L, Integer.MAX_VALUE,
            1L << 31, 1L << 32, (1L << 32) + 1, Long.MAX_VALUE};
        return random.nextInt(4) == 0 ? edges[random.nextInt(edges.length)]
                : 1 + random.nextInt(size + 1);
    }

    private int count(int limit, int room) {
        int[] edges = {Integer.MIN_VALUE, -1, 0, limit, limit + 1, room, room + 1, Integer.MAX_VALUE};
        return random.nextInt(4) == 0 ? edges[random.nextInt(edges.length)] : random.nextInt(64);
    }

    private PovZelReport named(long oop) {
        return random.nextInt(200) == 0 ? null : PovZelValues.existing(oop);
    }

    private void expect(boolean good, int value, int status) {
        if (good) {
            assertEquals(value, status, () -> call + ": " + error.message);
        } else {
            assertEquals(-1, status, call);
            assertNotNull(error.message, call);
            assertTrue(error.number > 0, call);
        }
    }

    private void note(String name, Object... arguments) {
        call = name + Arrays.toString(arguments);
    }

    private void putBytes() {
        int i = random.nextInt(OBJECTS);
        byte[] model = byteModel[i];
        byte[] bytes = random.nextInt(100) == 0 ? null : new byte[random.nextInt(2 * 64)];
        long start = start(model.length);
        int count = count(BUFFER, bytes == null ? 0 : bytes.length);
        if (bytes != null) {
            random.nextBytes(bytes);
        }
        PovZelReport object = named(byteOops[i]);
        note("putBytes", object == null, start, count, bytes == null ? null : bytes.length);
        // The low 32 bits of the start count.
        int at = (int) start;
        boolean good = object != null && bytes != null && start >= 1 && count >= 0
                && count <= bytes.length && at >= 1 && at <= model.length + 1;
        int status = PovZelInterface._putBytes(session, object, start, count, bytes, error);
        expect(good, 0, status);
        if (good && count > 0) {
            byte[] now = Arrays.copyOf(model, Math.max(model.length, at - 1 + count));
            System.arraycopy(bytes, 0, now, at - 1, count);
            byteModel[i] = now;
            changed.add(byteOops[i]);
            if (now.length > LARGEST) {
                byteOops[i] = evaluate("ByteArray new").oop;
                byteModel[i] = new byte[0];
            }
        }
    }

    private void getBytes() {
        int i = random.nextInt(OBJECTS);
        byte[] model = byteModel[i];
        byte[] bytes = random.nextInt(100) == 0 ? null : new byte[random.nextInt(2 * 64)];
        long start = start(model.length);
        int count = count(BUFFER, bytes == null ? 0 : bytes.length);
        PovZelReport object = named(byteOops[i]);
        note("getBytes", object == null, start, count, bytes == null ? null : bytes.length, model.length);
        int at = (int) start;
        boolean good = object != null && bytes != null && start >= 1 && count >= 0
                && count <= bytes.length && at >= 1 && at - 1L + count <= model.length;
        int status = PovZelInterface._getBytes(session, object, start, count, bytes, error);
        expect(good, count, status);
        if (good) {
            assertArrayEquals(Arrays.copyOfRange(model, at - 1, at - 1 + count),
                    Arrays.copyOf(bytes, count), call);
        }
    }

    private void putObjs() {
        int i = random.nextInt(OBJECTS);
        List<Long> model = arrayModel.get(i);
        PovZelReport[] objects = new PovZelReport[random.nextInt(100)];
        Arrays.setAll(objects, k -> PovZelValues.existing(anyOop()));
        long start = start(model.size());
        int count = count(OOPS, objects.length);
        if (random.nextInt(100) == 0 && objects.length > 0) {
            objects[random.nextInt(objects.length)] = null;
        }
        PovZelReport object = named(arrayOops[i]);
        note("putObjs", object == null, start, count, objects.length, model.size());
        int at = (int) start;
        boolean good = object != null && start >= 1 && count >= 0 && count <= objects.length && at >= 1
                && at <= model.size() + 1
                && Arrays.stream(objects).limit(Math.max(0, count)).allMatch(o -> o != null);
        expect(good, 0, PovZelInterface._putObjs(session, object, start, count, objects, error));
        if (good && count > 0) {
            for (int k = 0; k < count; k++) {
                if (at - 1 + k < model.size()) {
                    model.set(at - 1 + k, objects[k].oop);
                } else {
                    model.add(objects[k].oop);
                }
            }
            changed.add(arrayOops[i]);
            if (model.size() > LARGEST) {
                arrayOops[i] = evaluate("Array new").oop;
                model.clear();
            }
        }
    }

    /** A value, or an object that stays in the export set. */
    private long anyOop() {
        int kind = random.nextInt(8);
        return kind == 0 ? PovZelValues.NIL : kind == 1 ? PovZelValues.TRUE
                : kind == 2 ? byteArrayClass : kind == 3 ? arrayClass
                : PovZelValues.simple(random.nextInt(1 << 29)).oop;
    }

    private void getObjs() {
        int i = random.nextInt(OBJECTS);
        List<Long> model = arrayModel.get(i);
        PovZelReport[] objects = new PovZelReport[random.nextInt(100)];
        boolean hole = random.nextInt(100) == 0;
        Arrays.setAll(objects, k -> hole ? null : new PovZelReport());
        long start = start(model.size());
        int count = count(OOPS, objects.length);
        PovZelReport object = named(arrayOops[i]);
        note("getObjs", object == null, hole, start, count, objects.length, model.size());
        int at = (int) start;
        int there = Math.max(0, Math.min(count, model.size() - (at - 1)));
        boolean good = object != null && start >= 1 && count >= 0 && count <= objects.length && at >= 1
                && at <= model.size() + 1 && !(hole && there > 0);
        expect(good, there, PovZelInterface._getObjs(session, object, start, count, objects, error));
        for (int k = 0; good && k < there; k++) {
            assertEquals(model.get(at - 1 + k), objects[k].oop, call);
        }
    }

    private void setup() {
        boolean bytes = random.nextBoolean();
        int i = random.nextInt(OBJECTS);
        PovZelReport report = PovZelValues.existing(bytes ? byteOops[i] : arrayOops[i]);
        note("setup", report.oop);
        expect(true, 0, PovZelInterface._setup(session, report, error));
        int size = bytes ? byteModel[i].length : arrayModel.get(i).size();
        assertEquals(size, report.indexedSize, call);
        assertEquals(bytes ? byteArrayClass : arrayClass, report.classOop, call);
        int preload = PovZelLibrary.DEFAULT_PRELOAD_SIZE;
        if (bytes) {
            assertArrayEquals(Arrays.copyOf(byteModel[i], Math.min(size, preload)), report.valueBytes);
        } else {
            assertArrayEquals(arrayModel.get(i).stream().limit(preload / 4).mapToLong(o -> o).toArray(),
                    report.valueLongs);
        }
        expect(false, 0, PovZelInterface._setup(session, null, error));
    }

    private void execute() {
        int a = random.nextInt(1000);
        int b = random.nextInt(1000);
        PovZelReport result = new PovZelReport();
        switch (random.nextInt(3)) {
            case 0 -> {
                note("executeStr", a, b);
                expect(true, 0, PovZelInterface._executeStr(session, a + " + " + b, result, error));
                assertEquals(a + b, result.valueLong);
            }
            case 1 -> {
                note("executeObj", a, b);
                PovZelReport text = PovZelValues.string(a + " * " + b, false);
                expect(true, 0, PovZelInterface._executeObj(session, text, result, error));
                assertEquals(a * b, result.valueLong);
            }
            default -> {
                note("executeStr of nonsense", a);
                String text = random.nextBoolean() ? null : "(" + a;
                expect(false, 0, PovZelInterface._executeStr(session, text, result, error));
            }
        }
    }

    private void perform() {
        int i = random.nextInt(OBJECTS);
        List<Long> model = arrayModel.get(i);
        PovZelReport[] arguments = {PovZelValues.simple(random.nextInt(model.size() + 2))};
        int count = random.nextInt(20) == 0 ? count(20, 1) : 1;
        String selector = random.nextInt(50) == 0 ? null : "at:";
        PovZelReport object = named(arrayOops[i]);
        PovZelReport result = new PovZelReport();
        long index = (int) arguments[0].oop >> 2;
        note("perform", object == null, selector, count, index, model.size());
        boolean good = object != null && selector != null && count == 1 && index >= 1
                && index <= model.size();
        expect(good, 0, PovZelInterface._perform(session, object, selector, arguments, count, result, error));
        if (good) {
            assertEquals(model.get((int) index - 1), result.oop, call);
        }
    }

    private void isKindOf() {
        boolean bytes = random.nextBoolean();
        int i = random.nextInt(OBJECTS);
        PovZelReport object = named(bytes ? byteOops[i] : arrayOops[i]);
        note("isKindOf", object == null, bytes);
        int status = PovZelInterface._isKindOf(session, object, PovZelValues.existing(arrayClass), error);
        expect(object != null, bytes ? 0 : 1, status);
    }

    /** Takes an object out of the export set and, since the model still names it, puts it back. */
    private void release() {
        PovZelReport fresh = evaluate("Array new: 2");
        int status;
        if (random.nextBoolean()) {
            note("removeFromExportSet", fresh.oop);
            status = PovZelInterface._removeFromExportSet(session, new PovZelReport[] {fresh}, 1, error);
        } else {
            note("releaseOops", fresh.oop);
            status = PovZelInterface._releaseOops(session, new long[] {fresh.oop, 7}, 1, error);
        }
        expect(true, 0, status);
        int count = random.nextBoolean() ? -1 : 1 + random.nextInt(1 << 20);
        note("releaseOops", count);
        expect(false, 0, PovZelInterface._releaseOops(session, new long[0], count, error));
    }

    private void changedOops() {
        int room = random.nextInt(12);
        long[] oops = new long[room + 1];
        Arrays.fill(oops, -1);
        note("changedOops", room, changed);
        int expected = Math.min(room, changed.size());
        expect(true, expected, PovZelInterface._changedOops(session, oops, room, error));
        for (int i = 0; i <= room; i++) {
            boolean one = i < expected;
            assertTrue(one ? changed.remove(oops[i]) : oops[i] == -1, call + " " + oops[i]);
        }
        expect(false, 0, PovZelInterface._changedOops(session, oops, room + 2, error));
    }

    private void namedObjs() {
        PovZelReport pair = evaluate("3 -> 4");
        PovZelReport[] objects = {PovZelValues.simple(random.nextInt(100))};
        long start = start(2);
        note("namedObjs", start);
        boolean good = start >= 1 && (int) start >= 1 && (int) start <= 2;
        int status = PovZelInterface._putNamedObjs(session, pair, start, 1, objects, error);
        expect(good, 0, status);
        PovZelReport[] read = {new PovZelReport()};
        status = PovZelInterface._getNamedObjs(session, pair, start, 1, read, error);
        if (good) {
            assertEquals(1, status);
            assertEquals(objects[0].oop, read[0].oop);
        } else {
            assertTrue(status == 0 || status == -1);
        }
        changed.add(pair.oop);
        if (!good) {
            changed.remove(pair.oop);
        }
    }

    private void wrongSession() {
        int wrong = random.nextBoolean() ? -1 : session + 1 + random.nextInt(1 << 20);
        note("wrong session", wrong);
        expect(false, 0, PovZelInterface._executeStr(wrong, "3", new PovZelReport(), error));
        expect(false, 0, PovZelInterface._logout(wrong, error));
        expect(false, 0, PovZelInterface._login("", null, "DataCurator", random.nextBoolean() ? null : "x",
                null, null, error));
    }

    private void continueProcess() {
        note("continue");
        PovZelReport result = new PovZelReport();
        expect(false, 0, PovZelInterface._executeStr(session, "3 foo + 1", result, error));
        PovZelReport process = PovZelValues.existing(error.context);
        PovZelReport value = PovZelValues.simple(random.nextInt(100));
        expect(true, 0, PovZelInterface._continue(session, process, value, result, null, null, error));
        assertEquals(((int) value.oop >> 2) + 1, result.valueLong);
        expect(false, 0, PovZelInterface._continue(session, process, value, result, null, null, error));
        expect(false, 0, PovZelInterface._continue(session, null, null, result, "x", null, error));
    }

    private void initialize() {
        if (random.nextInt(100) != 0) {
            return; // each call prints a line
        }
        note("initialize");
        expect(true, 32, PovZelInterface._initialize(random.nextInt(), null, random.nextInt(),
                random.nextInt(), 0, error));
    }
}
