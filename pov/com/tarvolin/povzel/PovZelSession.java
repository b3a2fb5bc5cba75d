package com.tarvolin.povzel;

import java.time.Duration;
import java.util.Arrays;
import java.util.Collections;
import java.util.List;
import java.util.Map;
import java.util.Objects;
import java.util.Set;
import java.util.concurrent.Callable;
import java.util.concurrent.Executors;
import java.util.concurrent.atomic.AtomicBoolean;
import java.util.function.Consumer;
import java.util.function.Function;
import java.util.function.IntFunction;

/**
 * A session with the database.
 *
 * <pre>{@code
 * try (PovZelSession session = PovZelSession.login("DataCurator", "swordfish")) {
 *     Object seven = session.execute("3 + 4");
 * }
 * }</pre>
 *
 * <p>Sessions may be used from any thread; calls are made one at a time, across all sessions of the
 * process, because the native library takes no more. Other threads can end a call, see {@link
 * #interrupt()}, {@link #cancel()} and {@link #setTimeout}.
 *
 * <p>These values of Java can be given to the database, as arguments and as elements:
 *
 * <ul>
 *   <li>{@code null}, {@code Boolean}, {@code Character}, {@code Byte} to {@code Long}, {@code Double}
 *       and {@code Float}, {@code java.math.BigInteger} of 65,536 bits at most;
 *   <li>{@code String} and other {@code CharSequence}s, stored in one byte per character when they are
 *       plain ASCII and in two otherwise;
 *   <li>{@code java.time.LocalDateTime}, {@code Instant}, as its date-time in UTC, and
 *       {@code LocalDate}, as its midnight; they are refused when they are finer than milliseconds,
 *       unless {@link #truncateTimes} says otherwise;
 *   <li>{@code byte[]} as a byte array; all other arrays, {@code List}s, other {@code Collection}s and
 *       {@code Iterable}s as arrays, {@code Set}s as sets and {@code Map}s as dictionaries, with all
 *       that they contain, however deep. A container that is met twice becomes one object, one that
 *       contains itself is refused;
 *   <li>{@link PovZelObject}.
 * </ul>
 *
 * <p>Anything else is refused with an {@code IllegalArgumentException} that names its class and its
 * place. A parameter may be null only where it is such a value, or where its description says so:
 * other nulls are refused with a {@code NullPointerException} that names the parameter.
 *
 * <p>A failing call throws a {@link PovZelException}; a call after {@link #close()} throws an
 * {@code IllegalStateException}.
 */
public final class PovZelSession implements AutoCloseable {
    private static final int TOO_MANY_SESSIONS = 2512;
    private static final Duration LONGEST_TIMEOUT = Duration.ofDays(36_500);
    private static final int MOST_ARGUMENTS = 20;
    private static final IntFunction<String> ARGUMENTS = index -> "argument " + (index + 1);

    private final PovZelCalls calls;
    private final PovZelConverter converter;
    private final PovZelChanges changes;
    private final AtomicBoolean inTransaction = new AtomicBoolean();
    /** The object that knows of transactions; fetched early, as a text may end a program that failed. */
    private PovZelObject system;

    private PovZelSession(int id) {
        calls = new PovZelCalls(this, id);
        converter = calls.converter();
        changes = new PovZelChanges(calls, oops ->
                calls.call((session, e) -> PovZelInterface._changedOops(session, oops, oops.length, e)));
    }

    /**
     * Logs in to the database that needs no server's name, such as the embedded one.
     *
     * @param user the database user
     * @param password the user's password
     * @return the session
     * @throws PovZelException if the library cannot be loaded or the login is refused
     */
    public static PovZelSession login(String user, String password) {
        return login("", user, password);
    }

    /**
     * Logs in to the database of a server.
     *
     * @param server the server's name; of the embedded database one that has a {@code /} or ends in
     *     {@code .povzel} is a file, relative to the working folder. With {@code ?create=true} behind it
     *     the first commit makes a file that is not there, whose users {@code SystemUser} and
     *     {@code DataCurator} get the password; the user must be one of them. Empty for the database
     *     that needs no name
     * @param user the database user
     * @param password the user's password
     * @return the session
     * @throws PovZelException if the library cannot be loaded or the login is refused
     */
    public static PovZelSession login(String server, String user, String password) {
        return login(server, null, user, password, null, null);
    }

