package com.tarvolin.povzel.shell;

import com.tarvolin.povzel.PovZelException;
import com.tarvolin.povzel.PovZelObject;
import com.tarvolin.povzel.PovZelReport;
import com.tarvolin.povzel.PovZelSession;
import java.util.List;
import java.util.StringJoiner;

/** What values, objects and errors look like. */
final class Printer {
    private static final int LONGEST = 4000;
    private static final int ELEMENTS_SHOWN = 20;

    private final PovZelSession session;

    Printer(PovZelSession session) {
        this.session = session;
    }

    /** A result for another program to read: a string's text as it is, all else as the database prints it. */
    String plain(Object result) {
        if (result instanceof PovZelObject object) {
            PovZelReport description = object.describe();
            return description.isString ? (String) object.value() : printString(object);
        }
        return printString(result);
    }

    /** A result for a person to read, with its class. */
    String withClass(Object result) {
        return shortened(printString(result)) + "   (" + className(result) + ")";
    }

    String className(Object value) {
        return String.valueOf(session.perform(classOf(value), "name"));
    }

    PovZelObject classOf(Object value) {
        return (PovZelObject) session.perform(value, "class");
    }

    /** Everything that the database tells of an object. */
    String inspection(Object value) {
        StringBuilder text = new StringBuilder(withClass(value));
        if (value instanceof PovZelObject object) {
            PovZelReport description = object.describe();
            text.append("\n  oop ").append(object.oop()).append(", ").append(kindOf(description))
                    .append(", ").append(description.namedSize).append(" named and ")
                    .append(description.indexedSize).append(" indexed");
            List<Object> named = object.namedSlots();
            for (int i = 0; i < named.size(); i++) {
                text.append("\n  slot ").append(i + 1).append(": ").append(withClass(named.get(i)));
            }
            if (description.valueLongs != null && description.isCollection) {
                appendElements(text, elements(object));
            }
        }
        return text.toString();
    }

    /** The elements, of what has no order as the database lists them. */
    private static List<Object> elements(PovZelObject object) {
        try {
            return object.list();
        } catch (IllegalArgumentException e) {
            boolean dictionary = object.performFor(boolean.class, "isDictionary");
            return object.performForObject(dictionary ? "associations" : "asArray").list();
        }
    }

    private void appendElements(StringBuilder text, List<Object> elements) {
        int shown = Math.min(elements.size(), ELEMENTS_SHOWN);
        for (int i = 0; i < shown; i++) {
            text.append("\n  [").append(i + 1).append("]: ").append(withClass(elements.get(i)));
        }
        if (shown < elements.size()) {
            text.append("\n  and ").append(elements.size() - shown).append(" more");
        }
    }

    private static String kindOf(PovZelReport description) {
        return switch (description.objType) {
            case 0 -> "pointers";
            case 1 -> description.isDBString ? "double-byte string"
                    : description.isString ? "string" : "bytes";
            case 2 -> "set";
            default -> "kind " + description.objType;
        };
    }

    /** An error with everything that it came with. */
    @SuppressWarnings("deprecation")
    String error(PovZelException e) {
        StringBuilder text = new StringBuilder("error ").append(e.getNumber()).append(": ")
                .append(e.getMessage().stripTrailing());
        text.append("\n  category ").append(argument(e.category)).append(", context ")
                .append(argument(e.context));
        if (e.argCount > 0) {
            StringJoiner arguments = new StringJoiner(", ", "\n  arguments: ", "");
            for (int i = 0; i < e.argCount; i++) {
                arguments.add(argument(e.args[i]));
            }
            text.append(arguments);
        }
        if (e.isFatal()) {
            text.append("\n  the session is no longer usable");
        }
        return text.toString();
    }

    /** An object that an error names; when the database cannot tell more of it, its oop. */
    private String argument(long oop) {
        try {
            return shortened(printString(session.value(oop)));
        } catch (PovZelException | IllegalArgumentException | IllegalStateException e) {
            return "oop " + oop;
        }
    }

    private String printString(Object value) {
        return String.valueOf(session.perform(value, "printString"));
    }

    private static String shortened(String text) {
        return text.length() <= LONGEST ? text
                : text.substring(0, LONGEST) + "... (" + text.length() + " characters)";
    }
}
