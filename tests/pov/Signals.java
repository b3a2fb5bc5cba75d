import java.util.concurrent.CyclicBarrier;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.function.IntSupplier;

// What signals_program.cpp has the VM do: faults that Java code may raise at any time.
final class Signals {
    private int field;

    private Signals() {
    }

    // A native that faults.
    static native int fault();

    // Counts the null checks that came back as exceptions.
    static int nullChecks(int count) {
        int caught = 0;
        for (int i = 0; i < count; i++) {
            try {
                // Never null to the eye of the compiler.
                Signals target = i < 0 ? new Signals() : null;
                caught += target.field;
            } catch (NullPointerException expected) {
                caught++;
            }
        }
        return caught;
    }

    private static int dive(int depth) {
        return dive(depth + 1) + 1;
    }

    // Counts the stack overflows that came back as errors.
    static int overflows(int count) {
        int caught = 0;
        for (int i = 0; i < count; i++) {
            try {
                caught += dive(0);
            } catch (StackOverflowError expected) {
                caught++;
            }
        }
        return caught;
    }

    static int inThreads(int threads, int checks, int overflows) throws InterruptedException {
        return sum(threads, () -> nullChecks(checks) + overflows(overflows));
    }

    static int faultInThreads(int threads) throws InterruptedException {
        return sum(threads, Signals::fault);
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
    private static int sum(int count, IntSupplier body) throws InterruptedException {
        CyclicBarrier ready = new CyclicBarrier(count);
        AtomicInteger sum = new AtomicInteger();
        Thread[] threads = new Thread[count];
        for (int i = 0; i < count; i++) {
            threads[i] = new Thread(() -> {
                try {
                    ready.await();
                } catch (Exception never) {
                    throw new IllegalStateException(never);
                }
                sum.addAndGet(body.getAsInt());
            });
            threads[i].start();
        }
        for (Thread thread : threads) {
            thread.join();
        }
        return sum.get();
    }
}