    /**
     * Logs in to the database of a server, unless the library is busy for too long.
     *
     * @param server the server's name; empty for the database that needs none, such as the embedded one
     * @param user the database user
     * @param password the user's password
     * @param wait how long this may wait for the calls of others; null or zero for as long as it takes
     * @return the session
     * @throws PovZelTimeoutException if the library was busy all the time
     * @throws PovZelException if the library cannot be loaded or the login is refused
     * @throws IllegalArgumentException if the time is negative
     */
    public static PovZelSession login(String server, String user, String password, Duration wait) {
        return login(server, null, user, password, null, null, nanos(wait));
    }

    /**
     * Logs in to the database of a server on another host.
     *
     * @param server the server's name
     * @param kellService the name of the Kell service on that host, or null
     * @param user the database user
     * @param password the user's password
     * @param hostUser the user on that host, or null
     * @param hostPassword the password of that user, or null
     * @return the session
     * @throws PovZelException if the library cannot be loaded or the login is refused
     */
    public static PovZelSession login(String server, String kellService, String user, String password,
            String hostUser, String hostPassword) {
        return login(server, kellService, user, password, hostUser, hostPassword, 0);
    }

    /**
     * Logs in to the database that needs no server's name, such as the embedded one.
     *
     * @param user the database user
     * @param password the user's password, left untouched. What the library is given is a copy, which
     *     is gone when Java's collector has run
     * @return the session
     * @throws PovZelException if the library cannot be loaded or the login is refused
     */
    public static PovZelSession login(String user, char[] password) {
        return login("", user, password);
    }

    /**
     * Logs in to the database of a server.
     *
     * @param server the server's name
     * @param user the database user
     * @param password the user's password, as in {@link #login(String, char[])}
     * @return the session
     * @throws PovZelException if the library cannot be loaded or the login is refused
     */
    public static PovZelSession login(String server, String user, char[] password) {
        return login(server, null, user, password, null, null);
    }

    /**
     * Logs in to the database of a server on another host.
     *
     * @param server the server's name
     * @param kellService the name of the Kell service on that host, or null
     * @param user the database user
     * @param password the user's password, as in {@link #login(String, char[])}
     * @param hostUser the user on that host, or null
     * @param hostPassword the password of that user, left untouched, or null
     * @return the session
     * @throws PovZelException if the library cannot be loaded or the login is refused
     */
    public static PovZelSession login(String server, String kellService, String user, char[] password,
            String hostUser, char[] hostPassword) {
        return login(server, kellService, user, text(password), hostUser, text(hostPassword), 0);
    }

    private static String text(char[] password) {
        return password == null ? null : new String(password);
    }

    /** The same, with a time to wait for the library, 0 for as long as it takes. */
    static PovZelSession login(String server, String kellService, String user, String password,
            String hostUser, String hostPassword, long nanos) {
        Objects.requireNonNull(server, "The server is null");
        Objects.requireNonNull(user, "The user is null");
        Objects.requireNonNull(password, "The password is null");
        PovZelTurn turn = new PovZelTurn(null, PovZelTurn.Kind.CALL, nanos);
        PovZelLibrary.LOCK.enter(turn);
        try {
            PovZelLibrary.initialize();
            return open(login(e -> PovZelInterface._login(server, kellService, user, password,
                    hostUser, hostPassword, e)));
        } finally {
            PovZelLibrary.LOCK.leave(turn);
        }
    }

    private static PovZelSession open(int id) {
        PovZelSession session;
        try {
            session = new PovZelSession(id);
        } catch (VirtualMachineError e) {
            PovZelInterface._logout(id, null);
            throw e;
        }
        session.fetchSystem();
        return session;
    }

    /** Logs in; once more, when what the program forgot may have been in the way. */
    private static int login(PovZelLibrary.Native call) {
        try {
            return attemptLogin(call);
        } catch (PovZelException e) {
            if (e.getNumber() != TOO_MANY_SESSIONS && !(e instanceof PovZelMemoryException)) {
                throw e;
            }
        }
        PovZelLogins.collect();
        return attemptLogin(call);
    }

    private static int attemptLogin(PovZelLibrary.Native call) {
        try {
            return PovZelLibrary.check(call);
        } catch (PovZelMemoryException e) {
            throw e;
        } catch (PovZelException e) {
            throw new PovZelLoginException(e);
        }
    }

