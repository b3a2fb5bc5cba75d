package com.tarvolin.povzel.shell;

import java.io.IOError;
import java.io.IOException;
import java.nio.file.Path;
import java.util.List;
import java.util.Map;
import java.util.function.Supplier;
import org.jline.keymap.KeyMap;
import org.jline.reader.Binding;
import org.jline.reader.EndOfFileException;
import org.jline.reader.LineReader;
import org.jline.reader.Reference;
import org.jline.reader.UserInterruptException;
import org.jline.reader.impl.LineReaderImpl;

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
    private final LineReaderImpl reader;
    private final Completion completion = new Completion();
    private final History history = new History();

    Editor(Screen terminal) throws IOException {
        this.terminal = terminal;
        reader = new LineReaderImpl(terminal, "povzel");
        reader.setParser(completion);
        reader.setCompleter(completion);
        reader.setVariable(LineReader.SECONDARY_PROMPT_PATTERN, "....... ");
        // Texts may hold exclamation marks, and blanks matter to nobody.
        reader.setOpt(LineReader.Option.DISABLE_EVENT_EXPANSION);
        reader.unsetOpt(LineReader.Option.INSERT_TAB);
        keepHistory();
        reader.getWidgets().put(PASTE_WIDGET, this::paste);
        KeyMap<Binding> keys = reader.getKeyMaps().get(LineReader.MAIN);
        keys.bind(new Reference(PASTE_WIDGET), PASTE);
        KEYS.forEach((key, widget) -> keys.bind(new Reference(widget), "\033[" + key, "\033O" + key));
        keys.bind(new Reference(LineReader.DELETE_CHAR), "\033[3~");
    }

    /** The conversation goes on without a file where there cannot be one. */
    private void keepHistory() {
        Path file = History.file();
        String obstacle = file == null ? null : History.obstacle(file);
        if (obstacle != null) {
            terminal.write("povzel: no history is kept in " + file + ": " + obstacle
                    + ". Name another file with POVZEL_HISTORY\n");
        } else if (file != null) {
            reader.setVariable(LineReader.HISTORY_FILE, file);
        }
        reader.setHistory(history);
    }

    /** Says which names there are to complete; asked for each time. */
    void setNames(Supplier<List<String>> names) {
        completion.setNames(names);
    }

    /** Notes what was entered. */
    void keep(String entry) {
        history.keep(entry);
    }

    /** Reads lines that were entered as one, with their end; null at the end of the input. */
    String readLine(String prompt) {
        try {
            terminal.edit();
            String line = reader.readLine(prompt);
            if (Thread.interrupted()) {
                throw new UserInterruptException(line);
            }
            return line + "\n";
        } catch (EndOfFileException | IOError e) {
            // There is no more to come from a terminal that is gone.
            return null;
        } finally {
            // The reader does so as well, unless it fails; an interrupt of the line is not for what follows.
            terminal.listen();
            Thread.interrupted();
        }
    }

    /** Takes what the terminal says was pasted as it is: the user enters it. */
    private boolean paste() {
        StringBuilder text = new StringBuilder();
        while (text.indexOf(PASTE_END, text.length() - PASTE_END.length()) < 0) {
            int c = reader.readCharacter();
            if (c < 0) {
                return false;
            }
            text.appendCodePoint(c == '\r' ? '\n' : c);
        }
        text.setLength(text.length() - PASTE_END.length());
        reader.getBuffer().write(text);
        return true;
    }
}
