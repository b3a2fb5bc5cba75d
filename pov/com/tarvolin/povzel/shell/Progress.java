package com.tarvolin.povzel.shell;

import java.util.Timer;
import java.util.TimerTask;

/** Tells the user how long something runs that runs long, until it is closed. */
final class Progress extends TimerTask implements AutoCloseable {
    private static final long SECOND = 1000;
    private static final int FIRST = 2;
    private static final Timer TIMER = new Timer("povzel progress", true);

    private final Console console;
    private int seconds = FIRST;
    private boolean ended;

    private Progress(Console console) {
        this.console = console;
    }

    static Progress on(Console console, boolean wanted) {
        Progress progress = new Progress(console);
        if (wanted) {
            TIMER.schedule(progress, FIRST * SECOND, SECOND);
        }
        return progress;
    }

    @Override
    public synchronized void run() {
        if (!ended) {
            console.showStatus("running for " + seconds++ + " s; Ctrl-C interrupts it");
        }
    }

    @Override
    public synchronized void close() {
        ended = true;
        cancel();
        if (seconds > FIRST) {
            console.clearStatus();
        }
    }
}
