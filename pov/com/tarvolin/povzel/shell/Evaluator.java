package com.tarvolin.povzel.shell;

import com.tarvolin.povzel.PovZelException;
import com.tarvolin.povzel.PovZelObject;
import com.tarvolin.povzel.PovZelSession;
import java.util.Locale;
import java.util.function.Function;
import java.util.function.LongSupplier;

/** Runs what the user enters: texts, and commands that begin with a colon. */
final class Evaluator {
    private static final long SLOW_NANOS = 1_000_000_000L;
    /** The built-in database carries this one out without running a program. */
    private static final String TAKE_TRANSCRIPT = "System takeTranscript";
    private static final String HELP = """
            A text is run in the database and its result is printed. Or:
              :inspect TEXT   shows everything that the database tells of a text's result
              :class TEXT     shows the class of a text's result, and what that inherits from
              :stack          shows where the text that failed last was, innermost first
              :session        shows who is logged in and where
              :help           shows this
              :quit           ends; so does the end of the input
            Without a TEXT, :inspect and :class show the last result. At a terminal, Ctrl-C drops
            what is being entered; while a text runs, it ends the shell.""";

    private final PovZelSession session;
    private final Printer printer;
    private final String description;
    private final Function<Object, String> look;
    private final LongSupplier clock;
    private final boolean embedded;
    private Object last;
    private PovZelException failure;
    private boolean finished;

    /** What became of an entry: what the program wrote, its result, and what else there is to say. */
    record Outcome(boolean ran, String transcript, String output, String remark) {
        private static Outcome result(String output) {
            return new Outcome(true, "", output, "");
        }

        private static Outcome failure(String remark) {
            return new Outcome(false, "", "", remark);
        }
    }

    /** Shows results with their class, or as another program would want them. */
    Evaluator(PovZelSession session, String description, boolean withClass, boolean embedded) {
        this(session, description, withClass, embedded, System::nanoTime);
    }

    Evaluator(PovZelSession session, String description, boolean withClass, boolean embedded,
            LongSupplier clock) {
        this.clock = clock;
        this.embedded = embedded;
        this.session = session;
        this.printer = new Printer(session);
        this.description = description;
        this.look = withClass ? printer::withClass : printer::plain;
    }

    /** Whether the user asked to end. */
    boolean finished() {
        return finished;
    }

    Outcome run(String entry) {
        String text = entry.strip();
        if (text.isEmpty()) {
            return Outcome.result("");
        }
        long start = clock.getAsLong();
        Outcome outcome = attempt(text);
        long nanos = clock.getAsLong() - start;
        String remark = nanos < SLOW_NANOS ? outcome.remark : withTime(outcome.remark, nanos);
        return new Outcome(outcome.ran, transcript(), outcome.output, remark);
    }

    /** What the program wrote to the Transcript, in whole lines; no trouble with it hides the result. */
    private String transcript() {
        if (!embedded) {
            return "";
        }
        try {
            String text = (String) session.execute(TAKE_TRANSCRIPT);
            return text.isEmpty() || text.endsWith("\n") ? text : text + "\n";
        } catch (PovZelException | IllegalStateException e) {
            return "";
        }
    }

    private Outcome attempt(String text) {
        try {
            return text.startsWith(":") ? command(text) : Outcome.result(look.apply(evaluate(text)));
        } catch (PovZelException e) {
            return Outcome.failure(printer.error(e));
        } catch (IllegalArgumentException e) {
            return Outcome.failure(e.getMessage());
        }
    }

    private Object evaluate(String text) {
        Object result;
        try {
            result = session.evaluate(text);
        } catch (PovZelException e) {
            failure = e;
            throw e;
        }
        if (last instanceof PovZelObject former) {
            former.close();
        }
        last = result;
        return result;
    }

    private Outcome command(String text) {
        String[] words = text.split("\\s+", 2);
        String rest = words.length > 1 ? words[1] : "";
        return switch (words[0]) {
            case ":help" -> Outcome.result(HELP);
            case ":inspect" -> Outcome.result(printer.inspection(subject(rest)));
            case ":class" -> Outcome.result(lineage(printer.classOf(subject(rest))));
            case ":stack" -> stack();
            case ":session" -> Outcome.result("session " + session.id() + ", " + description);
            case ":quit" -> {
                finished = true;
                yield Outcome.result("");
            }
            default -> Outcome.failure("no command " + words[0] + "; :help shows those there are");
        };
    }

    private Outcome stack() {
        String stack = failure == null ? null : failure.getStack();
        return stack == null ? Outcome.failure("no text has failed while it ran")
                : Outcome.result(stack);
    }

    private Object subject(String text) {
        return text.isEmpty() ? last : evaluate(text);
    }

    private String lineage(Object cls) {
        StringBuilder names = new StringBuilder();
        for (Object c = cls; c != null; c = session.perform(c, "superclass")) {
            names.append(names.length() == 0 ? "" : " < ").append(session.perform(c, "name"));
        }
        return names.toString();
    }

    private static String withTime(String remark, long nanos) {
        String time = String.format(Locale.ROOT, "(%.3f s)", nanos / 1e9);
        return remark.isEmpty() ? time : remark + "\n" + time;
    }
}
