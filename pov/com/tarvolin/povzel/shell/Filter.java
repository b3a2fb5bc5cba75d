package com.tarvolin.povzel.shell;

import com.tarvolin.povzel.PovZelSession;
import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStream;
import java.io.InputStreamReader;
import java.io.PrintStream;
import java.nio.charset.StandardCharsets;
import java.util.List;

/** Runs texts with nobody watching: what they write and answer on one stream, the rest on the other. */
final class Filter {
    private final Evaluator evaluator;
    private final PrintStream out;
    private final PrintStream err;
    private boolean allRan = true;

    Filter(PovZelSession session, PrintStream out, PrintStream err, String description,
            boolean embedded) {
        this.evaluator = new Evaluator(session, description, false, embedded);
        this.out = out;
        this.err = err;
    }

    /** Runs each text, whatever became of those before it; answers the exit status. */
    int run(List<String> texts) {
        for (String text : texts) {
            if (evaluator.finished()) {
                break;
            }
            run(text);
        }
        return allRan ? 0 : 1;
    }

    int run(InputStream input) throws IOException {
        BufferedReader lines = new BufferedReader(new InputStreamReader(input, StandardCharsets.UTF_8));
        StringBuilder text = new StringBuilder();
        for (String line = lines.readLine(); line != null && !evaluator.finished();
                line = lines.readLine()) {
            text.append(line).append('\n');
            if (Text.isComplete(text.toString())) {
                run(text.toString());
                text.setLength(0);
            }
        }
        run(text.toString());
        return allRan ? 0 : 1;
    }

    private void run(String text) {
        Evaluator.Outcome outcome = evaluator.run(text);
        allRan &= outcome.ran();
        out.print(outcome.transcript());
        print(out, outcome.output());
        print(err, outcome.remark());
    }

    private static void print(PrintStream stream, String text) {
        if (!text.isEmpty()) {
            stream.println(text);
            stream.flush();
        }
    }
}
