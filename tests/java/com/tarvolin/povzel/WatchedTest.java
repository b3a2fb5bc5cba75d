package com.tarvolin.povzel;

import static org.junit.jupiter.api.Assertions.*;

import java.io.IOException;
import java.nio.file.*;
import java.util.*;
import java.util.concurrent.atomic.AtomicInteger;
import org.junit.jupiter.api.*;

// What reaches the interface library, and how often, when one of its calls fails.
class WatchedTest {
    private static final Path CALLS = Path.of(System.getenv("POVZEL_WATCH"));
    private static final Path FAILING = Path.of(CALLS + ".fail");

    private PovZelSession session;

    @BeforeEach
    void logIn() {
        session = PovZelSession.login("DataCurator", "swordfish");
    }

    @AfterEach
    void logOut() {
        session.close();
    }

    private static void begin(String failing) throws IOException {
        Files.writeString(FAILING, failing);
        Files.deleteIfExists(CALLS);
    }

    // Which of them there were since then, in their order.
    private static List<String> calls(String... of) throws IOException {
        List<String> calls = new ArrayList<>(Files.readAllLines(CALLS));
        calls.retainAll(List.of(of));
        return calls;
    }

    @Test
    void nothingThatRunsAProgramIsMadeTwice() throws IOException {
        PovZelObject array = session.newArray(Arrays.asList("a", "b"));
        begin("ExecuteStr 2208");
        assertThrows(PovZelMemoryException.class, () -> session.execute("3 + 4"));
        assertEquals(List.of("ExecuteStr"), calls("ExecuteStr"));
        begin("Perform 2208");
        assertThrows(PovZelMemoryException.class, () -> array.perform("reversed"));
        assertEquals(List.of("Perform reversed"), calls("Perform reversed"));
        begin("Perform 6003");
        assertEquals(6003, assertThrows(PovZelException.class, () -> array.perform("yourself")).getNumber());
        assertEquals(List.of("Perform yourself"), calls("Perform yourself"));
    }

    @Test
    void transfersAreRepeatedOnceThereIsRoom() throws IOException {
        String text = "x".repeat(100_000);
        begin("FetchBytes 2208");
        assertEquals(text, session.execute("| s | s := String new. 100000 timesRepeat: [s add: $x]. s"));
        assertEquals(List.of("ExecuteStr"), calls("ExecuteStr"));
        assertTrue(Files.notExists(FAILING), "the failure was met");
    }

    @Test
    void commitsAndAbortsGoThroughTheTable() throws Exception {
        session.needsCommit();
        begin("Commit 2513");
        assertThrows(PovZelConflictException.class, session::commit);
        session.abort();
        session.commit();
        assertEquals(List.of("Commit", "Abort", "Commit"), calls("Commit", "Abort", "ExecuteStr"));

        AtomicInteger runs = new AtomicInteger();
        begin("Commit 2513");
        assertEquals(2, session.transaction(3, () -> runs.incrementAndGet()));
        assertEquals(List.of("Commit", "Abort", "Commit"), calls("Commit", "Abort", "ExecuteStr"));
    }
}
