package com.tarvolin.povzel.shell;

import java.io.IOError;
import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.util.EnumSet;
import org.jline.terminal.Attributes;
import org.jline.terminal.Attributes.ControlChar;
import org.jline.terminal.Attributes.InputFlag;
import org.jline.terminal.Attributes.LocalFlag;
import org.jline.terminal.Size;
import org.jline.terminal.impl.ExecPty;
import org.jline.terminal.impl.PosixSysTerminal;
import org.jline.utils.InfoCmp.Capability;

/**
 * The terminal, which stays as editing needs it from the first line to the end. The program that sets it
 * takes part in the user's interrupts, and so none is started for each prompt.
 */
final class Screen extends PosixSysTerminal {
    static final String DEVICE = "/dev/tty";
    private static final int COLUMNS = 80;
    private static final int ROWS = 24;
    private static final String PASTES_TOLD = "\033[?2004h";
    private static final String PASTES_UNTOLD = "\033[?2004l";

    private final Device device;
    private volatile Runnable interruption = () -> { };
    private boolean editing;

    /** Work that a program does. */
    private interface Work<T> {
        T done() throws IOException;
    }

    /** The terminal itself, wherever the standard descriptors lead, and what is known of it. */
    private static final class Device extends ExecPty {
        private static final int MOST_TRIES = 10;

        private Attributes attributes;
        private Size size;

        Device() {
            super(DEVICE, false);
        }

        @Override
        public synchronized Attributes getAttr() throws IOException {
            if (attributes == null) {
                attributes = patiently(super::getAttr);
            }
            return new Attributes(attributes);
        }

        @Override
        public synchronized void setAttr(Attributes wanted) throws IOException {
            patiently(() -> {
                super.setAttr(wanted);
                return wanted;
            });
            attributes = new Attributes(wanted);
        }

        /** A terminal that nobody gave a size has the usual one. */
        @Override
        public synchronized Size getSize() throws IOException {
            if (size == null) {
                Size told = patiently(super::getSize);
                size = told.getColumns() > 0 && told.getRows() > 0 ? told : new Size(COLUMNS, ROWS);
            }
            return new Size(size.getColumns(), size.getRows());
        }

        synchronized void forget() {
            attributes = null;
            size = null;
        }

        /** An interrupt that ends the program is not meant for it. */
        private static <T> T patiently(Work<T> work) throws IOException {
            boolean interrupted = false;
            try {
                for (int tries = 1;; tries++) {
                    interrupted |= Thread.interrupted();
                    try {
                        return work.done();
                    } catch (IOException e) {
                        if (tries == MOST_TRIES) {
                            throw e;
                        }
                    }
                }
            } finally {
                if (interrupted) {
                    Thread.currentThread().interrupt();
                }
            }
        }
    }

    Screen(String type) throws IOException {
        this(type, new Device());
    }

    private Screen(String type, Device device) throws IOException {
        super("povzel", type, device, StandardCharsets.UTF_8.name(), false, SignalHandler.SIG_DFL);
        this.device = device;
    }

    /** Says what an interrupt does from now on, while no line is edited. */
    void onInterrupt(Runnable interruption) {
        this.interruption = interruption;
        listen();
    }

    /** Takes signals again that the editing of a line took. */
    void listen() {
        handle(Signal.INT, signal -> interruption.run());
        handle(Signal.CONT, signal -> { });
        handle(Signal.WINCH, signal -> { });
    }

    /** Gives each key as it is pressed, and says what is pasted, until it is left. */
    synchronized void edit() {
        if (!editing) {
            device.forget();
            enterRawMode();
            write(PASTES_TOLD);
            editing = true;
        }
    }

    /** Leaves the terminal to another program, as it was at first. */
    synchronized void leave() {
        if (editing) {
            editing = false;
            write(PASTES_UNTOLD);
            setAttributes(originalAttributes);
        }
    }

    /** What is shown can be halted as the user is used to. */
    @Override
    public Attributes enterRawMode() {
        Attributes before = getAttributes();
        Attributes raw = new Attributes(before);
        raw.setLocalFlags(EnumSet.of(LocalFlag.ICANON, LocalFlag.ECHO, LocalFlag.IEXTEN), false);
        raw.setInputFlags(EnumSet.of(InputFlag.ICRNL, InputFlag.INLCR), false);
        raw.setControlChar(ControlChar.VMIN, 1);
        raw.setControlChar(ControlChar.VTIME, 0);
        setAttributes(raw);
        return before;
    }

    /** The user's shell sets what it likes while this one is stopped. */
    @Override
    public void raise(Signal signal) {
        try {
            if (signal == Signal.WINCH || signal == Signal.CONT) {
                device.forget();
            }
            if (signal == Signal.CONT) {
                resume();
            }
            super.raise(signal);
        } catch (IOError e) {
            // Who reads from a terminal that is gone finds out.
        }
    }

    private synchronized void resume() {
        if (editing) {
            editing = false;
            edit();
        }
    }

    void write(String text) {
        writer().print(text);
        writer().flush();
    }

    /** Also when a signal ends the process. */
    @Override
    public void close() {
        if (editing) {
            write(PASTES_UNTOLD);
            puts(Capability.keypad_local);
            flush();
        }
        try {
            super.close();
        } catch (IOException e) {
            // It is gone.
        }
    }
}
