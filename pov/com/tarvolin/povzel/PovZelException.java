package com.tarvolin.povzel;

import java.io.IOException;
import java.io.ObjectInputStream;
import java.io.ObjectOutputStream;
import java.util.ArrayList;
import java.util.Collections;
import java.util.List;

/**
 * A call that failed, with what the database or the bridge says of it.
 *
 * <pre>{@code
 * try {
 *     session.execute("nil foo: 3");
 * } catch (PovZelException e) {
 *     System.out.println(e.getNumber() + " " + e.getName() + " " + e.getArguments());
 *     System.out.println(e.getStack());
 * }
 * }</pre>
 *
 * <p>What programs tell apart has a class of its own: {@link PovZelLoginException}, {@link
 * PovZelConflictException}, {@link PovZelTimeoutException}, {@link PovZelCancelledException} and
 * {@link PovZelMemoryException}. What an exception says is fetched when it is thrown, so it can be
 * read after the session was closed. It refers to objects of the session: while it is kept, a session
 * that the program forgot is not logged out.
 *
 * <p>The natives of {@link PovZelInterface} never throw: they fill the fields of the instance they
 * are given and return a negative status. {@link PovZelSession} throws an exception for it.
 */
public class PovZelException extends RuntimeException {
    private static final long serialVersionUID = 3L;

    /** The number of the bridge's own errors. */
    static final int BRIDGE = 2318;
    private static final int OUT_OF_MEMORY = 2208;
    private static final int CONFLICT = 2513;
    private static final int SOFT_BREAK = 6003;
    private static final int HARD_BREAK = 6004;

    /**
     * The error's number; 2318 for the bridge's own errors.
     *
     * @deprecated for natives to fill; use {@link #getNumber()}
     */
    @Deprecated
    public int number;

    /**
     * The error's text.
     *
     * @deprecated for natives to fill; use {@link #getMessage()}
     */
    @Deprecated
    public String message;

    /**
     * The oop of the error's category; 10, the oop of nil, for the bridge's own errors.
     *
     * @deprecated for natives to fill; use {@link #getCategory()}
     */
    @Deprecated
    public long category;

    /**
     * The oop of the error's context, mostly the process that failed; 10 when there is none.
     *
     * @deprecated for natives to fill; see {@link #getStack()} and {@link
     *     PovZelSession#continueWith}
     */
    @Deprecated
    public long context;

    /**
     * Whether the session is no longer usable.
     *
     * @deprecated for natives to fill; use {@link #isFatal()}
     */
    @Deprecated
    public boolean fatal;

    /**
     * How many of {@link #args} are valid.
     *
     * @deprecated for natives to fill; use {@link #getArguments()}
     */
    @Deprecated
    public int argCount;

    /**
     * The oops of the error's arguments.
     *
     * @deprecated for natives to fill; use {@link #getArguments()}
     */
    @Deprecated
    public long[] args;

    /**
     * What the oops stand for. The references keep their objects as long as this exception is kept.
     */
    private transient List<Object> arguments = new ArrayList<>();
    private transient Object process;
    /** That of the call which threw this; -1 when none did. */
    private transient int sessionId = -1;
    /** See {@link #getCategory()}. */
    private String categoryText;
    /** See {@link #getStack()}. */
    private String stack;

    /** An exception for a native to fill. */
    public PovZelException() {
    }

    /** An exception with what a native filled into another. */
    @SuppressWarnings("deprecation")
    PovZelException(PovZelException filled) {
        number = filled.number;
        message = filled.message;
        category = filled.category;
        context = filled.context;
        fatal = filled.fatal;
        argCount = filled.args == null ? 0 : filled.argCount;
        args = filled.args == null ? new long[0] : filled.args;
        arguments = filled.arguments;
        process = filled.process;
        sessionId = filled.sessionId;
        categoryText = filled.categoryText;
        stack = filled.stack;
        if (filled.getCause() != null) {
            initCause(filled.getCause());
        }
    }

    private PovZelException(boolean withTrace) {
        super(null, null, withTrace, withTrace);
    }

    /** An exception that is never thrown: making the trace costs more than most natives. */
    static PovZelException report() {
        return new PovZelException(false);
    }

    /** An error that was found on this side of the natives. */
    @SuppressWarnings("deprecation")
    static PovZelException failure(int number, String message, Throwable cause) {
        PovZelException report = report();
        report.number = number;
        report.message = message;
        report.category = PovZelValues.NIL;
        report.context = PovZelValues.NIL;
        PovZelException failure = of(report);
        if (cause != null) {
            failure.initCause(cause);
        }
        return failure;
    }

