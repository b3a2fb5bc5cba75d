package com.tarvolin.povzel.shell;

import com.tarvolin.povzel.PovZelSession;
import com.tarvolin.povzel.shell.Entry.Place;
import java.io.IOException;
import java.io.InputStream;
import java.io.PrintStream;

/** Runs texts with nobody watching: what they write and answer on one stream, the rest on the other. */
final class Filter {
    private static final String STANDARD_INPUT = "<stdin>";

    private final Evaluator evaluator;
    private final Options options;
    private final PrintStream out;
    private final PrintStream err;
    private boolean allRan = true;
    private boolean unheard;

    Filter(PovZelSession session, Options options, PrintStream out, PrintStream err) {
        this.evaluator = new Evaluator(session, options, null);
        this.options = options;
        this.out = out;
        this.err = err;
    }

    /** Runs what the command line names, else the input; answers the exit status. */
    int run(InputStream input) throws IOException {
        if (options.sources.isEmpty()) {
            runLines(new Input(STANDARD_INPUT, input));
        }
        int texts = 0;
        for (Options.Source source : options.sources) {
            if (ended()) {
                break;
            }
            if (source.text != null) {
                run(Entry.of(source.text, new Place("<-e " + ++texts + ">", 1, 1)));
            } else {
                run(source.file.equals("-") ? new Input(STANDARD_INPUT, input).whole()
                        : Input.file(source.file, null));
            }
        }
        return allRan ? 0 : 1;
    }

    private void runLines(Input input) throws IOException {
        for (Entry entry = input.next(); entry != null; entry = ended() ? null : input.next()) {
            run(entry);
        }
    }

    /** Whether nothing more is to be run: nor where nobody takes the results any longer. */
    private boolean ended() {
        return evaluator.finished() || unheard || options.stop && !allRan;
    }

    private void run(Entry entry) {
        Evaluator.Outcome outcome = evaluator.run(entry);
        allRan &= outcome.ran();
        PrintStream transcript = options.inJson() ? err : out;
        transcript.print(outcome.transcript());
        if (outcome.output() != null) {
            out.println(outcome.output());
        }
        out.flush();
        // What stands nowhere is a file of the command line.
        if (!outcome.remark().isEmpty()) {
            err.println((entry.start() == null ? "povzel: " : "") + outcome.remark());
        }
        err.flush();
        unheard = out.checkError();
    }
}