    /**
     * Returns the database's number for the session.
     *
     * @return the session's id
     */
    public int id() {
        return calls.sessionId();
    }

    /**
     * Compiles and runs a text.
     *
     * @param text the text
     * @return its result: null, a {@code Boolean}, {@code Character}, {@code Long},
     *     {@code BigInteger}, {@code Double}, {@code String} or {@code LocalDateTime} when it is such a
     *     value, a {@link PovZelObject} otherwise
     * @throws PovZelException if it cannot be compiled or ends in an error
     */
    public Object execute(String text) {
        Objects.requireNonNull(text, "The text is null");
        return calls.locked(() -> executed(text, converter::value));
    }

    /**
     * Compiles and runs a text that is a string in the database.
     *
     * @param text the string
     * @return its result, as {@link #execute(String)} returns it
     * @throws PovZelException if it cannot be compiled or ends in an error
     */
    public Object execute(PovZelObject text) {
        Objects.requireNonNull(text, "The text is null");
        return calls.locked(() -> {
            PovZelReport result = new PovZelReport();
            PovZelReport source = converter.report(text, "the text");
            return calls.ask((id, e) -> PovZelInterface._executeObj(id, source, result, e),
                    () -> converter.value(result));
        });
    }

    /**
     * Compiles and runs a text, and returns its result as it is: a reference even when
     * {@link #execute(String)} would convert a string or another object.
     *
     * @param text the text
     * @return null, a {@code Boolean}, {@code Character} or {@code Long} when the result is nil, such
     *     a value or a small integer; a {@link PovZelObject} otherwise
     * @throws PovZelException if it cannot be compiled or ends in an error
     */
    public Object evaluate(String text) {
        Objects.requireNonNull(text, "The text is null");
        return calls.locked(() -> executed(text, converter::valueOrReference));
    }

    /**
     * Compiles and runs a text, and returns a reference to its result even when {@link #execute(String)}
     * would convert a string or another object.
     *
     * @param text the text
     * @return a reference to the result
     * @throws PovZelException if it cannot be compiled or ends in an error
     * @throws IllegalArgumentException if the result is no object with contents, but nil, a boolean, a
     *     character or a small integer: see {@link #evaluate}
     */
    public PovZelObject executeForObject(String text) {
        return requireObject(evaluate(text), text);
    }

    private static PovZelObject requireObject(Object result, String of) {
        if (result instanceof PovZelObject) {
            return (PovZelObject) result;
        }
        throw new IllegalArgumentException("The result " + result + " of " + of
                + " is a value, not an object to refer to");
    }

    /**
     * Compiles and runs a text, and returns its result as a value of the class that the program wants.
     *
     * <p>A number becomes one of another class when that is exact, a date-time an {@code Instant} (it is
     * taken as UTC) or, at midnight, a {@code LocalDate}; containers come with all that they contain, as
     * {@link PovZelObject#value()} returns them. With {@code PovZelObject} the result is a reference,
     * with {@code Object} it is as {@link #execute(String)} returns it.
     *
     * <pre>{@code
     * int seven = session.executeFor(Integer.class, "3 + 4");
     * List<?> squares = session.executeFor(List.class, "(1 to: 3) collect: [:i | i * i]");
     * }</pre>
     *
     * @param <T> the class
     * @param type the class, that of a primitive type included
     * @param text the text
     * @return its result, null for nil
     * @throws PovZelException if it cannot be compiled or ends in an error
     * @throws IllegalArgumentException if the result is no such value, or not exactly; nil is no value
     *     of a primitive type
     */
    public <T> T executeFor(Class<T> type, String text) {
        Objects.requireNonNull(type, "The type is null");
        Objects.requireNonNull(text, "The text is null");
        return calls.locked(() -> executed(text, result -> converter.value(result, type)));
    }

    /**
     * Sends a message.
     *
     * @param receiver the receiver, of the types listed above
     * @param selector the message's name, such as {@code at:put:}
     * @param arguments the arguments, at most 20
     * @return the answer, as {@link #execute(String)} returns it
     * @throws PovZelException if the database reports an error
     * @throws IllegalArgumentException if there are more arguments, or one cannot be passed
     */
    public Object perform(Object receiver, String selector, Object... arguments) {
        Objects.requireNonNull(selector, "The selector is null");
        return calls.locked(() -> answered(receiver, selector, arguments, converter::value));
    }

