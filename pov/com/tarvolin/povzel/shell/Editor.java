package com.tarvolin.povzel.shell;

import java.io.IOError;
import java.io.IOException;
import java.nio.file.Path;
import java.util.List;
import java.util.Map;
import java.util.function.Supplier;
import org.jline.keymap.KeyMap;
import org.jline.reader.Binding;
import org.jline.reader.Buffer;
import org.jline.reader.EndOfFileException;
import org.jline.reader.LineReader;
import org.jline.reader.Reference;
import org.jline.reader.UserInterruptException;
import org.jline.reader.impl.LineReaderImpl;
import org.jline.reader.impl.UndoTree;
import org.jline.terminal.Terminal;

/** Lines that are edited, with a history. A pasted block and Alt-Enter make one of several. */
final class Editor {
    private static final String PASTE = "\033[200~";
    private static final String PASTE_END = "\033[201~";
    private static final String PASTE_WIDGET = "paste";

    /** What xterm sends for keys in either of its modes, of which a terminal may tell one or none. */
    private static final Map<String, String> KEYS = Map.of(
            "A", LineReader.UP_LINE_OR_HISTORY, "B", LineReader.DOWN_LINE_OR_HISTORY,
            "C", LineReader.FORWARD_CHAR, "D", LineReader.BACKWARD_CHAR,
            "H", LineReader.BEGINNING_OF_LINE, "F", LineReader.END_OF_LINE);

    private final Screen terminal;
    private final Reader reader;
    private final Completion completion = new Completion();
    private final History history = new History();
    /** Where the history is kept; null if nowhere. */
    private Path file;

    /** Lines of a bounded length, of which no more is kept than that needs. */
    private static final class Reader extends LineReaderImpl {
        private static final int LONGEST = 1 << 15;
        private static final int LONGEST_UNDONE = 1000;

        /** Whether more was typed than a line may have. */
        private boolean full;

        Reader(Terminal terminal) throws IOException {
            super(terminal, "povzel");
            undo = new UndoTree<>(this::setBuffer) {
                @Override
                public void newState(Buffer state) {
                    // Each is a copy of the line.
                    if (state.length() <= LONGEST_UNDONE) {
                        super.newState(state);
                    }
                }
            };
        }

        @Override
        protected boolean selfInsert() {
            full |= buf.length() >= LONGEST;
            return !full && super.selfInsert();
        }

        /** Reads a line; null if it is longer than one may be. */
        String readBounded(String prompt) {
            full = false;
            // A sign of its own is doubled there.
            String line = readLine(prompt.replace("%", "%%"));
            return full ? null : line;
        }
    }

    Editor(Screen terminal) throws IOException {
        this.terminal = terminal;
        reader = new Reader(terminal);
        reader.setParser(completion);
        reader.setCompleter(completion);
        reader.setVariable(LineReader.SECONDARY_PROMPT_PATTERN, "....... ");
        // Texts may hold exclamation marks, and blanks matter to nobody.
        reader.setOpt(LineReader.Option.DISABLE_EVENT_EXPANSION);
        reader.unsetOpt(LineReader.Option.INSERT_TAB);
        reader.unsetOpt(LineReader.Option.HISTORY_INCREMENTAL);
        keepHistory();
        reader.getWidgets().put(PASTE_WIDGET, this::paste);
        KeyMap<Binding> keys = reader.getKeyMaps().get(LineReader.MAIN);
        keys.bind(new Reference(PASTE_WIDGET), PASTE);
        KEYS.forEach((key, widget) -> keys.bind(new Reference(widget), "\033[" + key, "\033O" + key));
        keys.bind(new Reference(LineReader.DELETE_CHAR), "\033[3~");
    }

    /** The conversation goes on without a file where there cannot be one. */
    private void keepHistory() {
        file = History.file();
        String obstacle = file == null ? null : History.obstacle(file);
        if (obstacle != null) {
            withoutHistory(obstacle);
        } else if (file != null) {
            reader.setVariable(LineReader.HISTORY_FILE, file);
        }
        reader.setHistory(history);
    }

    private void withoutHistory(String obstacle) {
        terminal.write("povzel: no history is kept in " + file + ": " + obstacle
                + ". Name another file with POVZEL_HISTORY\n");
        file = null;
    }

    /** Says which names there are to complete; asked for each time. */
    void setNames(Supplier<List<String>> names) {
        completion.setNames(names);
    }

    /** Notes what was entered. */
    void keep(String entry) {
        history.keep(entry);
        if (file != null) {
            try {
                history.saveTo(file);
            } catch (IOException e) {
                withoutHistory("it cannot be written");
            }
        }
    }

    /** Reads lines that were entered as one, with their end; null at the end of the input. */
    String readLine(String prompt) {
        try {
            terminal.edit();
            String line = reader.readBounded(prompt);
            if (line == null) {
                throw dropped("it has more than " + Reader.LONGEST + " characters");
            }
            if (Thread.interrupted()) {
                throw new UserInterruptException(line);
            }
            return line + "\n";
        } catch (OutOfMemoryError e) {
            throw dropped("Java's memory is full");
        } catch (EndOfFileException | IOError e) {
            // There is no more to come from a terminal that is gone.
            return null;
        } finally {
            // The reader does so as well, unless it fails; an interrupt of the line is not for what follows.
            terminal.listen();
            Thread.interrupted();
        }
    }

    private UserInterruptException dropped(String reason) {
        terminal.write("povzel: the line is dropped: " + reason + ". Load a file, or paste a block\n");
        return new UserInterruptException("");
    }

    /** Takes what the terminal says was pasted as it is: the user enters it. */
    private boolean paste() {
        StringBuilder text = new StringBuilder();
        int last = 0;
        while (text.indexOf(PASTE_END, text.length() - PASTE_END.length()) < 0) {
            int c = reader.readCharacter();
            if (c < 0) {
                return false;
            }
            if (c != '\n' || last != '\r') {
                text.appendCodePoint(c == '\r' ? '\n' : c);
            }
            last = c;
        }
        text.setLength(text.length() - PASTE_END.length());
        reader.getBuffer().write(text);
        return true;
    }
}
