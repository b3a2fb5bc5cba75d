package com.tarvolin.povzel.shell;

import java.io.Closeable;
import java.io.File;
import java.io.FileInputStream;
import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.nio.charset.StandardCharsets;
import java.util.Arrays;
import java.util.List;
import java.util.function.Supplier;
import java.util.logging.Level;
import java.util.logging.Logger;
import java.util.regex.Pattern;
import org.jline.reader.UserInterruptException;
import org.jline.terminal.Attributes;
import org.jline.terminal.Attributes.LocalFlag;
import org.jline.terminal.Size;
import org.jline.terminal.Terminal;
import org.jline.utils.InfoCmp;
import org.jline.utils.InfoCmp.Capability;

/** The user's terminal: lines, which can be edited if it can move its cursor, and passwords. */
final class Console implements Closeable {
    private static final String PAGER = "less -RFX";
    private static final boolean PAGED = Boolean.getBoolean("povzel.paged");
    private static final int UNKNOWN_PROGRAM = 127;
    private static final int INTERRUPTED = 128 + 2;
    /** A terminal that can do nothing, and the one that most others are like. */
    private static final String LEAST = "dumb";
    private static final String USUAL = "xterm";
    private static final Pattern CAPABILITIES = Pattern.compile("\n[ \t]");

    /** The line reader's log, whose entries are traces of Java. A logger lives as long as it is kept. */
    private static final Logger LOG = Logger.getLogger("org.jline");

    private final Screen terminal;
    /** Without a buffer: nothing of a password stays behind. */
    private final InputStream device;
    private final Editor editor;
    private volatile Runnable interruption = () -> System.exit(INTERRUPTED);
    /** Without an editor: whether a line is being typed, and whether Ctrl-C dropped what was before it. */
    private volatile boolean typing;
    private volatile boolean dropped;
    private volatile String firstPrompt = "";
    private byte[] kept;
    private boolean told;

    Console() throws IOException {
        LOG.setLevel(Level.OFF);
        terminal = new Screen(type());
        terminal.onInterrupt(this::interrupt);
        device = new FileInputStream(Screen.DEVICE);
        editor = terminal.getStringCapability(Capability.cursor_left) == null ? null : new Editor(terminal);
    }

    /** The kind of terminal, of which something is known. */
    private static String type() throws IOException {
        String named = System.getenv("TERM");
        if (named == null || named.isEmpty() || named.equals(LEAST)) {
            return LEAST;
        }
        try {
            // What is no description has no indented line of capabilities.
            return CAPABILITIES.matcher(InfoCmp.getInfoCmp(named)).find() ? named : USUAL;
        } catch (IOException e) {
            return USUAL;
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
            throw new IOException("interrupted", e);
        }
    }

    /** Says what Ctrl-C does while no line is read; at first it ends the process. */
    void onInterrupt(Runnable interruption) {
        this.interruption = interruption;
    }

    private void interrupt() {
        if (typing) {
            // The terminal itself has dropped the line.
            dropped = true;
            terminal.write("\n" + firstPrompt);
        } else {
            interruption.run();
        }
    }

    /** Shows a line in the place of the last one, if the terminal can do that, and only the first otherwise. */
    void showStatus(String line) {
        if (editor != null) {
            terminal.write("\r" + line);
        } else if (!told) {
            print(line);
        }
        told = true;
    }

    void clearStatus() {
        told = false;
        if (editor != null) {
            terminal.puts(Capability.carriage_return);
            terminal.puts(Capability.clr_eol);
            terminal.flush();
        }
    }

    /** Says which names there are to complete; asked for each time. */
    void setNames(Supplier<List<String>> names) {
        if (editor != null) {
            editor.setNames(names);
        }
    }

    /** Notes what was entered, for the user to come back to. */
    void keep(String entry) {
        if (editor != null) {
            editor.keep(entry);
        }
    }

