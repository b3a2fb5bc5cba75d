package com.tarvolin.povzel.shell;

import com.tarvolin.povzel.PovZelException;
import com.tarvolin.povzel.PovZelObject;
import com.tarvolin.povzel.PovZelReport;
import com.tarvolin.povzel.PovZelSession;
import com.tarvolin.povzel.shell.Entry.Place;
import java.util.ArrayList;
import java.util.Collections;
import java.util.List;
import java.util.StringJoiner;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import java.util.stream.Collectors;

/** What values, objects and errors look like. */
final class Printer {
    private static final int LONGEST = 4000;
    private static final int ELEMENTS_SHOWN = 20;
    private static final int WIDTH = 80;
    /** A place in the text itself, as the database's stack has it and at the end of its message. */
    private static final Pattern STACKED =
            Pattern.compile("(?m)^(?:\\[\\] in )?text, line (\\d{1,9}), column (\\d{1,9})$");
    private static final Pattern TOLD =
            Pattern.compile(" \\(line (\\d{1,9}), column (\\d{1,9})\\)$");

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

    /** A result for a person to read, with its class, however long it is. */
    String whole(Object result) {
        return printString(result) + "   (" + className(result) + ")";
    }

    /** What is one of several to be shown. */
    String withClass(Object result) {
        return shortened(printString(result)) + "   (" + className(result) + ")";
    }

    String className(Object value) {
        return String.valueOf(session.perform(classOf(value), "name"));
    }

    PovZelObject classOf(Object value) {
        return asked(value, "class");
    }

    /** The object that another one answers to a message; methods of users may answer anything. */
    PovZelObject asked(Object receiver, String selector) {
        if (session.perform(receiver, selector) instanceof PovZelObject answer) {
            return answer;
        }
        throw new IllegalArgumentException("the answer to " + selector + " is none of the kind that it"
                + " has to be");
    }

    /** A class and those that it inherits from. */
    String lineage(Object cls) {
        StringJoiner names = new StringJoiner(" < ");
        for (Object c = cls; c != null; c = session.perform(c, "superclass")) {
            names.add(String.valueOf(session.perform(c, "name")));
        }
        return names.toString();
    }

    /** What instances of a class have, and what it adds to what they understand. */
    String description(Object cls) {
        if (!Boolean.TRUE.equals(session.perform(cls, "isClass"))) {
            throw new IllegalArgumentException(shortened(printString(cls)) + " is no class");
        }
        List<String> variables = new ArrayList<>();
        for (Object c = cls; c != null; c = session.perform(c, "superclass")) {
            variables.addAll(0, texts(c, "instVarNames"));
        }
        List<String> selectors = texts(cls, "selectors");
        Collections.sort(selectors);
        return lineage(cls) + wrapped("\n  instance variables:", variables)
                + wrapped("\n  selectors:", selectors);
    }

    private List<String> texts(Object receiver, String selector) {
        try (PovZelObject array = asked(receiver, selector)) {
            return array.list().stream().map(String::valueOf).collect(Collectors.toList());
        }
    }

    private static String wrapped(String title, List<String> words) {
        StringBuilder text = new StringBuilder(title);
        int column = title.length();
        for (String word : words.isEmpty() ? List.of("none") : words) {
            if (column + word.length() >= WIDTH) {
                text.append("\n   ");
                column = 3;
            }
            text.append(' ').append(word);
            column += 1 + word.length();
        }
        return text.toString();
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

    /** An error with everything that it came with, and where in the text from a place on it was. */
    @SuppressWarnings("deprecation")
    Trouble trouble(PovZelException e, Place start) {
        String message = e.getMessage().stripTrailing();
        Place place = start;
        if (start != null) {
            Matcher stacked = STACKED.matcher(e.getStack() == null ? "" : e.getStack());
            Matcher told = TOLD.matcher(message);
            Place last = told.find() ? position(start, told) : null;
            place = stacked.find() ? position(start, stacked) : last != null ? last : start;
            if (place.equals(last)) {
                message = message.substring(0, told.start());
            }
        }
        List<String> arguments = new ArrayList<>();
        for (int i = 0; i < e.argCount; i++) {
            arguments.add(argument(e.args[i]));
        }
        String origin = "\n  category " + argument(e.category) + ", context " + argument(e.context);
        return new Trouble(place, e.getNumber(), message, origin, arguments,
                e.isFatal());
    }

    private static Place position(Place start, Matcher found) {
        return start.at(Integer.parseInt(found.group(1)), Integer.parseInt(found.group(2)));
    }

    /** An object that an error names; when the database cannot tell more of it, its oop. */
    private String argument(long oop) {
        try (PovZelObject object = session.object(oop)) {
            return shortened(printString(object));
        } catch (IllegalArgumentException value) {
            return printString(session.value(oop));
        } catch (PovZelException | IllegalStateException e) {
            return "oop " + oop;
        }
    }

    String printString(Object value) {
        return String.valueOf(session.perform(value, "printString"));
    }

    /** A text in which nothing but the ends of lines and tabs means something to a terminal. */
    static String visible(String text) {
        StringBuilder shown = new StringBuilder(text.length());
        for (int i = 0; i < text.length(); i++) {
            char c = text.charAt(i);
            if (Character.isISOControl(c) && c != '\n' && c != '\t') {
                shown.append(String.format("\\x%02X", (int) c));
            } else {
                shown.append(c);
            }
        }
        return shown.toString();
    }

    private static String shortened(String text) {
        return text.length() <= LONGEST ? text
                : text.substring(0, LONGEST) + "... (" + text.length() + " characters)";
    }
}
