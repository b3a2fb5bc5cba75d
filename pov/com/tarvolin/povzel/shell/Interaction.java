package com.tarvolin.povzel.shell;

import com.tarvolin.povzel.PovZelSession;
import java.io.PrintStream;

/** The conversation with a user at a terminal. */
final class Interaction {
    private static final String PROMPT = "povzel> ";

    private final Evaluator evaluator;
    private final Console console;
    private final PrintStream out;
    private final String description;
    private boolean allRan = true;

    Interaction(PovZelSession session, Console console, PrintStream out, String description,
            boolean embedded) {
        this.evaluator = new Evaluator(session, description, true, embedded);
        this.console = console;
        this.out = out;
        this.description = description;
    }

    /** Answers the exit status. */
    int run() {
        console.print("Logged in as " + description + ". :help shows what can be entered.");
        while (!evaluator.finished()) {
            String text = console.readText(PROMPT);
            if (text == null) {
                break;
            }
            show(evaluator.run(text));
        }
        return allRan ? 0 : 1;
    }

    private void show(Evaluator.Outcome outcome) {
        allRan &= outcome.ran();
        out.print(outcome.transcript());
        if (!outcome.output().isEmpty()) {
            out.println(outcome.output());
        }
        out.flush();
        if (!outcome.remark().isEmpty()) {
            console.print(outcome.remark());
        }
    }
}
