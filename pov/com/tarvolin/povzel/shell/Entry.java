package com.tarvolin.povzel.shell;

/**
 * A text or a command that the user gives, and where it stands.
 *
 * @param text what was given
 * @param command whether it is a command
 * @param start where it begins; null in a conversation, in which it stands above the answer
 * @param fault what keeps it from being run; null if nothing
 */
record Entry(String text, boolean command, Place start, Trouble fault) {
    /** A place in a source; lines and columns count characters from 1. */
    record Place(String source, int line, int column) {
        /** The place of a line and column of what begins here. */
        Place at(int line, int column) {
            return new Place(source, this.line + line - 1,
                    line == 1 ? this.column + column - 1 : column);
        }

        @Override
        public String toString() {
            return source + ":" + line + ":" + column;
        }
    }

    /** What was entered in a conversation, or stands as it is on the command line. */
    static Entry of(String text, Place start) {
        return new Entry(text, Command.isMeant(text.strip()), start, null);
    }

    /** Where the last part of a line begins; null in a conversation. */
    Place at(String part) {
        return start == null ? null : start.at(1, text.stripTrailing().length() - part.length() + 1);
    }
}