    /**
     * Sends a message, and returns a reference to the answer even when {@link #perform} would convert a
     * string or another object.
     *
     * @param receiver the receiver, of the types listed above
     * @param selector the message's name
     * @param arguments the arguments, at most 20
     * @return a reference to the answer
     * @throws PovZelException if the database reports an error
     * @throws IllegalArgumentException if the answer is no object with contents: see {@link #evaluate}
     */
    public PovZelObject performForObject(Object receiver, String selector, Object... arguments) {
        Objects.requireNonNull(selector, "The selector is null");
        return requireObject(calls.locked(() -> answered(receiver, selector, arguments,
                converter::valueOrReference)), selector);
    }

    /**
     * Sends a message, and returns the answer as a value of the class that the program wants.
     *
     * @param <T> the class
     * @param type the class
     * @param receiver the receiver, of the types listed above
     * @param selector the message's name
     * @param arguments the arguments, at most 20
     * @return the answer, converted as {@link #executeFor} does it
     * @throws PovZelException if the database reports an error
     * @throws IllegalArgumentException if the answer is no such value, or not exactly
     */
    public <T> T performFor(Class<T> type, Object receiver, String selector, Object... arguments) {
        Objects.requireNonNull(type, "The type is null");
        Objects.requireNonNull(selector, "The selector is null");
        return calls.locked(() -> answered(receiver, selector, arguments,
                result -> converter.value(result, type)));
    }

    private <T> T executed(String text, Function<PovZelReport, T> conversion) {
        PovZelReport result = new PovZelReport();
        return calls.ask((id, e) -> PovZelInterface._executeStr(id, text, result, e),
                () -> conversion.apply(result));
    }

    private <T> T answered(Object receiver, String selector, Object[] arguments,
            Function<PovZelReport, T> conversion) {
        PovZelReport to = converter.report(receiver, "the receiver");
        // perform(receiver, selector, null) means one argument, nil.
        List<?> values = arguments == null ? Collections.singletonList(null) : Arrays.asList(arguments);
        if (values.size() > MOST_ARGUMENTS) {
            throw new IllegalArgumentException("A message has " + MOST_ARGUMENTS
                    + " arguments at most, not " + values.size());
        }
        PovZelReport[] with = converter.reports(values, ARGUMENTS);
        PovZelReport result = new PovZelReport();
        return calls.ask(
                (id, e) -> PovZelInterface._perform(id, to, selector, with, with.length, result, e),
                () -> conversion.apply(result));
    }

    /**
     * Resumes the process that an error suspended, as if what failed had returned a value.
     *
     * <p>A {@code Set} or {@code Map} takes a program to store, before which the database gives up a
     * process that has blocks to run at its end; all other values take none.
     *
     * @param suspended the error
     * @param value the value, of the types listed above
     * @return the process's result, as {@link #execute(String)} returns it
     * @throws PovZelException if the process ends in an error again, or cannot be resumed
     * @throws IllegalArgumentException if the error has no process, as of a text that was not compiled,
     *     or of a call that was broken before a program of its own ran
     */
    public Object continueWith(PovZelException suspended, Object value) {
        Objects.requireNonNull(suspended, "The suspended error is null");
        return calls.locked(() -> resume(suspended, converter.report(value), null, null));
    }

    /**
     * Resumes the process that an error suspended by raising another error in it.
     *
     * @param suspended the error
     * @param message the new error's text
     * @param stack a description of where it came from
     * @return the process's result, as {@link #execute(String)} returns it
     * @throws PovZelException if the process ends in an error again, or cannot be resumed
     * @throws IllegalArgumentException if the error has no process, as of a text that was not compiled,
     *     or of a call that was broken before a program of its own ran
     */
    public Object continueWithError(PovZelException suspended, String message, String stack) {
        Objects.requireNonNull(suspended, "The suspended error is null");
        Objects.requireNonNull(message, "The message is null");
        Objects.requireNonNull(stack, "The stack is null");
        return calls.locked(() -> resume(suspended, null, message, stack));
    }

    /**
     * Resumes the process that an interrupt suspended, where it was.
     *
     * @param suspended the error that reported the interrupt
     * @return the process's result, as {@link #execute(String)} returns it
     * @throws PovZelException if the process ends in an error, or cannot be resumed
     * @throws IllegalArgumentException if the error has no process: the call was interrupted before a
     *     program of its own ran, and can be made again
     */
    public Object continueAfterInterrupt(PovZelException suspended) {
        Objects.requireNonNull(suspended, "The suspended error is null");
        return calls.locked(() -> resume(suspended, null, null, null));
    }

