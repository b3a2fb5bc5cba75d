import java.util.Collections;
import java.util.concurrent.*;

// What signals_program.cpp has the VM do: faults that Java code may raise at any time.
final class Signals {
    // Never set, of which the compiler cannot be sure.
    private static Signals none;

    private int field;

    private Signals() {
    }

    // Natives: 0 faults; 1 makes a thread ready for faults and 2 works, and both return 1.
    static native int call(int number);

    private static int dive(int depth) {
        return dive(depth + 1) + 1;
    }

    // Counts the null checks and the stack overflows that came back as what they are in Java.
    static int faults(int checks, int overflows) {
        int caught = 0;
        for (int i = 0; i < checks + overflows; i++) {
            try {
                caught += i < checks ? none.field : dive(0);
            } catch (NullPointerException | StackOverflowError expected) {
                caught++;
            }
        }
        return caught;
    }

    static int faultsInThreads(int threads, int checks, int overflows) throws Exception {
        return sum(threads, () -> faults(checks, overflows));
    }

    static int nativeFaultInThreads(int threads) throws Exception {
        return sum(threads, () -> call(0));
    }

    // Counts what goes wrong.
    static int storm(int seconds) throws Exception {
        long end = System.nanoTime() + seconds * 1_000_000_000L;
        ProcessBuilder program = new ProcessBuilder("sh", "-c", "exit 7");
        return sum(8, () -> {
            int wrong = 0;
            while (System.nanoTime() < end) {
                boolean right = faults(50, 5) == 55 && call(2) == 1 && program.start().waitFor() == 7;
                wrong += right ? 0 : 1;
            }
            return wrong;
        });
    }

    static int printAtShutdown() {
        Runtime.getRuntime().addShutdownHook(new Thread(() -> System.out.println("shutdown hook")));
        return 0;
    }

    static int exit(int status) {
        System.exit(status);
        return 0;
    }

    // Runs `body` in several threads at once and adds up their results.
    private static int sum(int count, Callable<Integer> body) throws Exception {
        CyclicBarrier ready = new CyclicBarrier(count);
        Callable<Integer> together = () -> {
            ready.await();
            return call(1) * body.call();
        };
        ExecutorService threads = Executors.newFixedThreadPool(count);
        int sum = 0;
        for (Future<Integer> result : threads.invokeAll(Collections.nCopies(count, together))) {
            sum += result.get();
        }
        return sum;
    }
}
