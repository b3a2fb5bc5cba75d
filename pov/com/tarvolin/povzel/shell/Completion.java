package com.tarvolin.povzel.shell;

import java.util.Arrays;
import java.util.List;
import java.util.function.Supplier;
import org.jline.reader.Candidate;
import org.jline.reader.Completer;
import org.jline.reader.LineReader;
import org.jline.reader.ParsedLine;
import org.jline.reader.Parser;

/** How a word before the cursor may go on: as a command at a line's begin, as a name elsewhere. */
final class Completion implements Completer, Parser {
    private Supplier<List<String>> names = List::of;

    /** A line in which one word counts. */
    private record Word(String line, int cursor, String word) implements ParsedLine {
        @Override
        public int wordCursor() {
            return word.length();
        }

        @Override
        public int wordIndex() {
            return 0;
        }

        @Override
        public List<String> words() {
            return List.of(word);
        }

        boolean isFirst() {
            return line.substring(0, cursor - word.length()).isBlank();
        }
    }

    void setNames(Supplier<List<String>> names) {
        this.names = names;
    }

    @Override
    public ParsedLine parse(String line, int cursor, ParseContext context) {
        int start = cursor;
        while (start > 0 && belongs(line.charAt(start - 1))) {
            start--;
        }
        return new Word(line, cursor, line.substring(start, cursor));
    }

    private static boolean belongs(char c) {
        return Character.isLetterOrDigit(c) || c == '_' || c == ':';
    }

    @Override
    public void complete(LineReader reader, ParsedLine line, List<Candidate> candidates) {
        boolean command = Command.isMeant(line.word());
        if (command && line instanceof Word word && word.isFirst()) {
            Arrays.stream(Command.values()).map(Command::word).map(Candidate::new).forEach(candidates::add);
        } else if (!command && !line.word().isEmpty()) {
            names.get().stream().filter(name -> name.startsWith(line.word())).map(Candidate::new)
                    .forEach(candidates::add);
        }
    }
}