    /** Shows lines that may be more than the screen has; answers whether they were, and the user saw them. */
    boolean page(String text) {
        String pager = System.getenv().getOrDefault("PAGER", PAGER);
        if (pager.isBlank() || !PAGED || fits(text)) {
            return false;
        }
        try {
            terminal.leave();
            Process process = new ProcessBuilder("sh", "-c", pager).redirectOutput(new File(Screen.DEVICE))
                    .redirectError(new File(Screen.DEVICE)).start();
            try (OutputStream to = process.getOutputStream()) {
                to.write(text.getBytes(StandardCharsets.UTF_8));
            } catch (IOException e) {
                // The user has seen enough, or the pager's status tells.
            }
            int status = process.waitFor();
            if (status > 0 && status < UNKNOWN_PROGRAM - 1) {
                print("povzel: the pager failed: " + pager + " ended with " + status);
            }
            return status == 0 || status > UNKNOWN_PROGRAM;
        } catch (IOException e) {
            return false;
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
            return true;
        }
    }

    private boolean fits(String text) {
        Size size = terminal.getSize();
        int rows = 0;
        for (int at = 0; at < text.length() && rows < size.getRows(); rows++) {
            int end = text.indexOf('\n', at);
            int length = (end < 0 ? text.length() : end) - at;
            rows += Math.max(0, length - 1) / size.getColumns();
            at += length + 1;
        }
        return rows < size.getRows();
    }

    /** Reads a password, for the caller to clear, or null when the user declines. */
    char[] readPassword(String prompt) throws IOException {
        Attributes shown = terminal.getAttributes();
        Attributes hidden = new Attributes(shown);
        hidden.setLocalFlag(LocalFlag.ECHO, false);
        terminal.setAttributes(hidden);
        // The user's shell sets what it likes while this one is stopped.
        Terminal.SignalHandler usual = terminal.handle(Terminal.Signal.CONT, signal -> {
            terminal.setAttributes(hidden);
            terminal.write(prompt);
        });
        try {
            terminal.write(prompt);
            byte[] line = readBytes();
            return line == null ? null : Passwords.firstLine(line, line.length);
        } finally {
            terminal.handle(Terminal.Signal.CONT, usual);
            terminal.setAttributes(shown);
            // Neither is the end of the line shown.
            print("");
        }
    }

    /**
     * Reads a line with its end, in UTF-8 if the terminal sends that; null at the end of the input.
     *
     * @throws UserInterruptException if the user drops it and what it goes on with
     */
    byte[] readLine(String prompt, boolean goesOn) {
        if (editor == null) {
            return readPlainly(prompt, goesOn);
        }
        String line = editor.readLine(prompt);
        return line == null ? null : line.getBytes(StandardCharsets.UTF_8);
    }

    private byte[] readPlainly(String prompt, boolean goesOn) {
        byte[] line = kept;
        kept = null;
        if (line != null) {
            return line;
        }
        firstPrompt = goesOn ? firstPrompt : prompt;
        dropped = false;
        typing = true;
        terminal.write(prompt);
        line = readBytes();
        typing = false;
        if (dropped && goesOn) {
            kept = line;
            throw new UserInterruptException("");
        }
        return line;
    }

    private byte[] readBytes() {
        byte[] bytes = new byte[Passwords.LONGEST];
        int size = 0;
        try {
            int next;
            do {
                next = device.read();
                if (next >= 0) {
                    bytes = size < bytes.length ? bytes : moved(bytes, size, 2 * size);
                    bytes[size++] = (byte) next;
                }
            } while (next >= 0 && next != '\n');
        } catch (IOException e) {
            // There is no more to come from a terminal that is gone.
            size = 0;
        }
        return size == 0 ? null : moved(bytes, size, size);
    }

    /** The first bytes in an array of another length; they may be a password's, and stay nowhere else. */
    private static byte[] moved(byte[] bytes, int size, int length) {
        byte[] moved = Arrays.copyOf(bytes, length);
        Arrays.fill(bytes, 0, size, (byte) 0);
        return moved;
    }

    void print(String text) {
        terminal.write(text + "\n");
    }

    @Override
    public void close() {
        terminal.close();
    }
}
