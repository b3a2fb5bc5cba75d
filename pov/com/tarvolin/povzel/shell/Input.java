package com.tarvolin.povzel.shell;

import com.tarvolin.povzel.shell.Entry.Place;
import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.io.InputStream;
import java.nio.ByteBuffer;
import java.nio.CharBuffer;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.InvalidPathException;
import java.nio.file.Path;
import java.util.Arrays;

/** Input in UTF-8: one text, or the texts and commands that its lines are. */
final class Input {
    /** The most bytes of a text: an object of the database has no room for more. */
    static final int LONGEST = 64 << 20;
    static final int COMPILE_ERROR = 2501;

    private static final String OPENING = ":{";
    private static final String CLOSING = ":}";
    private static final byte[] BYTE_ORDER_MARK = {(byte) 0xEF, (byte) 0xBB, (byte) 0xBF};

    private final String name;
    private final InputStream stream;
    private final Lines typed;
    private final byte[] buffer = new byte[1 << 16];
    private int at;
    private int end;
    private int lines;
    /** What is wrong with the entry that is being read. */
    private Trouble fault;

    /** Where lines are typed. */
    interface Lines {
        /** The next line's bytes, with its end; null behind the last one. A text may go on in it. */
        byte[] next(boolean goesOn);
    }

    Input(String name, InputStream stream) {
        this.name = name;
        this.stream = stream;
        this.typed = null;
    }

    /** A conversation's input, in which nothing has a place. */
    Input(Lines typed) {
        this.name = null;
        this.stream = null;
        this.typed = typed;
    }

    /** The text in a file, which was named in a place; null stands for the command line. */
    static Entry file(String name, Place naming) {
        String obstacle;
        try (InputStream stream = Files.newInputStream(Path.of(name))) {
            return new Input(name, stream).whole();
        } catch (InvalidPathException e) {
            obstacle = "that is no name of a file";
        } catch (IOException e) {
            obstacle = obstacle(Path.of(name), e.getMessage());
        }
        return new Entry("", false, naming,
                new Trouble(naming, 0, "cannot read " + name + ": " + obstacle));
    }

    /** Why a file cannot be read. */
    static String obstacle(Path file, String otherwise) {
        return Files.isDirectory(file) ? "it is a folder"
                : Files.notExists(file) ? "it is not there"
                : !Files.isReadable(file) ? "it may not be read" : otherwise;
    }

    /** All that there is, as one text. */
    Entry whole() throws IOException {
        lines = 1;
        String text = decoded(stream.readNBytes(LONGEST + 1));
        return new Entry(text, false, place(1), fault);
    }

    /**
     * The next text or command; null at the end. A line is one unless it leaves something open, or
     * lines of braces enclose one of many lines.
     */
    Entry next() throws IOException {
        fault = null;
        lines = typed != null ? 0 : lines;
        String line = line(false);
        if (line == null) {
            return null;
        }
        String entered = line.strip();
        if (entered.equals(OPENING)) {
            return enclosed();
        }
        Place start = place(lines);
        boolean command = Command.isMeant(entered);
        Command named = command ? Command.call(entered).command() : null;
        boolean goesOn = !command || named != null && named.takesText();
        Text text = new Text();
        StringBuilder all = new StringBuilder();
        append(all, line, start);
        while (!text.add(line) && goesOn && (line = line(true)) != null) {
            append(all, line, start);
        }
        return new Entry(all.toString(), command, start, fault);
    }

    private Entry enclosed() throws IOException {
        Place opening = place(lines);
        Place start = place(lines + 1);
        StringBuilder all = new StringBuilder();
        String line;
        while ((line = line(true)) != null && !line.strip().equals(CLOSING)) {
            append(all, line, start);
        }
        if (line == null) {
            fault = new Trouble(opening, COMPILE_ERROR,
                    "the " + OPENING + " is not closed by a line " + CLOSING);
        }
        return new Entry(all.toString(), false, start, fault);
    }

    private void append(StringBuilder all, String line, Place start) {
        if (all.length() + line.length() <= LONGEST) {
            all.append(line);
        } else {
            fault = tooLarge(start);
        }
    }

    private Place place(int line) {
        return name == null ? null : new Place(name, line, 1);
    }

    private static Trouble tooLarge(Place start) {
        return new Trouble(start, COMPILE_ERROR,
                "the text is too large: it has more than " + LONGEST + " bytes");
    }

    /** The next line with its end; null behind the last one. */
    private String line(boolean goesOn) throws IOException {
        byte[] line = typed != null ? typed.next(goesOn) : nextBytes();
        if (line == null) {
            return null;
        }
        lines++;
        return decoded(line);
    }

    private byte[] nextBytes() throws IOException {
        ByteArrayOutputStream line = new ByteArrayOutputStream();
        boolean ended = false;
        while (!ended && fill()) {
            int stop = at;
            while (stop < end && buffer[stop] != '\n') {
                stop++;
            }
            ended = stop < end;
            int next = ended ? stop + 1 : stop;
            line.write(buffer, at, Math.min(next - at, LONGEST + 1 - line.size()));
            at = next;
        }
        return line.size() == 0 ? null : line.toByteArray();
    }

    private boolean fill() throws IOException {
        if (at == end) {
            at = 0;
            end = Math.max(0, stream.read(buffer));
        }
        return at < end;
    }

    /** What the bytes say that begin in the line reached. */
    private String decoded(byte[] all) {
        byte[] bytes = all;
        int mark = BYTE_ORDER_MARK.length;
        boolean first = typed == null && lines == 1;
        if (first && Arrays.equals(Arrays.copyOf(all, mark), BYTE_ORDER_MARK)) {
            bytes = Arrays.copyOfRange(all, mark, all.length);
        }
        String text = new String(bytes, StandardCharsets.UTF_8);
        if (bytes.length > LONGEST) {
            fault = tooLarge(place(lines));
        } else if (fault == null && text.indexOf('\uFFFD') >= 0) {
            fault = undecodable(bytes);
        }
        return first && text.startsWith("#!") ? text.replaceFirst("[^\n]*", "") : text;
    }

    /** The first of the bytes that is no UTF-8; null if there is none. */
    private Trouble undecodable(byte[] bytes) {
        ByteBuffer from = ByteBuffer.wrap(bytes);
        CharBuffer to = CharBuffer.allocate(bytes.length);
        if (!StandardCharsets.UTF_8.newDecoder().decode(from, to, true).isError()) {
            // An editor has put it in the place of such bytes.
            return typed == null ? null : new Trouble(null, COMPILE_ERROR,
                    "U+FFFD stands there, as for what is no UTF-8; a program may have it as Character value: 65533");
        }
        String before = to.flip().toString();
        int line = 1 + (int) before.chars().filter(c -> c == '\n').count();
        int column = 1 + before.codePointCount(before.lastIndexOf('\n') + 1, before.length());
        String message = String.format("the byte %02X is no UTF-8", from.get());
        Place start = place(lines);
        return start != null ? new Trouble(start.at(line, column), COMPILE_ERROR, message)
                : new Trouble(null, COMPILE_ERROR,
                        String.format("%s (line %d, column %d)", message, lines + line - 1, column));
    }
}
