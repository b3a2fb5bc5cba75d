package com.tarvolin.povzel.shell;

import com.tarvolin.povzel.PovZelSession;
import java.io.PrintStream;

/** The conversation with a user at a terminal. */
final class Interaction {
    private static final String PROMPT = "povzel> ";

    private final Evaluator evaluator;
    private final Console console;
    private final PrintStream out;
    private final Options options;

    Interaction(PovZelSession session, Options options, Console console, PrintStream out) {
        this.evaluator = new Evaluator(session, options, true);
        this.options = options;
        this.console = console;
        this.out = out;
    }

    /** Answers the exit status: of a text that failed the user knows. */
    int run() {
        if (!options.quiet) {
            console.print("Logged in as " + options.description() + ". :help shows what can be entered.");
        }
        while (!evaluator.finished()) {
            String text = console.readText(PROMPT);
            if (text == null) {
                break;
            }
            show(evaluator.run(text));
        }
        return evaluator.lost() ? 1 : 0;
    }

    private void show(Evaluator.Outcome outcome) {
        (options.inJson() ? System.err : out).print(outcome.transcript());
        if (outcome.output() != null) {
            out.println(outcome.output());
        }
        out.flush();
        if (!outcome.remark().isEmpty()) {
            console.print(outcome.remark());
        }
    }
}
