package com.tarvolin.povzel.shell;

/** How texts are told apart: one ends with the first line that leaves nothing of it open. */
final class Text {
    private static final char NONE = 0;
    private static final char VERTICAL_TAB = 0x0B;

    private char quote = NONE;
    private boolean behindDollar;
    private int brackets;
    private boolean code;

    /** Takes what comes next; answers whether every string, comment and bracket is closed then. */
    boolean add(String part) {
        int at = 0;
        while (at < part.length()) {
            if (quote == NONE) {
                take(part.charAt(at++));
            } else {
                int close = part.indexOf(quote, at);
                quote = close < 0 ? quote : NONE;
                at = close < 0 ? part.length() : close + 1;
            }
        }
        // Too many closing brackets are the compiler's to complain about.
        return quote == NONE && brackets <= 0;
    }

    private void take(char c) {
        if (behindDollar) {
            // A character literal is no quote or bracket.
            behindDollar = false;
            return;
        }
        switch (c) {
            case ' ', '\t', '\n', '\f', '\r', VERTICAL_TAB -> { }
            case '"' -> quote = c;
            default -> {
                code = true;
                switch (c) {
                    case '\'' -> quote = c;
                    case '$' -> behindDollar = true;
                    case '(', '[', '{' -> brackets++;
                    case ')', ']', '}' -> brackets--;
                    default -> { }
                }
            }
        }
    }

    /** Whether every string, comment and bracket that a text opens is closed. */
    static boolean isComplete(String text) {
        return new Text().add(text);
    }

    /** Whether a name may stand behind a text, rather than a string, comment or character go on. */
    static boolean takesName(String text) {
        Text all = new Text();
        all.add(text);
        return all.quote == NONE && !all.behindDollar;
    }

    /** Whether a text is nothing but blanks and comments. */
    static boolean isEmpty(String text) {
        Text all = new Text();
        return all.add(text) && !all.code;
    }
}
