package com.tarvolin.povzel.shell;

import com.tarvolin.povzel.PovZelException;
import com.tarvolin.povzel.PovZelSession;
import java.io.IOException;
import java.io.PrintStream;
import java.nio.charset.StandardCharsets;
import java.util.List;
import java.util.Locale;
import org.jline.reader.UserInterruptException;

/** The conversation with a user at a terminal. */
final class Interaction {
    private static final String PROMPT = "povzel> ";
    private static final String CHANGED = "povzel*> ";
    private static final String CONTINUED = "....... ";

    private final PovZelSession session;
    private final Evaluator evaluator;
    private final Console console;
    private final PrintStream out;
    private final Options options;
    private List<String> names;
    private final Interrupts interrupts;

    Interaction(PovZelSession session, Options options, Console console, PrintStream out) {
        this.session = session;
        this.interrupts = new Interrupts(session);
        this.evaluator = new Evaluator(session, options, true);
        this.options = options;
        this.console = console;
        this.out = out;
    }

    /** Answers the exit status: of a text that failed the user knows. */
    int run() throws IOException {
        if (!options.quiet) {
            console.print("Logged in as " + options.description() + ". :help shows what can be entered.");
        }
        console.onInterrupt(interrupts::interrupt);
        console.setNames(this::names);
        Input input = new Input(this::line);
        do {
            evaluator.goOn();
            converse(input);
        } while (!evaluator.lost() && !mayEnd());
        return evaluator.lost() ? 1 : 0;
    }

    private void converse(Input input) throws IOException {
        while (!evaluator.finished()) {
            try {
                Entry entry = input.next();
                if (entry == null) {
                    return;
                }
                console.keep(entry.text());
                if (interrupts.begin()) {
                    show(run(entry));
                    if (out.checkError()) {
                        return;
                    }
                }
            } catch (UserInterruptException e) {
                // What was typed is dropped.
            }
        }
    }

    private byte[] line(boolean goesOn) {
        interrupts.end();
        names = null;
        return console.readLine(goesOn ? CONTINUED : uncommitted() ? CHANGED : PROMPT, goesOn);
    }

    /** The names that the database knows, as of this prompt. */
    private List<String> names() {
        if (names == null) {
            names = evaluator.names();
        }
        return names;
    }

    private boolean uncommitted() {
        try {
            return session.needsCommit();
        } catch (PovZelException | IllegalStateException e) {
            return false;
        }
    }

    /** Asks before changes are lost. The end of the input is a yes: there may be no terminal any longer. */
    private boolean mayEnd() {
        if (!uncommitted()) {
            return true;
        }
        try {
            byte[] answer = console.readLine("End without the changes that are not committed? [y/N] ", false);
            return answer == null || new String(answer, StandardCharsets.UTF_8).strip()
                    .toLowerCase(Locale.ROOT).startsWith("y");
        } catch (UserInterruptException e) {
            return false;
        }
    }

    private Evaluator.Outcome run(Entry entry) {
        Progress progress = Progress.on(console, !options.quiet);
        try {
            return evaluator.run(entry, interrupts::end);
        } finally {
            progress.close();
        }
    }

    private void show(Evaluator.Outcome outcome) {
        (options.inJson() ? System.err : out).print(outcome.transcript());
        out.flush();
        if (outcome.output() != null && (options.inJson() || !console.page(outcome.output()))) {
            out.println(outcome.output());
        }
        out.flush();
        if (!outcome.remark().isEmpty()) {
            console.print(outcome.remark());
        }
    }
}
