package com.tarvolin.povzel.shell;

import com.tarvolin.povzel.PovZelException;
import com.tarvolin.povzel.PovZelObject;
import com.tarvolin.povzel.PovZelSession;
import com.tarvolin.povzel.shell.Entry.Place;
import java.util.List;
import java.util.Locale;
import java.util.function.Function;
import java.util.function.Supplier;
import java.util.stream.Collectors;

/** Runs what the user enters: texts, and commands that begin with a colon. */
final class Evaluator {
    /** The built-in database carries these out without running a program. */
    private static final String TAKE_TRANSCRIPT = "System takeTranscript";
    private static final String NAMES = "System names";
    private static final int INTERRUPTED = 6003;

    private final PovZelSession session;
    private final Options options;
    private final Printer printer;
    private final Function<Object, String> look;
    private Object last;
    private PovZelException failure;
    private boolean timed;
    private boolean evaluated;
    private boolean interrupted;
    private boolean finished;
    private boolean lost;

    /**
     * What became of an entry: what the program wrote, its result, null if there is none, and what
     * else there is to say.
     */
    record Outcome(boolean ran, String transcript, String output, String remark) {
        private static Outcome result(String output) {
            return new Outcome(true, "", output, "");
        }

        /** The same with a remark, unless it failed. */
        private Outcome saying(String word, boolean quiet) {
            return ran && !quiet ? new Outcome(true, transcript, output, word) : this;
        }
    }

    /** Shows a conversation's results with their class, others as another program would want them. */
    Evaluator(PovZelSession session, Options options, boolean conversation) {
        this.session = session;
        this.options = options;
        printer = new Printer(session);
        look = options.inJson() ? new Json(session, printer)::result
                : conversation ? printer::whole : printer::plain;
    }

    /** Whether the user asked to end, or the session has ended. */
    boolean finished() {
        return finished || lost;
    }

    /** Whether the session ended before the user did. */
    boolean lost() {
        return lost;
    }

    /** Takes it back that the user asked to end. */
    void goOn() {
        finished = false;
    }

    Outcome run(Entry entry) {
        evaluated = false;
        interrupted = false;
        long start = System.nanoTime();
        Outcome outcome = attempt(entry);
        long nanos = System.nanoTime() - start;
        // A text that was interrupted may go on, with what it has changed so far.
        if (options.commit && evaluated && !interrupted) {
            outcome = settled(entry, outcome);
        }
        String remark = timed && evaluated ? withTime(outcome.remark, nanos) : outcome.remark;
        return new Outcome(outcome.ran, transcript(), outcome.output, remark);
    }

    /** Commits what an entry changed; what one changed that failed is not for the next to commit. */
    private Outcome settled(Entry entry, Outcome outcome) {
        Outcome settled = guarded(entry.start(), outcome.ran ? this::commit : this::abort);
        lost |= !outcome.ran && !settled.ran;
        return outcome.ran && !settled.ran ? settled : outcome;
    }

    /** What the program wrote to the Transcript, in whole lines; no trouble with it hides the result. */
    private String transcript() {
        if (!options.embedded) {
            return "";
        }
        try {
            String text = (String) session.execute(TAKE_TRANSCRIPT);
            return text.isEmpty() || text.endsWith("\n") ? text : text + "\n";
        } catch (PovZelException | IllegalStateException e) {
            return "";
        }
    }

    /** What globals, variables and selectors are called, as far as the database tells. */
    List<String> names() {
        if (!options.embedded) {
            return List.of();
        }
        try {
            return ((String) session.execute(NAMES)).lines().collect(Collectors.toList());
        } catch (PovZelException | IllegalStateException e) {
            return List.of();
        }
    }

    private Outcome attempt(Entry entry) {
        if (entry.fault() != null) {
            return failed(entry.fault());
        }
        if (entry.command()) {
            return command(entry);
        }
        return Text.isEmpty(entry.text()) ? Outcome.result(null)
                : guarded(entry.start(), () -> look.apply(evaluate(() -> session.evaluate(entry.text()))));
    }