    @SuppressWarnings("deprecation")
    private Object resume(PovZelException suspended, PovZelReport value, String message, String stack) {
        if (!PovZelValues.isReference(suspended.context)) {
            throw new IllegalArgumentException("The error has no process to go on with: " + suspended);
        }
        PovZelReport process = PovZelValues.existing(suspended.context);
        calls.touch(process.oop);
        PovZelReport result = new PovZelReport();
        return calls.ask(
                (id, e) -> PovZelInterface._continue(id, process, value, result, message, stack, e),
                () -> converter.value(result));
    }

    /**
     * Returns a reference to the object that an oop names, such as one of an exception's arguments.
     *
     * @param oop the oop
     * @return the reference
     * @throws PovZelException if there is no such object
     * @throws IllegalArgumentException if the oop is a value, such as nil or a small integer, or none
     */
    public PovZelObject object(long oop) {
        PovZelValues.requireOop(oop);
        if (!PovZelValues.isReference(oop)) {
            throw new IllegalArgumentException("The oop " + oop
                    + " is a value of its own and names no object: " + PovZelValues.immediate(oop));
        }
        return calls.locked(() ->
                converter.reference(calls.describe(PovZelValues.existing(oop))));
    }

    /**
     * Returns the value that an oop names, such as one of an exception's arguments.
     *
     * @param oop the oop
     * @return the value, as {@link #execute(String)} returns it
     * @throws PovZelException if there is no such object
     * @throws IllegalArgumentException if the number is no oop, which has 32 bits
     */
    public Object value(long oop) {
        PovZelValues.requireOop(oop);
        return calls.locked(() -> PovZelValues.isReference(oop)
                ? converter.value(calls.describe(PovZelValues.existing(oop)))
                : PovZelValues.immediate(oop));
    }

    /**
     * Creates a single-byte string. Characters beyond ASCII take two or three bytes each, or six;
     * Java reads the text back as it was.
     *
     * @param text the text
     * @return a reference to the string
     * @throws PovZelException if it cannot be created
     */
    public PovZelObject newString(String text) {
        Objects.requireNonNull(text, "The text is null");
        return calls.locked(() -> create(PovZelValues.string(text, false)));
    }

    /**
     * Creates a double-byte string: two bytes for each {@code char}.
     *
     * @param text the text
     * @return a reference to the string
     * @throws PovZelException if it cannot be created
     */
    public PovZelObject newDoubleByteString(String text) {
        Objects.requireNonNull(text, "The text is null");
        return calls.locked(() -> create(PovZelValues.string(text, true)));
    }

    /**
     * Creates a byte array.
     *
     * @param bytes its contents
     * @return a reference to the byte array
     * @throws PovZelException if it cannot be created
     */
    public PovZelObject newBytes(byte[] bytes) {
        Objects.requireNonNull(bytes, "The array of bytes is null");
        return calls.locked(() -> converter.create(bytes, "the bytes"));
    }

    /**
     * Creates an array.
     *
     * @param elements its elements, of the types listed above
     * @return a reference to the array
     * @throws PovZelException if it cannot be created
     */
    public PovZelObject newArray(List<?> elements) {
        Objects.requireNonNull(elements, "The list of elements is null");
        return calls.locked(() -> converter.create(elements.toArray(), "the array"));
    }

    /**
     * Creates a set.
     *
     * @param elements its elements, of the types listed above
     * @return a reference to the set
     * @throws PovZelException if it cannot be created
     * @throws IllegalArgumentException if some of the elements are equal in the database, as 1 and 1.0
     *     are
     */
    public PovZelObject newSet(Set<?> elements) {
        Objects.requireNonNull(elements, "The set of elements is null");
        return calls.locked(() -> converter.create(elements, "the set"));
    }

    /**
     * Creates a dictionary. The first one of a session, or of what a session is given, compiles a short
     * text of its own.
     *
     * @param entries its keys and values, of the types listed above
     * @return a reference to the dictionary
     * @throws PovZelException if it cannot be created
     * @throws IllegalArgumentException if some of the keys are equal in the database, as 1 and 1.0 are
     */
    public PovZelObject newDictionary(Map<?, ?> entries) {
        Objects.requireNonNull(entries, "The map of entries is null");
        return calls.locked(() -> converter.create(entries, "the dictionary"));
    }

