package com.tarvolin.povzel.shell;

import com.tarvolin.povzel.PovZelException;
import com.tarvolin.povzel.PovZelSession;
import java.io.IOException;
import java.io.PrintStream;
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
    private boolean running;
    /** Whether the user interrupted what was entered before it was run. */
    private boolean tooEarly;
    /** Whether the entry that is run was told to stop, and did not yet. */
    private boolean broken;

    Interaction(PovZelSession session, Options options, Console console, PrintStream out) {
        this.session = session;
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
        console.onInterrupt(this::interrupt);
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
                if (setRunning(true)) {
                    show(run(entry));
                }
            } catch (UserInterruptException e) {
                // What was typed is dropped.
            }
        }
    }

    private String line(boolean goesOn) {
        setRunning(false);
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
            String answer = console.readLine("End without the changes that are not committed? [y/N] ", false);
            return answer == null || answer.strip().toLowerCase(Locale.ROOT).startsWith("y");
        } catch (UserInterruptException e) {
            return false;
        }
    }

    private Evaluator.Outcome run(Entry entry) {
        Progress progress = Progress.on(console, !options.quiet);
        try {
            return evaluator.run(entry);
        } finally {
            progress.close();
            setRunning(false);
        }
    }

    /** Begins or ends a run; one that was interrupted before it began does not begin. */
    private synchronized boolean setRunning(boolean running) {
        this.running = running && !tooEarly;
        tooEarly = false;
        broken = false;
        return this.running;
    }

    /** Stops what runs so that it can go on; for good if that has not stopped it. From any thread. */
    private synchronized void interrupt() {
        if (broken) {
            session.cancel();
        } else if (running) {
            broken = session.interrupt();
        } else {
            tooEarly = true;
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
