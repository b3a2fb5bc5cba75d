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
    /** Of a program that is to go on and is not there any longer. */
    private static final int ENDED = 2510;
    private static final long NIL = 10;

    private final PovZelSession session;
    private final Options options;
    private final Interrupts interrupts;
    private final Printer printer;
    private final Function<Object, String> look;
    private Runnable attempted;
    private Object last;
    /** Of the text that failed last, or whose result could not be shown. */
    private PovZelException failure;
    /** Of the text that can go on; null if none can. */
    private PovZelException interruption;
    private boolean timed;
    private boolean evaluated;
    /** Whether the text that was run last came to its end, whatever became of its result. */
    private boolean ran;
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

    /**
     * Shows a conversation's results with their class, others as another program would want them.
     *
     * @param interrupts those of the conversation; null if there is none
     */
    Evaluator(PovZelSession session, Options options, Interrupts interrupts) {
        this.session = session;
        this.interrupts = interrupts;
        this.options = options;
        printer = new Printer(session);
        look = options.inJson() ? new Json(session, printer)::result
                : interrupts != null ? printer::whole : printer::plain;
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
        return run(entry, () -> { });
    }

    /** Runs an entry, and tells when all is done that may be interrupted. */
    Outcome run(Entry entry, Runnable attempted) {
        this.attempted = attempted;
        evaluated = false;
        ran = false;
        long start = System.nanoTime();
        Outcome outcome = attempt(entry);
        long nanos = System.nanoTime() - start;
        attempted.run();
        // A text that was interrupted may go on, with what it has changed so far.
        if (options.commit && evaluated && (ran || interruption == null)) {
            outcome = settled(entry, outcome);
        }
        String remark = timed && evaluated ? withTime(outcome.remark, nanos) : outcome.remark;
        return new Outcome(outcome.ran, transcript(), outcome.output, remark);
    }

    /** Commits what an entry changed; what one changed that failed is not for the next to commit. */
    private Outcome settled(Entry entry, Outcome outcome) {
        Outcome settled = guarded(entry.start(), ran ? this::commit : this::abort);
        lost |= !ran && !settled.ran;
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
                : guarded(entry.start(), () -> shown(look, evaluate(() -> session.evaluate(entry.text()))));
    }

    /** The output of what the database does for an entry that begins at a place. */
    private Outcome guarded(Place start, Supplier<String> work) {
        try {
            return Outcome.result(work.get());
        } catch (PovZelException e) {
            // An interrupt has had its effect, and is not for what tells of it.
            attempted.run();
            Trouble trouble = printer.trouble(e, start);
            lost |= trouble.fatal();
            return failed(trouble, e == interruption ? "\n  " + Command.CONTINUE.word() + " goes on with it"
                    : e.getNumber() == ENDED ? "\n  a later text ended what was interrupted"
                    : e == failure && ran ? "\n  the text ran, but its result cannot be shown" : "");
        } catch (IllegalArgumentException e) {
            return failed(new Trouble(start, 0, e.getMessage()));
        }
    }

    private Outcome failed(Trouble trouble) {
        return failed(trouble, "");
    }

    private Outcome failed(Trouble trouble, String more) {
        return options.inJson() ? new Outcome(false, "", Json.error(trouble), "")
                : new Outcome(false, "", null, trouble.text() + more);
    }

    /** The result of a text that is run, or goes on. */
    private Object evaluate(Supplier<Object> run) {
        Object result;
        evaluated = true;
        try {
            result = run.get();
            ran = true;
        } catch (PovZelException e) {
            failure = e;
            interruption = isContinuable(e) ? e : hasRun(e) ? null : interruption;
            throw e;
        }
        if (last instanceof PovZelObject former) {
            former.close();
        }
        last = result;
        return result;
    }

    /** Whether Ctrl-C reached a program, rather than its compilation or the fetching of its result. */
    @SuppressWarnings("deprecation")
    private static boolean isContinuable(PovZelException e) {
        return e.getNumber() == INTERRUPTED && e.context != NIL;
    }

    /** Whether a program ran, rather than that the text is none. */
    @SuppressWarnings("deprecation")
    private static boolean hasRun(PovZelException e) {
        return e.getNumber() != Input.COMPILE_ERROR || e.context != NIL;
    }

    private Outcome command(Entry entry) {
        Command.Call call = Command.call(entry.text().strip());
        String rest = call.rest();
        if (call.command() == null) {
            return failed(new Trouble(entry.start(), 0, "no command " + call.name() + "; "
                    + Command.HELP.word() + " shows those there are"));
        }
        return switch (call.command()) {
            case LOAD -> attempt(loaded(rest, entry.start()));
            case INSPECT -> viewed(entry, rest, printer::inspection);
            case CLASS -> viewed(entry, rest, value -> printer.lineage(printer.classOf(value)));
            case DESCRIBE -> viewed(entry, rest, rest.isEmpty() ? this::lastDescription : printer::description);
            case CONTINUE -> guarded(entry.start(), () -> shown(look, evaluate(continuation())));
            case STACK -> guarded(entry.start(), () -> told(stack()));
            case COMMIT -> guarded(entry.start(), this::commit).saying("committed", options.quiet);
            case ABORT -> guarded(entry.start(), this::abort).saying("aborted", options.quiet);
            case REFRESH -> guarded(entry.start(), this::refresh).saying("refreshed", options.quiet);
            case TIME -> guarded(entry.start(), () -> time(rest));
            case SESSION ->
                    Outcome.result(told("session " + session.id() + ", " + options.description()));
            case HELP -> Outcome.result(told(Command.help()));
            case QUIT -> {
                finished = true;
                yield Outcome.result(null);
            }
        };
    }

    /** The text in a file, for which the user of a conversation need not wait. */
    private Entry loaded(String name, Place start) {
        if (name.isEmpty()) {
            return new Entry("", false, start, new Trouble(start, 0, "name the file that is to be loaded"));
        }
        Entry read = interrupts == null ? Input.file(name, start)
                : interrupts.aside(() -> Input.file(name, start));
        return read != null ? read
                : new Entry("", false, start, new Trouble(start, 0, "interrupted before " + name + " was read"));
    }

    /** A view of the result of the text behind a command's name; without one, of the last result. */
    private Outcome viewed(Entry entry, String text, Function<Object, String> view) {
        return text.isEmpty() ? guarded(entry.start(), () -> told(shown(view, last)))
                : guarded(entry.at(text), () -> told(shown(view, evaluate(() -> session.evaluate(text)))));
    }

    private String lastDescription(Object result) {
        try {
            return printer.description(result);
        } catch (IllegalArgumentException e) {
            throw new IllegalArgumentException(e.getMessage() + "; name one, as in "
                    + Command.DESCRIBE.word() + " Object", e);
        }
    }

    /** What a result looks like. Finding that out runs programs, after which no former one can go on. */
    private String shown(Function<Object, String> view, Object result) {
        try {
            return view.apply(result);
        } catch (PovZelException e) {
            failure = e;
            interruption = null;
            throw e;
        }
    }

    /** What a command tells, which is no result. */
    private String told(String text) {
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
        PovZelException suspended = interruption;
        if (suspended == null) {
            throw new IllegalArgumentException("there is no interrupted text, or another failed since");
        }
        interruption = null;
        return () -> session.continueAfterInterrupt(suspended);
    }

    private String commit() {
        session.commit();
        return null;
    }

    private String abort() {
        session.abort();
        return null;
    }

    private String refresh() {
        session.refresh();
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
