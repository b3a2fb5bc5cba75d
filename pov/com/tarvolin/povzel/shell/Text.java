package com.tarvolin.povzel.shell;

/** How texts are told apart: one ends with the first line end at which nothing is left open. */
final class Text {
    private Text() {
    }

    /** Whether every string, comment and bracket that a text opens is closed. */
    static boolean isComplete(String text) {
        int open = 0;
        int i = 0;
        while (i < text.length()) {
            char c = text.charAt(i);
            if (c == '\'' || c == '"') {
                int end = text.indexOf(c, i + 1);
                if (end < 0) {
                    return false;
                }
                i = end;
            } else if (c == '$') {
                // A character literal: what follows is no quote or bracket.
                i++;
            } else if ("([{".indexOf(c) >= 0) {
                open++;
            } else if (")]}".indexOf(c) >= 0) {
                open--;
            }
            i++;
        }
        // Too many closing brackets are the compiler's to complain about.
        return open <= 0;
    }
}
