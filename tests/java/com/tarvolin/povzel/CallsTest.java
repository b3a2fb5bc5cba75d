package com.tarvolin.povzel;

import static org.junit.jupiter.api.Assertions.*;

import java.io.IOException;
import java.time.Duration;
import java.util.*;
import java.util.concurrent.*;
import java.util.concurrent.atomic.*;
import java.util.stream.*;
import org.junit.jupiter.api.*;

// Calls that are broken, run out of time, wait, and lose their session; transactions; what errors tell.
class CallsTest {
    private static final String ENDLESS = "[true] whileTrue";

    private final PovZelSession session = login();
    private final PovZelSession other = login();
    private final ExecutorService threads = Executors.newCachedThreadPool();

    private static PovZelSession login() {
        return PovZelSession.login("DataCurator", "swordfish");
    }

    @AfterEach
    void logOut() {
        session.close();
        other.close();
        threads.shutdownNow();
    }

    // What a call on another thread throws. Returns when so many calls have the library or wait for it.
    private Future<Throwable> failing(int turns, Callable<?> call) {
        Future<Throwable> failure = threads.submit(() -> assertThrows(RuntimeException.class, call::call));
        while (PovZelLibrary.LOCK.turns() < turns && !failure.isDone()) {
            Thread.onSpinWait();
        }
        return failure;
    }

    private static <T extends Throwable> T is(Class<T> kind, Future<Throwable> call) throws Exception {
        return assertInstanceOf(kind, call.get(60, TimeUnit.SECONDS));
    }

    private PovZelException fails(String text) {
        return assertThrows(PovZelException.class, () -> session.execute(text));
    }

    @Test
    void breaksEndWhatRunsAndNothingElse() throws Exception {
        session.execute("left := 0");
        assertFalse(session.interrupt() || session.cancel());
        Future<Throwable> running = failing(1, () ->
                session.execute("go := true. n := 0. [go] whileTrue: [n := n + 1]. 'over'"));
        assertFalse(other.interrupt() || other.cancel(), "another session's");
        assertTrue(session.interrupt());
        PovZelException interrupted = is(PovZelException.class, running);
        assertEquals(6003, interrupted.getNumber());
        session.execute("go := false");
        assertEquals("over", session.continueAfterInterrupt(interrupted));

        do {
            running = failing(1, () -> session.execute("left := 0. [left := 2. " + ENDLESS
                    + "] ensure: [300000 timesRepeat: []. left := left - 1]"));
            assertTrue(session.cancel());
            is(PovZelCancelledException.class, running);
        } while (Objects.equals(0L, session.execute("left")));
        assertEquals(1L, session.execute("left"), "what a program owes is not cut off");

        // A call of many natives, none of which runs a program. What it broke is taken back within it.
        PovZelObject bytes = session.newBytes(new byte[1 << 20]);
        for (boolean hard : new boolean[] {true, false}) {
            session.execute("Globals at: #Cell put: 1");
            PovZelException ended = assertThrows(PovZelException.class, () -> bytes.bytes(done -> {
                assertTrue(hard ? session.cancel() : session.interrupt());
                session.abort();
            }));
            assertEquals(hard ? 6004 : 6003, ended.getNumber());
            assertFalse(session.needsCommit());
        }
    }

    // While arguments are stored nothing was sent, and what was answered is read to its end.
    @Test
    void softBreaksAreForTheCallsOwnProgram() throws Exception {
        session.execute("Object subclass: 'Slow'. Slow compile: 'hash 3000000 timesRepeat: []. ^1'."
                + " OrderedCollection subclass: 'SlowList'. SlowList compile: 'asArray ^#(1 2)'");
        PovZelObject slow = session.executeForObject("Slow new");
        PovZelObject log = session.executeForObject("OrderedCollection new");
        Future<Throwable> storing = failing(1, () -> log.perform("add:", Set.of(slow)));
        assertTrue(session.interrupt());
        PovZelException early = is(PovZelException.class, storing);
        assertEquals(List.of(6003, 0L), List.of(early.getNumber(), log.size()));
        assertThrows(IllegalArgumentException.class, () -> session.continueAfterInterrupt(early));
        for (int i = 0; i < 20; i++) {
            Future<Object> reading = threads.submit(() -> {
                try {
                    return session.executeFor(List.class, "SlowList new add: 1; yourself");
                } catch (PovZelException e) {
                    return ((PovZelObject) session.continueAfterInterrupt(e)).className();
                }
            });
            while (!session.interrupt() && !reading.isDone()) {
                Thread.onSpinWait();
            }
            assertTrue(List.of(List.of(1L, 2L), "SlowList").contains(reading.get()));
        }
    }

