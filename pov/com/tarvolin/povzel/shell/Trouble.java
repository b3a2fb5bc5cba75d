package com.tarvolin.povzel.shell;

import com.tarvolin.povzel.PovZelException;
import com.tarvolin.povzel.shell.Entry.Place;
import java.util.List;

/** What went wrong with an entry. In a conversation it has no place; its number may be 0, none. */
record Trouble(Place place, int number, String message, String origin, List<String> arguments,
        boolean fatal) {
    Trouble(Place place, int number, String message) {
        this(place, number, message, "", List.of(), false);
    }

    /** The name by which the number is known; null if there is none. */
    @SuppressWarnings("deprecation")
    String name() {
        PovZelException error = new PovZelException();
        error.number = number;
        return number == 0 ? null : error.getName();
    }

    /** Everything there is to say. */
    String text() {
        StringBuilder text = new StringBuilder(place == null ? "" : place + ": ");
        if (number != 0) {
            text.append("error ").append(number).append(": ");
        } else if (place != null) {
            text.append("error: ");
        }
        text.append(message).append(origin);
        if (!arguments.isEmpty()) {
            text.append("\n  arguments: ").append(String.join(", ", arguments));
        }
        return text.append(fatal ? "\n  the session is no longer usable" : "").toString();
    }
}
