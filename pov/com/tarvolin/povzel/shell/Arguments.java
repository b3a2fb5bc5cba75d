package com.tarvolin.povzel.shell;

import java.nio.file.Path;
import java.util.HashSet;
import java.util.Set;

/**
 * Reads the plain command lines, which are nearly all, in a hundredth of the time that picocli takes
 * before it reads the first word. What it does not know whole is left to picocli, which has the last
 * word on mistakes, help and abbreviations.
 */
final class Arguments {
    private final String[] words;
    private final Options options = new Options();
    private final Set<String> given = new HashSet<>();
    private int next;

    private Arguments(String[] words) {
        this.words = words;
    }

    /** Answers what the words say, or null where picocli has to look at them. */
    static Options read(String... words) {
        Arguments arguments = new Arguments(words);
        while (arguments.next < words.length) {
            if (!arguments.take(words[arguments.next++])) {
                return null;
            }
        }
        return arguments.options;
    }

    /** Answers false for what is not plain. */
    private boolean take(String word) {
        switch (word) {
            case "-e":
            case "--execute":
                return addText(value());
            case "-s":
            case "--server":
                options.server = value();
                return options.server != null && isFirst("server");
            case "-u":
            case "--user":
                options.user = value();
                return options.user != null && isFirst("user");
            case "--password-file":
                return setPasswordFile(value());
            case "--format":
                return setFormat(value());
            case "--create":
                options.create = true;
                return isFirst("create");
            case "--stop":
                options.stop = true;
                return isFirst("stop");
            case "--commit":
                options.commit = true;
                return isFirst("commit");
            case "-q":
            case "--quiet":
                options.quiet = true;
                return isFirst("quiet");
            case "--debug":
                options.debug = true;
                return isFirst("debug");
            case "--linked":
                options.access.linked = true;
                return isFirst("access");
            case "--rpc":
                options.access.rpc = true;
                return isFirst("access");
            default:
                return addFile(word);
        }
    }

    private boolean isFirst(String option) {
        return given.add(option);
    }

    /** The word behind an option, or null when there is none, or one that may be an option. */
    private String value() {
        boolean isPlain = next < words.length && !words[next].startsWith("-");
        return isPlain ? words[next++] : null;
    }

    private boolean addText(String text) {
        Options.Source source = new Options.Source();
        source.text = text;
        options.sources.add(source);
        return text != null;
    }

    private boolean addFile(String name) {
        Options.Source source = new Options.Source();
        source.file = name;
        options.sources.add(source);
        return name.equals("-") || !name.startsWith("-");
    }

    private boolean setPasswordFile(String name) {
        if (name == null) {
            return false;
        }
        options.passwordFile = Path.of(name);
        return isFirst("password");
    }

    private boolean setFormat(String name) {
        if ("json".equals(name)) {
            options.format = Options.Format.JSON;
        }
        return (options.inJson() || "text".equals(name)) && isFirst("format");
    }
}
