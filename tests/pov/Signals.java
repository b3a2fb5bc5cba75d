import java.util.concurrent.CountDownLatch;
import java.util.concurrent.atomic.AtomicInteger;

/** What signals_program.cpp has the VM do: faults that Java code may raise at any time. */
final class Signals {
    private int field;

    private Signals() {}

    /** A native that faults. */
    static native void fault();

    /** Counts the null checks that came back as exceptions. */
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

    /** Counts the stack overflows that came back as errors. */
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

    /** Runs `nullChecks` and `overflows` in several threads at once and adds up their results. */
    static int inThreads(int threads, int checks, int overflows) throws InterruptedException {
        AtomicInteger caught = new AtomicInteger();
        run(threads, () -> caught.addAndGet(nullChecks(checks) + overflows(overflows)));
        return caught.get();
    }

    /** Calls the native in several threads at once. */
    static void faultInThreads(int threads) throws InterruptedException {
        run(threads, Signals::fault);
    }

    static void printAtShutdown() {
        Runtime.getRuntime().addShutdownHook(new Thread(() -> System.out.println("shutdown hook")));
    }

    static void exit(int status) {
        System.exit(status);
    }

    private static void run(int count, Runnable body) throws InterruptedException {
        CountDownLatch ready = new CountDownLatch(count);
        Thread[] threads = new Thread[count];
        for (int i = 0; i < count; i++) {
            threads[i] = new Thread(() -> {
                ready.countDown();
                try {
                    ready.await();
                } catch (InterruptedException never) {
                    throw new IllegalStateException(never);
                }
                body.run();
            });
            threads[i].start();
        }
        for (Thread thread : threads) thread.join();
    }
}
