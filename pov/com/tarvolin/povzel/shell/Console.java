package com.tarvolin.povzel.shell;

import java.io.Closeable;
import java.io.IOError;
import java.io.IOException;
import java.nio.charset.CharacterCodingException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.logging.Level;
import java.util.logging.Logger;
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
    /** What users name as the history when they want none. */
    private static final Path NOWHERE = Path.of("/dev/null");

    /** The line reader's log, whose entries are traces of Java. A logger lives as long as it is kept. */
    private static final Logger LOG = Logger.getLogger("org.jline");

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
        LOG.setLevel(Level.OFF);
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
            LineReaderBuilder builder = LineReaderBuilder.builder().terminal(terminal)
                    .appName("povzel").parser(parser)
                    .variable(LineReader.SECONDARY_PROMPT_PATTERN, "....... ");
            keepHistory(builder, historyFile());
            reader = builder.build();
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

    /** The conversation goes on without a history where there cannot be one. */
    private void keepHistory(LineReaderBuilder builder, Path file) {
        String obstacle = obstacle(file);
        if (obstacle == null) {
            builder.variable(LineReader.HISTORY_FILE, file);
        } else {
            print("povzel: no history is kept in " + file + ": " + obstacle
                    + "\nName another file with POVZEL_HISTORY");
        }
    }

    /** What the line reader would fail at; null if nothing. */
    private static String obstacle(Path file) {
        try {
            if (!Files.exists(file)) {
                Path folder = Files.createDirectories(file.toAbsolutePath().getParent());
                return Files.isWritable(folder) ? null : "its folder cannot be written";
            }
            if (file.equals(NOWHERE)) {
                return null;
            }
            if (!Files.isRegularFile(file)) {
                return Files.isDirectory(file) ? "it is a folder" : "it is not a regular file";
            }
            if (!Files.isReadable(file) || !Files.isWritable(file)) {
                return "it cannot be read and written";
            }
            Files.readString(file);
            return null;
        } catch (CharacterCodingException e) {
            return "it holds what is no UTF-8";
        } catch (IOException e) {
            return "its folder cannot be made";
        }
    }

    @Override
    public void close() throws IOException {
        terminal.close();
    }
}
