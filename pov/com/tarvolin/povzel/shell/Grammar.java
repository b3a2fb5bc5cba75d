package com.tarvolin.povzel.shell;

import java.io.PrintStream;
import picocli.CommandLine;
import picocli.CommandLine.ParameterException;
import picocli.CommandLine.ParseResult;

/** Reads command lines by picocli, which knows what is wrong with one and what help there is. */
final class Grammar {
    private final Options options = new Options();
    // Words are what they are: a file's name behind an @ is none of them.
    private final CommandLine commandLine = new CommandLine(options).setExpandAtFiles(false)
            .setCaseInsensitiveEnumValuesAllowed(true);
    private final ParseResult parsed;

    /** Throws IllegalArgumentException, with the reason, for a command line that is wrong. */
    Grammar(String... words) {
        try {
            parsed = commandLine.parseArgs(words);
        } catch (ParameterException e) {
            throw new IllegalArgumentException(e.getMessage(), e);
        }
        if (!parsed.unmatched().isEmpty()) {
            throw new IllegalArgumentException("unknown: " + String.join(", ", parsed.unmatched()));
        }
    }

    Options options() {
        return options;
    }

    /** Prints the help or the version that was asked for, if any was. */
    boolean helps(PrintStream out) {
        if (parsed.isUsageHelpRequested()) {
            commandLine.usage(out);
        } else if (parsed.isVersionHelpRequested()) {
            commandLine.printVersionHelp(out);
        }
        return parsed.isUsageHelpRequested() || parsed.isVersionHelpRequested();
    }
}
