package com.tarvolin.povzel.shell;

import java.io.Closeable;
import java.io.IOError;
import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import org.jline.reader.EOFError;
import org.jline.reader.EndOfFileException;
import org.jline.reader.LineReader;
import org.jline.reader.LineReaderBuilder;
import org.jline.reader.ParsedLine;
import org.jline.reader.UserInterruptException;
import org.jline.reader.impl.DefaultParser;
import org.jline.terminal.Terminal;
import org.jline.terminal.impl.ExecPty;
import org.jline.terminal.impl.PosixSysTerminal;

/** The user's terminal: line editing, history, and passwords that are not shown. */
final class Console implements Closeable {
    private static final String DEVICE = "/dev/tty";
    private static final int MOST_FAILURES = 3;

    private final Terminal terminal;
    private LineReader reader;
    private int failures;

    /** The terminal itself, wherever the standard descriptors lead. */
    private static final class Device extends ExecPty {
        Device() {
            super(DEVICE, false);
        }
    }

    /** Asks for another line while something is open. */
    private static final class TextParser extends DefaultParser {
        @Override
        public ParsedLine parse(String line, int cursor, ParseContext context) {
            if (context == ParseContext.ACCEPT_LINE && !Text.isComplete(line)) {
                throw new EOFError(-1, -1, "The text is not complete");
            }
            return super.parse(line, cursor, context);
        }
    }

    Console() throws IOException {
        String type = System.getenv().getOrDefault("TERM", "dumb");
        terminal = new PosixSysTerminal("povzel", type, new Device(), StandardCharsets.UTF_8.name(), true,
                Terminal.SignalHandler.SIG_DFL);
    }

    /** Reads a password, or null when the user declines. */
    String readPassword(String prompt) {
        LineReader unseen = LineReaderBuilder.builder().terminal(terminal)
                .variable(LineReader.DISABLE_HISTORY, true).build();
        try {
            return unseen.readLine(prompt, '\0');
        } catch (EndOfFileException | UserInterruptException e) {
            return null;
        } finally {
            // Neither is the end of the line shown.
            print("");
        }
    }

    /** Reads a text, null at the end of the input; one that the user interrupts is empty. */
    String readText(String prompt) {
        try {
            String text = reader().readLine(prompt);
            failures = 0;
            return text;
        } catch (UserInterruptException e) {
            return "";
        } catch (EndOfFileException e) {
            return null;
        } catch (IOError e) {
            // An interrupt also ends the stty that prepares the terminal. Lasting trouble is another thing.
            if (++failures > MOST_FAILURES) {
                throw e;
            }
            Thread.interrupted();
            return "";
        }
    }

    void print(String text) {
        terminal.writer().println(text);
        terminal.writer().flush();
    }

    private LineReader reader() {
        if (reader == null) {
            TextParser parser = new TextParser();
            parser.setQuoteChars(new char[0]);
            parser.setEscapeChars(new char[0]);
            reader = LineReaderBuilder.builder().terminal(terminal).appName("povzel").parser(parser)
                    .variable(LineReader.HISTORY_FILE, historyFile())
                    .variable(LineReader.SECONDARY_PROMPT_PATTERN, "....... ").build();
            // Texts may hold exclamation marks, and blanks matter to nobody.
            reader.setOpt(LineReader.Option.DISABLE_EVENT_EXPANSION);
            reader.unsetOpt(LineReader.Option.INSERT_TAB);
        }
        return reader;
    }

    private static Path historyFile() {
        String named = System.getenv("POVZEL_HISTORY");
        return named != null && !named.isEmpty() ? Path.of(named)
                : Path.of(System.getProperty("user.home"), ".povzel_history");
    }

    @Override
    public void close() throws IOException {
        terminal.close();
    }
}
