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

        String before() {
            return line.substring(0, cursor - word.length());
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
        Word word = (Word) line;
        if (Command.isMeant(word.word)) {
            if (word.before().isBlank()) {
                Arrays.stream(Command.values()).map(Command::word).map(Candidate::new).forEach(candidates::add);
            }
        } else if (!word.word.isEmpty() && Text.takesName(word.before())) {
            // What follows a keyword without a blank is a word of its own, unless the keyword goes on.
            add(word.word, "", candidates);
            int keyword = word.word.lastIndexOf(':') + 1;
            if (candidates.isEmpty() && keyword < word.word.length()) {
                add(word.word.substring(keyword), word.word.substring(0, keyword), candidates);
            }
        }
    }

    private void add(String begin, String before, List<Candidate> candidates) {
        names.get().stream().filter(name -> name.startsWith(begin))
                .map(name -> new Candidate(before + name, name, null, null, null, null, true))
                .forEach(candidates::add);
    }
}