    /**
     * Says what becomes of times that are finer than the database's milliseconds: they are refused,
     * unless this lets the session cut them. Takes effect with the next call, and waits for none.
     *
     * @param truncate whether they are cut to the millisecond before
     * @throws IllegalStateException if the session is closed
     */
    public void truncateTimes(boolean truncate) {
        calls.requireOpen();
        converter.truncateTimes(truncate);
    }

    /**
     * Adds a listener that {@link #pollChanges()} tells of changed objects. One that is added by a
     * listener, while changes are being told, is told from the next poll on.
     *
     * @param listener is given a reference of its own to each object, and may close it
     * @return closed to be told no more: from then on no call of the listener begins, those of a poll
     *     under way included; a program that keeps the listener for good need not keep it
     */
    public PovZelRegistration onChange(Consumer<PovZelObject> listener) {
        Objects.requireNonNull(listener, "The listener is null");
        calls.requireOpen();
        return changes.add(listener);
    }

    /**
     * Asks the database which objects that the program refers to are no longer what they were when it
     * was asked last, and tells the listeners, on this thread: all of them of all changes, each once.
     * These are what the session has changed itself, and what others have committed, as soon as this
     * session sees it: at once while its transaction has looked at nothing, else from its commit,
     * abort or {@link #refresh()} on. What a
     * listener throws is thrown when everything has been told, the first exception with the others as
     * suppressed ones. Nothing is lost then, nor when the database fails half way: the next poll
     * returns what this one could not, and tells the listeners what they were not told.
     *
     * @return the changed objects
     * @throws PovZelException if the database reports an error
     */
    public List<PovZelObject> pollChanges() {
        return changes.poll();
    }

    // ---- Breaks and timeouts ----

    /**
     * Interrupts the call of this session that is under way, so that it can be continued: it throws
     * a {@link PovZelException} with the number 6003, and {@link #continueAfterInterrupt} goes on
     * where the program was. When none is under way, those that wait for the library throw it; a
     * later call is never interrupted. From any thread.
     *
     * <p>Only the text or message of an execute, perform or continue can be continued. While its
     * arguments are stored, and in calls that have no program of their own, such as {@link
     * PovZelObject#value()}, the exception comes without a process; while the result is read, the call
     * goes on.
     *
     * @return whether there was such a call
     */
    public boolean interrupt() {
        return PovZelLibrary.LOCK.breakCall(calls, PovZelTurn.Break.SOFT);
    }

    /**
     * Stops the call of this session that is under way for good: it throws a {@link
     * PovZelCancelledException}. The program's {@code ensure:} blocks are run, for a second at
     * most; a second call ends these, too. When no call is under way, those that wait for the
     * library throw it; a later call is never stopped. From any thread.
     *
     * <p>A call that ends by itself before it is told to returns as if nothing had been.
     *
     * <p>{@link Thread#interrupt()} does the same to a thread that is in a call, or begins one. The
     * thread stays interrupted. {@link #abort()} and {@link #close()} are made all the same, within a
     * call that is stopped, too.
     *
     * @return whether there was such a call
     */
    public boolean cancel() {
        return PovZelLibrary.LOCK.breakCall(calls, PovZelTurn.Break.CANCEL);
    }

    /**
     * Sets how long each call of this session may take from now on, the time included for which it
     * waits for the calls of others. One that takes longer is stopped as {@link #cancel()} does,
     * and throws a {@link PovZelTimeoutException}. A commit that has begun, an abort and the
     * session's end take the time that they take.
     *
     * @param timeout the time; null or zero for as long as it takes, which is the rule
     * @throws IllegalArgumentException if it is negative
     * @throws IllegalStateException if the session is closed
     */
    public void setTimeout(Duration timeout) {
        long nanos = nanos(timeout);
        calls.requireOpen();
        calls.setTimeout(nanos);
    }

    /**
     * Tells whether the session is open and the database answers.
     *
     * @param timeout how long to wait for the answer, the time included in which calls of others
     *     are under way; null or zero for as long as it takes
     * @return whether it does, in that time
     * @throws IllegalArgumentException if the time is negative
     * @throws PovZelCancelledException if the call is cancelled, or its thread interrupted
     * @throws PovZelException with the number 6003 if the call is interrupted
     */
    public boolean isValid(Duration timeout) {
        return isValid(nanos(timeout), () -> { });
    }