    /** The output of what the database does for an entry that begins at a place. */
    private Outcome guarded(Place start, Supplier<String> work) {
        try {
            return Outcome.result(work.get());
        } catch (PovZelException e) {
            Trouble trouble = printer.trouble(e, start);
            lost |= trouble.fatal();
            interrupted = e.getNumber() == INTERRUPTED;
            Outcome outcome = failed(trouble);
            return interrupted && e == failure && !options.inJson() ? new Outcome(false, "", null,
                    outcome.remark + "\n  " + Command.CONTINUE.word() + " goes on with it") : outcome;
        } catch (IllegalArgumentException e) {
            return failed(new Trouble(start, 0, e.getMessage()));
        }
    }

    private Outcome failed(Trouble trouble) {
        return options.inJson() ? new Outcome(false, "", Json.error(trouble), "")
                : new Outcome(false, "", null, trouble.text());
    }

    /** The result of a text that is run, or goes on. */
    private Object evaluate(Supplier<Object> run) {
        Object result;
        evaluated = true;
        try {
            result = run.get();
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

    private Outcome command(Entry entry) {
        Command.Call call = Command.call(entry.text().strip());
        String rest = call.rest();
        if (call.command() == null) {
            return failed(new Trouble(entry.start(), 0, "no command " + call.name() + "; "
                    + Command.HELP.word() + " shows those there are"));
        }
        return switch (call.command()) {
            case LOAD -> attempt(Input.file(rest, entry.start()));
            case INSPECT -> viewed(entry, rest, printer::inspection);
            case CLASS -> viewed(entry, rest, value -> printer.lineage(printer.classOf(value)));
            case DESCRIBE -> viewed(entry, rest, printer::description);
            case CONTINUE -> guarded(entry.start(), () -> look.apply(evaluate(continuation())));
            case STACK -> guarded(entry.start(), () -> shown(stack()));
            case COMMIT -> guarded(entry.start(), this::commit).saying("committed", options.quiet);
            case ABORT -> guarded(entry.start(), this::abort).saying("aborted", options.quiet);
            case TIME -> guarded(entry.start(), () -> time(rest));
            case SESSION ->
                    Outcome.result(shown("session " + session.id() + ", " + options.description()));
            case HELP -> Outcome.result(shown(Command.help()));
            case QUIT -> {
                finished = true;
                yield Outcome.result(null);
            }
        };
    }

    /** A view of the result of the text behind a command's name; without one, of the last result. */
    private Outcome viewed(Entry entry, String text, Function<Object, String> view) {
        return text.isEmpty() ? guarded(entry.start(), () -> shown(view.apply(last)))
                : guarded(entry.at(text), () -> shown(view.apply(evaluate(() -> session.evaluate(text)))));
    }

    /** What a command tells, which is no result. */
    private String shown(String text) {
        return options.inJson() ? Json.quoted(text) : text;
    }

    private String stack() {
        String stack = failure == null ? null : failure.getStack();
        if (stack == null) {
            throw new IllegalArgumentException("no text has failed while it ran");
        }
        return stack;
    }

    private Supplier<Object> continuation() {
        PovZelException interruption = failure;
        if (interruption == null || interruption.getNumber() != INTERRUPTED) {
            throw new IllegalArgumentException("no text has been interrupted, or another failed since");
        }
        return () -> session.continueAfterInterrupt(interruption);
    }

    private String commit() {
        session.commit();
        return null;
    }

    private String abort() {
        session.abort();
        return null;
    }

    private String time(String wanted) {
        if (!wanted.equals("on") && !wanted.equals("off")) {
            throw new IllegalArgumentException("say " + Command.TIME.word() + " on or off");
        }
        timed = wanted.equals("on");
        return null;
    }

    private static String withTime(String remark, long nanos) {
        String time = String.format(Locale.ROOT, "(%.3f s)", nanos / 1e9);
        return remark.isEmpty() ? time : remark + "\n" + time;
    }
}