    /** What a broken call throws, of which the library knows nothing. */
    static PovZelException broken(PovZelTurn.Break cause) {
        switch (cause) {
            case SOFT:
                return failure(SOFT_BREAK, "The call was interrupted", null);
            case TIMEOUT:
                return timedOut("The call took too long");
            case THREAD:
                return cancelled("The call was cancelled: its thread is interrupted");
            case CLOSED:
                return cancelled("The call was cancelled: its session was closed");
            default:
                return cancelled("The call was cancelled");
        }
    }

    static PovZelTimeoutException timedOut(String message) {
        return new PovZelTimeoutException(cancelled(message));
    }

    private static PovZelException cancelled(String message) {
        return failure(HARD_BREAK, message, null);
    }

    /** An exception of the class for the error that a native reported. */
    @SuppressWarnings("deprecation")
    static PovZelException of(PovZelException report) {
        switch (report.number) {
            case OUT_OF_MEMORY:
                return new PovZelMemoryException(report);
            case CONFLICT:
                return new PovZelConflictException(report);
            case HARD_BREAK:
                return new PovZelCancelledException(report);
            default:
                return new PovZelException(report);
        }
    }

    /** Adds to the text. */
    @SuppressWarnings("deprecation")
    void explain(String more) {
        message += more;
    }

    /**
     * Adds what the database tells of the error beyond the report; null is what it does not tell.
     */
    void complete(Object failed, List<Object> values, String categoryName, String stackText) {
        process = failed;
        arguments = values;
        categoryText = categoryName;
        stack = stackText;
    }

    /**
     * Writes descriptions in the places of references, which mean nothing elsewhere.
     *
     * @param out where to
     * @throws IOException if it cannot be written
     */
    private void writeObject(ObjectOutputStream out) throws IOException {
        out.defaultWriteObject();
        List<Object> written = new ArrayList<>(getArguments());
        written.replaceAll(each -> each instanceof PovZelObject ? each.toString() : each);
        out.writeObject(written);
    }

    /**
     * Reads what {@code writeObject} wrote.
     *
     * @param in where from
     * @throws IOException if it cannot be read
     * @throws ClassNotFoundException if it has a value of an unknown class
     */
    @SuppressWarnings("unchecked")
    private void readObject(ObjectInputStream in) throws IOException, ClassNotFoundException {
        in.defaultReadObject();
        arguments = (List<Object>) in.readObject();
        sessionId = -1;
    }

    /** Notes which session's call throws this. */
    void noteSession(int id) {
        sessionId = id;
    }

    int sessionId() {
        return sessionId;
    }

    /** Whether this is a call that was broken, which says nothing of the session. */
    boolean isBreak() {
        return getNumber() == SOFT_BREAK || this instanceof PovZelCancelledException;
    }

    /**
     * Returns the error's number.
     *
     * @return the number; 2318 for the bridge's own errors
     */
    @SuppressWarnings("deprecation")
    public int getNumber() {
        return number;
    }

    /**
     * Returns the error's name, by which its number is known.
     *
     * @return the name, such as {@code rtErrDoesNotUnderstand}; null when the number has none
     */
    public String getName() {
        return PovZelLibrary.errorName(getNumber());
    }

    /**
     * Returns the error's text.
     *
     * @return the text
     */
    @Override
    @SuppressWarnings("deprecation")
    public String getMessage() {
        return message;
    }

    /**
     * Returns the category of the error, within which its number counts, as the database prints it.
     *
     * @return the category; null for the bridge's own errors
     */
    public String getCategory() {
        return categoryText;
    }

    /**
     * Returns the error's arguments, such as the receiver and the selector of a message that was
     * not understood.
     *
     * @return the values, as {@link PovZelSession#execute(String)} returns them. References are
     *     closed when their session is; long texts are references. An exception that was serialized
     *     has descriptions in their places
     */
    public List<Object> getArguments() {
        return arguments == null ? Collections.emptyList()
                : Collections.unmodifiableList(arguments);
    }

    /**
     * Returns where the program was when it failed.
     *
     * @return its activations, innermost first, one a line; null when no program ran, or when the
     *     database does not tell
     */
    public String getStack() {
        return stack;
    }

    /**
     * Tells whether the session is no longer usable.
     *
     * @return whether it is not
     */
    @SuppressWarnings("deprecation")
    public boolean isFatal() {
        return fatal;
    }

    /**
     * Returns the exception's class, the error's number and name, and its text.
     *
     * @return the description
     */
    @Override
    public String toString() {
        String name = getName();
        return getClass().getName() + ": error " + getNumber()
                + (name == null ? "" : " (" + name + ")") + ": " + getMessage();
    }
}