    // A thread that runs out of stack anywhere in a call leaves the library to the others.
    @Test
    void aFullStackLocksNobodyOut() throws Exception {
        for (int i = 0; i < 12; i++) {
            int depth = i;
            Thread deep = new Thread(null, () -> assertThrows(StackOverflowError.class, () -> dive(depth)),
                    "deep", 300_000);
            deep.start();
            deep.join();
            assertEquals(7L, threads.submit(() -> other.execute("3 + 4")).get(60, TimeUnit.SECONDS));
        }
    }

    private long dive(int depth) {
        return depth > 0 ? 1 + dive(depth - 1) : dive(0) + (Long) session.execute("3 + 4");
    }

    @Test
    void breaksReachWhatWaits() throws Exception {
        Future<Throwable> running = failing(1, () -> other.execute(ENDLESS));
        Future<Throwable> waiting = failing(2, () -> session.execute("3"));
        assertTrue(session.interrupt());
        assertEquals(6003, is(PovZelException.class, waiting).getNumber());
        waiting = failing(2, () -> session.isValid(null));
        assertTrue(session.interrupt());
        assertEquals(6003, is(PovZelException.class, waiting).getNumber());
        waiting = failing(2, () -> session.execute("3"));
        assertTrue(session.cancel());
        is(PovZelCancelledException.class, waiting);
        session.setTimeout(Duration.ofMillis(1));
        SessionTest.allThrow(PovZelTimeoutException.class, session::commit, () -> PovZelSession.login(
                "", "DataCurator", "swordfish", Duration.ofMillis(1)));
        assertFalse(session.isValid(Duration.ofMillis(1)) || running.isDone());
        assertTrue(other.cancel());
        is(PovZelCancelledException.class, running);
        assertTrue(session.isValid(null));
    }

    @Test
    void timeoutsAndInterruptedThreadsCancel() throws Exception {
        session.setTimeout(Duration.ofNanos(1));
        assertInstanceOf(PovZelTimeoutException.class, fails(ENDLESS));
        session.abort();
        session.setTimeout(Duration.ofSeconds(Long.MAX_VALUE));
        assertThrows(IllegalArgumentException.class, () -> session.setTimeout(Duration.ofMillis(-1)));

        BlockingQueue<Thread> callers = new LinkedBlockingQueue<>();
        for (int turns = 1; turns <= 2; turns++) {
            Future<Throwable> call = failing(turns, () -> {
                callers.add(Thread.currentThread());
                try {
                    return session.execute(ENDLESS);
                } finally {
                    assertTrue(Thread.currentThread().isInterrupted());
                }
            });
            callers.take().interrupt();
            is(PovZelCancelledException.class, call);
            if (turns == 1) {
                failing(1, () -> other.execute(ENDLESS));
            }
        }
        assertTrue(other.cancel());
        Thread.currentThread().interrupt();
        assertInstanceOf(PovZelCancelledException.class, fails("3"));
        assertThrows(PovZelCancelledException.class, CallsTest::login);
        session.abort();
        session.close();
        assertTrue(Thread.interrupted());
        assertEquals(1L, other.execute("System sessionCount"));
    }

    @Test
    void closingEndsWhatTheSessionDoes() throws Exception {
        Future<Throwable> running = failing(1, () -> other.execute(ENDLESS));
        Future<Throwable> waiting = failing(2, () -> session.execute("3"));
        assertTimeout(Duration.ofSeconds(1), session::close);
        is(IllegalStateException.class, waiting);
        assertTimeout(Duration.ofSeconds(1), other::close);
        is(PovZelCancelledException.class, running);
        assertFalse(other.isValid(null) || other.interrupt());
        try (PovZelSession next = login()) {
            assertEquals(1L, next.execute("System sessionCount"));
        }
    }

