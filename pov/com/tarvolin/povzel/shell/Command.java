package com.tarvolin.povzel.shell;

import java.util.Arrays;
import java.util.Locale;
import java.util.stream.Collectors;

/** What the user can enter besides texts. */
enum Command {
    LOAD("FILE", "runs the text in a file"),
    INSPECT("TEXT", "shows everything that the database tells of a text's result"),
    CLASS("TEXT", "shows the class of a text's result, and what that inherits from"),
    DESCRIBE("CLASS", "shows what instances of a class have and understand"),
    STACK("", "shows where the text that failed last was, innermost first"),
    CONTINUE("", "goes on with the text that Ctrl-C interrupted last"),
    COMMIT("", "makes the changes of the session permanent and seen by all"),
    ABORT("", "takes the changes back that are not committed"),
    REFRESH("", "shows what others have committed, while there is nothing to commit"),
    TIME("on|off", "shows how long each text ran, or no longer"),
    SESSION("", "shows who is logged in and where"),
    HELP("", "shows this"),
    QUIT("", "ends; so does the end of the input");

    private static final String SIGN = ":";
    private final String argument;
    private final String help;

    Command(String argument, String help) {
        this.argument = argument;
        this.help = help;
    }

    /** A command with what stands behind its name; null where the name is none. */
    record Call(Command command, String name, String rest) {
    }

    /** Whether the user means a command. */
    static boolean isMeant(String entry) {
        return entry.startsWith(SIGN);
    }

    static Call call(String entry) {
        String[] words = entry.split("\\s+", 2);
        Command named = Arrays.stream(values()).filter(command -> words[0].equals(command.word()))
                .findFirst().orElse(null);
        return new Call(named, words[0], words.length > 1 ? words[1] : "");
    }

    /** Whether a text stands behind the name, which may go on in the lines that follow. */
    boolean takesText() {
        return this == INSPECT || this == CLASS || this == DESCRIBE;
    }

    String word() {
        return SIGN + name().toLowerCase(Locale.ROOT);
    }

    /** What there is, one line each. */
    static String help() {
        return Arrays.stream(values())
                .map(command -> String.format("  %-15s %s", command.word() + " " + command.argument,
                        command.help))
                .collect(Collectors.joining("\n"));
    }
}
