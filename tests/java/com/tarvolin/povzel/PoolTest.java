package com.tarvolin.povzel;

import static org.junit.jupiter.api.Assertions.*;

import java.time.*;
import java.util.*;
import java.util.concurrent.*;
import java.util.logging.*;
import org.junit.jupiter.api.*;

// Pools, and sessions that the program forgot.
class PoolTest {
    private static final char[] PASSWORD = "swordfish".toCharArray();
    private static final Logger LOG = Logger.getLogger("com.tarvolin.povzel");

    private final PovZelSession watch = PovZelSession.login("DataCurator", PASSWORD);
    private final BlockingQueue<LogRecord> warnings = new LinkedBlockingQueue<>();
    private Thread taker;

    PoolTest() {
        LOG.setFilter(warning -> {
            throw new IllegalStateException("from a program's filter: " + warnings.add(warning));
        });
    }

    @AfterEach
    void logOut() {
        LOG.setFilter(null);
        assertEquals(1L, watch.execute("System sessionCount"));
        watch.close();
    }

    private static PovZelPool.Builder builder() {
        return PovZelPool.builder("", "DataCurator", PASSWORD).size(1);
    }

    // Takes a session on a thread of its own; returns when that waits or has it.
    private Future<PovZelSession> taking(PovZelPool pool) throws Exception {
        FutureTask<PovZelSession> session = new FutureTask<>(pool::session);
        taker = new Thread(session);
        taker.start();
        while (taker.getState() != Thread.State.TIMED_WAITING) {
            Thread.onSpinWait();
        }
        return session;
    }

    private void whileBusy(Runnable work) {
        FutureTask<?> running = new FutureTask<>(() -> watch.execute("[true] whileTrue"));
        new Thread(running).start();
        while (PovZelLibrary.LOCK.turns() == 0) {
            Thread.onSpinWait();
        }
        try {
            work.run();
        } finally {
            assertTrue(watch.cancel());
        }
        assertInstanceOf(PovZelCancelledException.class, failure(running));
    }

    private static Throwable failure(Future<?> call) {
        return assertThrows(ExecutionException.class, () -> call.get(60, TimeUnit.SECONDS)).getCause();
    }

    // The warning that a forgotten session brings.
    private LogRecord warning() throws InterruptedException {
        while (warnings.isEmpty()) {
            System.gc();
            Thread.onSpinWait();
        }
        return warnings.take();
    }

    private static boolean tellsOf(String method, Throwable place) {
        return Arrays.stream(place.getStackTrace()).anyMatch(each -> each.getMethodName().equals(method));
    }

    @Test
    void nothingOfASessionIsLeftToTheNext() {
        try (PovZelPool pool = builder().maxWait(Duration.ofMillis(1)).build()) {
            PovZelSession first = pool.session();
            PovZelObject array = first.executeForObject("left := 2. Globals at: #Left put: (Array new: 1)");
            first.truncateTimes(true);
            first.onChange(object -> fail("told of another's changes"));
            first.setTimeout(Duration.ofNanos(1));
            Throwable late = assertThrows(PovZelTimeoutException.class, pool::session);
            assertTrue(tellsOf("nothingOfASessionIsLeftToTheNext", late.getSuppressed()[0]));
            first.close();
            try (PovZelSession next = pool.session()) {
                first.close();
                assertFalse(next.needsCommit() || first.cancel() || first.isValid(null));
                SessionTest.allThrow(IllegalStateException.class, () -> first.execute("3"),
                        () -> first.truncateTimes(false),
                        () -> array.perform("size"));
                for (String text : List.of("left", "Left")) {
                    assertThrows(PovZelException.class, () -> next.execute(text), text);
                }
                next.executeForObject("Late := Array new: 1").perform("at:put:", 1, 2);
                next.pollChanges();
                assertThrows(IllegalArgumentException.class, () ->
                        next.perform(LocalDateTime.of(2024, 2, 29, 0, 0, 0, 1), "yourself"));
                assertThrows(PovZelTimeoutException.class, pool::session, "a second close gave a place");
            }
        }
    }

    @Test
    void thoseWhoWaitGetSessionsInTheirOrder() throws Exception {
        PovZelPool pool = builder().build();
        PovZelSession out = pool.session();
        Future<PovZelSession> interrupted = taking(pool);
        taker.interrupt();
        assertInstanceOf(PovZelCancelledException.class, failure(interrupted));
        Future<PovZelSession> early = taking(pool);
        List<Future<PovZelSession>> late = List.of(taking(pool), taking(pool));

        // Giving back waits for no call.
        whileBusy(() -> assertTimeout(Duration.ofSeconds(1), out::close));
        PovZelSession session = early.get(60, TimeUnit.SECONDS);
        assertFalse(late.get(0).isDone() || late.get(1).isDone());
        pool.close();
        late.forEach(each -> assertInstanceOf(IllegalStateException.class, failure(each)));
        assertThrows(IllegalStateException.class, pool::session);
        assertEquals(7L, session.execute("3 + 4"), "what is out goes on");
        session.close();
        pool.close();
    }

    @Test
    void sessionsThatDiedAreReplaced() {
        try (PovZelPool pool = builder().validateAfter(Duration.ZERO).build()) {
            PovZelSession first = pool.session();
            first.close();
            assertEquals(0, PovZelInterface._logout(first.id() + 1, null), "the one that waits");
            PovZelSession next = pool.session();
            assertEquals(7L, next.execute("3 + 4"));
            assertEquals(0, PovZelInterface._logout(next.id(), null));
            assertThrows(PovZelException.class, next::close);
            pool.session().close();
        }
    }

    // That says nothing of the session that waits, nor of those that are taken.
    @Test
    void aBusyLibraryEndsNoSession() {
        try (PovZelPool pool = builder().size(2).maxWait(Duration.ofMillis(50)).validateAfter(Duration.ZERO)
                .build(); PovZelSession taken = pool.session()) {
            PovZelSession first = pool.session();
            first.close();
            whileBusy(() -> {
                Throwable late = assertThrows(PovZelTimeoutException.class, pool::session);
                assertTrue(late.getMessage().contains("busy") && late.getSuppressed().length == 1);
            });
            try (PovZelSession next = pool.session()) {
                assertEquals(first.id() + 1, next.id(), "the one that waited");
                whileBusy(taken::close);
                whileBusy(() -> assertTrue(assertThrows(PovZelTimeoutException.class, pool::session)
                        .getMessage().contains("busy"), "at the login"));
            }
        }
    }

    // There is room for 64, and Java has no reason to collect.
    @Test
    void forgottenSessionsAreLoggedOutAndTheirPlacesTold() throws Exception {
        for (int i = 0; i < 200; i++) {
            PovZelSession.login("DataCurator", "swordfish");
        }
        LogRecord login = warning();
        for (int i = 1; i < 200; i++) {
            warning();
        }
        try (PovZelPool pool = builder().maxWait(Duration.ofMillis(100)).build()) {
            pool.session().execute("3");
            pool.session().close();
            LogRecord leak = warning();
            for (LogRecord each : List.of(login, leak)) {
                assertTrue(each.getLevel() == Level.WARNING && tellsOf("forgottenSessionsAreLoggedOutAndTheirPlacesTold", each.getThrown()));
            }
            assertTrue(leak.getMessage().contains("pool") && !login.getMessage().contains("pool"));
        }
    }
}
