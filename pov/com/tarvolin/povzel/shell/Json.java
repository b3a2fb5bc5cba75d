package com.tarvolin.povzel.shell;

import com.tarvolin.povzel.PovZelException;
import com.tarvolin.povzel.PovZelObject;
import com.tarvolin.povzel.PovZelSession;
import java.math.BigInteger;
import java.util.Arrays;
import java.util.HashMap;
import java.util.HashSet;
import java.util.List;
import java.util.Map;
import java.util.Set;
import java.util.function.Consumer;
import java.util.function.IntConsumer;
import java.util.stream.Collectors;

/** Results as JSON, one line each. */
final class Json {
    /** Deeper ones are shown as the database prints them. */
    private static final int DEEPEST = 100;

    private final PovZelSession session;
    private final Printer printer;
    private final Map<String, PovZelObject> classes = new HashMap<>();
    /** The collections that are being written: one inside itself would have no end. */
    private final Set<PovZelObject> open = new HashSet<>();
    private StringBuilder json;

    Json(PovZelSession session, Printer printer) {
        this.session = session;
        this.printer = printer;
    }

    /** A result that a text has. */
    String result(Object value) {
        json = new StringBuilder();
        open.clear();
        if (value instanceof PovZelObject object) {
            appendPart(session.value(object.oop()));
        } else {
            append(value);
        }
        return json.toString();
    }

    /** What went wrong, in the place of a result. */
    static String error(Trouble trouble) {
        StringBuilder json = new StringBuilder("{\"error\": {\"number\": ")
                .append(trouble.number() == 0 ? "null" : trouble.number())
                .append(", \"name\": ").append(trouble.name() == null ? "null" : quoted(trouble.name()))
                .append(", \"message\": ").append(quoted(trouble.message()));
        if (trouble.place() != null) {
            json.append(", \"file\": ").append(quoted(trouble.place().source()))
                    .append(", \"line\": ").append(trouble.place().line())
                    .append(", \"column\": ").append(trouble.place().column());
        }
        return json.append(", \"arguments\": ")
                .append(trouble.arguments().stream().map(Json::quoted)
                        .collect(Collectors.joining(", ", "[", "]")))
                .append(", \"fatal\": ").append(trouble.fatal()).append("}}").toString();
    }

    /** A text with everything escaped that JSON, or a line of UTF-8, cannot hold as it is. */
    static String quoted(String text) {
        StringBuilder json = new StringBuilder(text.length() + 2).append('"');
        for (int i = 0; i < text.length(); i++) {
            char c = text.charAt(i);
            if (c == '"' || c == '\\') {
                json.append('\\').append(c);
            } else if (c == '\n') {
                json.append("\\n");
            } else if (Character.isISOControl(c) || isAlone(text, i)) {
                json.append(String.format("\\u%04x", (int) c));
            } else {
                json.append(c);
            }
        }
        return json.append('"').toString();
    }

    /** Whether a character is half of one whose other half is not beside it. */
    private static boolean isAlone(String text, int i) {
        char c = text.charAt(i);
        return Character.isHighSurrogate(c)
                ? i + 1 == text.length() || !Character.isLowSurrogate(text.charAt(i + 1))
                : Character.isLowSurrogate(c)
                        && (i == 0 || !Character.isHighSurrogate(text.charAt(i - 1)));
    }

    private void append(Object value) {
        if (value == null || value instanceof Boolean || value instanceof Long
                || value instanceof BigInteger) {
            json.append(value);
        } else if (value instanceof String || value instanceof Character) {
            json.append(quoted(value.toString()));
        } else if (value instanceof Double number) {
            json.append(Double.isNaN(number) ? "\"nan\""
                    : !Double.isInfinite(number) ? number.toString()
                    : number > 0 ? "\"inf\"" : "\"-inf\"");
        } else if (value instanceof PovZelObject object && open.size() < DEEPEST
                && open.add(object)) {
            appendObject(object);
            open.remove(object);
        } else {
            appendOther(value);
        }
    }

    private void appendObject(PovZelObject object) {
        if (isA(object, "ByteArray")) {
            byte[] bytes = object.bytes();
            appendAll('[', bytes.length, i -> json.append(bytes[i] & 0xFF), ']');
        } else if (isA(object, "Dictionary")) {
            withElements(object, "keys", keys -> withElements(object, "values", values ->
                    appendDictionary(keys, values)));
        } else if (isA(object, "Collection")) {
            withElements(object, "asArray", elements ->
                    appendAll('[', elements.size(), i -> appendPart(elements.get(i)), ']'));
        } else {
            appendOther(object);
        }
    }

    private void appendDictionary(List<Object> keys, List<Object> values) {
        if (keys.size() != values.size()) {
            throw new IllegalArgumentException("the dictionary answers other numbers of keys and values");
        }
        // A symbol and a string may be spelt alike.
        if (keys.stream().allMatch(String.class::isInstance) && new HashSet<>(keys).size() == keys.size()) {
            appendAll('{', keys.size(), i -> {
                json.append(quoted((String) keys.get(i))).append(": ");
                appendPart(values.get(i));
            }, '}');
        } else {
            appendAll('[', keys.size(), i -> {
                List<Object> pair = Arrays.asList(keys.get(i), values.get(i));
                appendAll('[', 2, part -> appendPart(pair.get(part)), ']');
            }, ']');
        }
    }

    private void appendAll(char opening, int size, IntConsumer part, char closing) {
        json.append(opening);
        for (int i = 0; i < size; i++) {
            json.append(i == 0 ? "" : ", ");
            part.accept(i);
        }
        json.append(closing);
    }

    private void appendPart(Object value) {
        append(value);
        if (value instanceof PovZelObject object) {
            object.close();
        }
    }

    /** What an object answers with an array; the database's own array is given up afterwards. */
    private void withElements(PovZelObject object, String selector, Consumer<List<Object>> use) {
        try (PovZelObject array = printer.asked(object, selector)) {
            use.accept(array.list());
        }
    }

    private boolean isA(PovZelObject object, String name) {
        PovZelObject cls = classes.computeIfAbsent(name, this::classNamed);
        return cls != null && object.isKindOf(cls);
    }

    private PovZelObject classNamed(String name) {
        try {
            return session.executeForObject(name);
        } catch (PovZelException | IllegalArgumentException e) {
            return null;
        }
    }

    private void appendOther(Object value) {
        json.append("{\"class\": ").append(quoted(printer.className(value)))
                .append(", \"text\": ").append(quoted(printer.printString(value))).append('}');
    }
}