    /** The same, which tells when it has the library. */
    boolean isValid(long nanos, Runnable hasTurn) {
        try {
            return calls.locked(PovZelTurn.Kind.CALL, nanos, () -> {
                hasTurn.run();
                perform(null, "yourself");
                return true;
            });
        } catch (PovZelException e) {
            if (calls.isOpen() && e.isBreak()) {
                throw e;
            }
            return false;
        } catch (IllegalStateException e) {
            return false;
        }
    }

    /** A time as the locks take it, 0 for none. */
    static long nanos(Duration timeout) {
        if (timeout == null) {
            return 0;
        }
        if (timeout.isNegative()) {
            throw new IllegalArgumentException("The time " + timeout + " is negative");
        }
        return (timeout.compareTo(LONGEST_TIMEOUT) < 0 ? timeout : LONGEST_TIMEOUT).toNanos();
    }

    // ---- Transactions ----

    /**
     * Makes what the session has changed the database's, whole or not at all, and begins the next
     * transaction. A session sees what was committed when its transaction first asked for something,
     * and its own changes, which nobody else sees until this. What the transaction only read counts,
     * too, if it changes anything: what it committed is as if no other session had been at work
     * meanwhile. Objects that nothing in the database refers to are not stored.
     *
     * @throws PovZelConflictException if another session has committed a change to something that
     *     this transaction has read or written; nothing is committed then, and the session keeps its
     *     changes until it aborts
     * @throws PovZelException if the database reports another error
     * @throws IllegalStateException within {@link #transaction(Callable)}, which commits by itself
     */
    public void commit() {
        requireNoTransaction();
        makeCommit();
    }

    private void requireNoTransaction() {
        if (inTransaction.get()) {
            throw new IllegalStateException(
                    "A transaction of this session is under way, which commits or aborts by itself");
        }
    }

    private void makeCommit() {
        calls.locked(PovZelTurn.Kind.COMMIT, calls.timeout(),
                () -> calls.call((id, e) -> PovZelSupport.commit(id, e)));
    }

    /**
     * Takes back what the session has changed since its last commit, and begins the next transaction,
     * which sees what others have committed. Objects that the session has made keep their contents,
     * and its variables their values. Nothing stops an abort.
     *
     * @throws PovZelException if the database reports an error
     * @throws IllegalStateException within {@link #transaction(Callable)}, which aborts when its work
     *     throws something
     */
    public void abort() {
        requireNoTransaction();
        makeAbort();
    }

    private void makeAbort() {
        calls.locked(PovZelTurn.Kind.UNBREAKABLE, 0,
                () -> calls.call((id, e) -> PovZelSupport.abort(id, e)));
    }

    /**
     * Shows a session that has changed nothing what others have committed: its next transaction
     * begins.
     *
     * @throws PovZelException with the number 2521 if there is something to commit, which would not
     *     fit there: commit or abort it first
     * @throws PovZelException if the database reports another error
     * @throws IllegalStateException within {@link #transaction(Callable)}, whose work is one
     *     transaction
     */
    public void refresh() {
        requireNoTransaction();
        askSystem("refresh");
    }

    /**
     * Tells whether the session has changed something in the database that it has not committed.
     * Objects that it has made and that the database does not refer to are no such change.
     *
     * @return whether it has
     * @throws PovZelException if the database reports an error
     */
    public boolean needsCommit() {
        return Boolean.TRUE.equals(askSystem("needsCommit"));
    }

    private Object askSystem(String selector) {
        return calls.locked(() -> {
            if (system == null) {
                system = executeForObject("System");
            }
            return system.perform(selector);
        });
    }

    /** Where that fails, whoever needs the object tries again and is told. */
    private void fetchSystem() {
        try {
            calls.unbroken(() -> system = executeForObject("System"));
        } catch (PovZelException | IllegalArgumentException | VirtualMachineError e) {
            system = null;
        }
    }