    // Breaks at random: each ends one call at the most, of its own session, and sessions that nobody
    // breaks see none. Some are closed under way, and replaced.
    @Test
    void noBreakGoesAstray() throws Exception {
        AtomicReferenceArray<PovZelSession> sessions = new AtomicReferenceArray<>(8);
        IntStream.range(0, 8).forEach(i -> sessions.set(i, login()));
        int[] broken = new int[8];
        int[] breaks = new int[8];
        AtomicBoolean over = new AtomicBoolean();
        List<Future<?>> workers = IntStream.range(0, 8).<Future<?>>mapToObj(i -> threads.submit(() -> {
            Random random = new Random(i);
            while (!over.get()) {
                long turns = random.nextInt(i < 4 ? 20_000 : 100);
                boolean timed = i < 2 && random.nextInt(8) == 0;
                try {
                    sessions.get(i).setTimeout(Duration.ofMillis(timed ? 3 : 0));
                    assertEquals(turns, sessions.get(i).execute("| n | n := 0. " + turns
                            + " timesRepeat: [n := n + 1]. n"));
                } catch (PovZelTimeoutException e) {
                    assertTrue(timed);
                } catch (PovZelException e) {
                    assertTrue(e.getNumber() == 6003 || e.getNumber() == 6004, e::toString);
                    broken[i]++;
                } catch (IllegalStateException e) {
                    assertEquals(3, i, "closed");
                }
            }
        })).toList();
        Random random = new Random(8);
        while (IntStream.range(0, 4).anyMatch(i -> breaks[i] < 100)) {
            int i = random.nextInt(4);
            if (i == 3 && random.nextInt(10) == 0) {
                sessions.getAndSet(3, login()).close();
                breaks[3]++;
            } else if (random.nextBoolean() ? sessions.get(i).interrupt() : sessions.get(i).cancel()) {
                breaks[i]++;
            }
            Thread.yield();
        }
        over.set(true);
        for (Future<?> worker : workers) {
            worker.get();
        }
        String shown = Arrays.toString(broken) + " of " + Arrays.toString(breaks);
        for (int i = 0; i < 8; i++) {
            assertTrue(broken[i] <= breaks[i] && broken[i] > 0 == i < 4, shown);
            sessions.get(i).close();
        }
    }

    private static void commit(PovZelSession session, String text) {
        session.execute(text);
        session.commit();
    }

    @Test
    void transactionsCommitOrTakeBack() throws Exception {
        PovZelObject cell = session.executeForObject("Globals at: #Cell put: (Array with: 1)");
        assertThrows(IllegalStateException.class, () -> session.transaction(() -> { }));
        session.commit();
        assertEquals("done", session.transaction(() -> {
            cell.perform("at:put:", 1, 2);
            SessionTest.allThrow(IllegalStateException.class, () -> session.transaction(() -> { }),
                    session::commit, session::abort, session::refresh);
            return "done";
        }));
        assertFalse(session.needsCommit());
        assertThrows(IOException.class, () -> session.transaction(5, () -> {
            cell.perform("at:put:", 1, 3);
            Thread.currentThread().interrupt();
            throw new IOException();
        }));
        assertTrue(Thread.interrupted());
        assertEquals(2L, cell.perform("at:", 1), "an interrupted thread takes back all the same");

        // The other session is faster in two of three tries.
        AtomicInteger tries = new AtomicInteger();
        Runnable work = () -> {
            long held = (Long) cell.perform("at:", 1);
            if (tries.incrementAndGet() < 3) {
                commit(other, "Cell at: 1 put: (Cell at: 1) + 10");
            }
            cell.perform("at:put:", 1, held + 1);
        };
        assertEquals(List.of(cell), assertThrows(PovZelConflictException.class, () ->
                session.transaction(1, work)).getArguments());
        assertEquals(2, tries.getAndSet(0));
        session.transaction(2, work);
        assertEquals(List.of(3, 43L), List.of(tries.getAndSet(0), cell.perform("at:", 1)));

        // Neither a conflict of another session is repeated, nor one after which nothing is taken back.
        try (PovZelSession third = login()) {
            PovZelConflictException conflict = assertThrows(PovZelConflictException.class, () ->
                    session.transaction(2, () -> {
                        tries.incrementAndGet();
                        other.execute("Cell at: 1 put: 9");
                        commit(third, "Cell at: 1 put: 5");
                        other.commit();
                    }));
            assertEquals(List.of(1, 0), List.of(tries.get(), conflict.getSuppressed().length));
            assertThrows(PovZelConflictException.class, other::commit, "until it aborts");
            conflict = assertThrows(PovZelConflictException.class, () -> third.transaction(2, () -> {
                third.execute("Cell at: 1 put: 6");
                commit(session, "Cell at: 1 put: 7");
                PovZelException failure = assertThrows(PovZelConflictException.class, () ->
                        third.execute("System commit"));
                PovZelInterface._logout(third.id(), null);
                throw failure;
            }));
            assertEquals(1, conflict.getSuppressed().length);
            assertThrows(PovZelException.class, third::close);
        }
        assertEquals(2521, assertThrows(PovZelException.class, other::refresh).getNumber());
        other.abort();
        assertEquals(7L, other.execute("Cell at: 1"));
        commit(session, "Cell at: 1 put: 8");
        assertEquals(7L, other.execute("Cell at: 1"));
        other.refresh();
        assertEquals(8L, other.execute("Cell at: 1"));
        session.transaction(() -> session.execute("Globals removeKey: #Cell"));
    }

