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
    private static final String PROMPT = "> ";
    private static final String CHANGED = "*> ";
    private static final String CONTINUED = "....... ";

    /** How many characters are shown at once. */
    private static final int PIECE = 1024;

    private final PovZelSession session;
    private final Evaluator evaluator;
    private final Console console;
    private final PrintStream out;
    private final Options options;
    /** What prompts begin with. */
    private final String database;
    private List<String> names;
    private final Interrupts interrupts;

    Interaction(PovZelSession session, Options options, Console console, PrintStream out) {
        this.session = session;
        this.interrupts = new Interrupts(session);
        this.evaluator = new Evaluator(session, options, interrupts);
        this.options = options;
        this.database = Printer.visible(options.database());
        this.console = console;
        this.out = out;
    }

    /** Answers the exit status: of a text that failed the user knows. */
    int run() throws IOException {
        if (!options.quiet) {
            console.print("Logged in as " + Printer.visible(options.description())
                    + (options.creates() ? "; " + Command.COMMIT.word() + " makes the database" : "")
                    + ". " + Command.HELP.word() + " shows what can be entered.");
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
                } else {
                    console.print("interrupted before it ran");
                }
            } catch (UserInterruptException e) {
                // What was typed is dropped.
            }
        }
    }

    private byte[] line(boolean goesOn) {
        interrupts.end();
        names = null;
        byte[] line = console.readLine(goesOn ? CONTINUED : database + (uncommitted() ? CHANGED : PROMPT), goesOn);
        // The user saw what earlier interrupts did before entering this.
        interrupts.end();
        return line;
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
            // Ctrl-C is a no also where it drops a line of a text.
            byte[] answer = console.readLine("End without the changes that are not committed? [y/N] ", true);
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
        write(options.inJson() ? System.err : out, Printer.visible(outcome.transcript()));
        if (outcome.output() != null) {
            showOutput(outcome.output());
        }
        if (!outcome.remark().isEmpty()) {
            console.print(Printer.visible(outcome.remark()));
        }
        if (interrupts.pending()) {
            console.print("\ninterrupted: not all is shown");
        }
    }

    private void showOutput(String output) {
        if (options.inJson()) {
            write(out, output + "\n");
            return;
        }
        String text = Printer.visible(output) + "\n";
        if (!console.page(text)) {
            write(out, text);
        }
    }

    /** Writes a text until the user has seen enough. */
    private void write(PrintStream to, String text) {
        for (int at = 0; at < text.length() && !interrupts.pending(); at += PIECE) {
            to.print(text.substring(at, Math.min(at + PIECE, text.length())));
            to.flush();
        }
    }
}