    /**
     * Does something and commits it; when it throws anything, or the commit fails, all is taken
     * back. What the session has read since its last commit, abort or {@link #refresh()} is part of
     * it: when another session has changed that, the commit fails.
     *
     * <pre>{@code
     * session.transaction(() -> {
     *     from.perform("withdraw:", 100);
     *     return to.perform("deposit:", 100);
     * });
     * }</pre>
     *
     * @param <T> what the work returns
     * @param work what to do, on this thread
     * @return what the work returns
     * @throws Exception what the work throws; an abort that fails thereupon is among its suppressed
     * @throws PovZelException if the commit fails
     * @throws IllegalStateException if a transaction is under way, or something was changed before
     *     it that is not committed
     */
    public <T> T transaction(Callable<T> work) throws Exception {
        return transaction(0, work);
    }

    /**
     * Does something and commits it; when another session was faster, all is taken back and done
     * once more, with what that one has committed. A conflict of another session that the work uses,
     * and one whose changes cannot be taken back, is thrown at once.
     *
     * @param <T> what the work returns
     * @param retries how often it may be repeated on a {@link PovZelConflictException}
     * @param work what to do, on this thread, perhaps several times
     * @return what the work returns
     * @throws Exception what the work throws; an abort that fails thereupon is among its suppressed
     * @throws PovZelException if the commit fails: the last conflict, or another error
     * @throws IllegalStateException if a transaction is under way, or something was changed before
     *     it that is not committed
     */
    public <T> T transaction(int retries, Callable<T> work) throws Exception {
        if (retries < 0) {
            throw new IllegalArgumentException("retries is negative: " + retries);
        }
        if (work == null) {
            throw new NullPointerException("The work is null");
        }
        if (!inTransaction.compareAndSet(false, true)) {
            throw new IllegalStateException("A transaction of this session is under way");
        }
        try {
            if (needsCommit()) {
                throw new IllegalStateException(
                        "There are changes that are not committed: commit or abort them first");
            }
            for (int left = retries; ; left--) {
                try {
                    T result = work.call();
                    makeCommit();
                    return result;
                } catch (Throwable failure) {
                    if (!abortAfter(failure) || left == 0 || !isConflict(failure)) {
                        throw failure;
                    }
                }
            }
        } finally {
            inTransaction.set(false);
        }
    }

    /**
     * Does something that returns nothing, and commits it, as {@link #transaction(Callable)} does.
     *
     * @param work what to do, on this thread
     * @throws PovZelException if the commit fails
     * @throws IllegalStateException if a transaction is under way, or something was changed before
     *     it that is not committed
     */
    public void transaction(Runnable work) {
        transaction(0, work);
    }

    /**
     * Does something that returns nothing, as {@link #transaction(int, Callable)} does.
     *
     * @param retries how often it may be repeated on a {@link PovZelConflictException}
     * @param work what to do, on this thread, perhaps several times
     * @throws PovZelException if the commit fails: the last conflict, or another error
     * @throws IllegalStateException if a transaction is under way, or something was changed before
     *     it that is not committed
     */
    public void transaction(int retries, Runnable work) {
        try {
            transaction(retries, work == null ? null : Executors.callable(work));
        } catch (RuntimeException e) {
            throw e;
        } catch (Exception e) {
            throw new AssertionError("A Runnable threw " + e, e);
        }
    }

    private boolean isConflict(Throwable failure) {
        return failure instanceof PovZelConflictException
                && ((PovZelConflictException) failure).sessionId() == id();
    }

    /** Takes all back; answers whether that was done. */
    private boolean abortAfter(Throwable failure) {
        if (!calls.isOpen()) {
            return false;
        }
        try {
            makeAbort();
            return true;
        } catch (Throwable e) {
            if (e != failure) {
                failure.addSuppressed(e);
            }
            return false;
        }
    }

    /**
     * Ends the session. Does nothing when it has ended. While another thread has the library, this
     * returns at once: the session is closed, its call that may be under way is stopped as {@link
     * #cancel()} does, and the database is told when that thread's call ends.
     *
     * <p>A session that is forgotten without this is logged out after Java's collector found it, and a
     * warning to the log {@code com.tarvolin.povzel} of java.util.logging shows where it was logged in.
     * Its references keep it, and so do the exceptions of its calls, which have some. One that comes
     * from a {@link PovZelPool} is given back to it.
     *
     * @throws PovZelException if the database reports an error; the session has ended all the same
     */
    @Override
    public void close() {
        calls.end();
    }

    @Override
    public String toString() {
        return "session " + id();
    }

    PovZelCalls calls() {
        return calls;
    }

    private PovZelObject create(PovZelReport value) {
        return converter.reference(calls.describe(value));
    }
}