    @Test
    void errorsTellAllAfterTheEnd() {
        PovZelException error = fails(
                "Object compile: 'deeper ^[:x | x foo: 3 with: self] value: ''\u20ac'''. Object new deeper");
        PovZelException syntax = fails("3 +");
        session.close();
        assertEquals(List.of(2010, "rtErrDoesNotUnderstand", "an ErrorCategory", "\u20ac", "foo:with:"),
                List.of(error.getNumber(), error.getName(), error.getCategory(),
                        error.getArguments().get(0), error.getArguments().get(1)));
        assertInstanceOf(PovZelObject.class, error.getArguments().get(2));
        assertTrue(error.getStack().matches("(?s).*Object>>deeper, line 1.*\ntext, line 1, .*"));
        assertEquals("com.tarvolin.povzel.PovZelException: error 2010 (rtErrDoesNotUnderstand): "
                + error.getMessage(), error.toString());
        assertEquals(Arrays.asList(null, null, List.of()),
                Arrays.asList(syntax.getName(), syntax.getStack(), syntax.getArguments()));
        assertEquals(4051, assertThrows(PovZelLoginException.class, () ->
                PovZelSession.login("DataCurator", "guess")).getNumber());
    }

    // A receiver that the program has forgotten is there until its call ends.
    @Test
    void aCollectionSparesWhatTheCallUses() {
        PovZelObject[] forgotten = {session.executeForObject("Array new: 3")};
        session.execute("3");
        assertEquals(3L, session.calls().<Object>locked(() -> {
            PovZelReport receiver = forgotten[0].report();
            forgotten[0] = null;
            PovZelLogins.collect();
            session.execute("System collectGarbage");
            PovZelConverter converter = session.calls().converter();
            return converter.value(converter.perform(receiver, "size"));
        }));
    }

    // What the program forgot fills the memory, while Java has no reason to collect. Only a transfer is
    // made once more.
    @Test
    void aFullDatabaseGetsRoom() {
        byte[] bytes = new byte[12_000_000];
        List<PovZelObject> forgotten = new ArrayList<>();
        for (int i = 0; i < 13; i++) {
            forgotten.add(other.newBytes(bytes));
        }
        forgotten.clear();
        session.newBytes(new byte[4 * bytes.length]).close();
        for (int i = 0; i < 50; i++) {
            session.newBytes(bytes);
        }
        int failures = 0;
        for (int i = 0; i < 50; i++) {
            try {
                session.executeForObject("ByteArray new: 12000000");
            } catch (PovZelMemoryException e) {
                failures++;
            }
        }
        assertTrue(failures > 0 && failures < 10, failures + " found no room");
    }
}
