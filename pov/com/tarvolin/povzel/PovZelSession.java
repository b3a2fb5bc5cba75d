package com.tarvolin.povzel;

import java.util.ArrayList;
import java.util.Arrays;
import java.util.Collections;
import java.util.List;
import java.util.function.Consumer;
import java.util.function.Supplier;

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
 * process, because the native library takes no more.
 *
 * <p>These values of Java can be given to the database, as arguments and as elements: {@code null},
 * {@code Boolean}, {@code Character}, {@code Byte} to {@code Long} and {@code java.math.BigInteger}
 * as far as the database's integers go, {@code Double} and {@code Float}, {@code String} (stored in
 * one byte per character when it is plain ASCII and in two otherwise),
 * {@code java.time.LocalDateTime} in milliseconds, {@code byte[]}, {@code Object[]} and {@code List}
 * of such values, and {@link PovZelObject}. Anything else is refused with an
 * {@code IllegalArgumentException}.
 *
 * <p>A failing call throws a {@link PovZelException}; a call after {@link #close()} throws an
 * {@code IllegalStateException}.
 */
public final class PovZelSession implements AutoCloseable {
    private final PovZelCalls calls;
    private final PovZelConverter converter;
    private final List<Consumer<PovZelObject>> listeners = new ArrayList<>();

    private PovZelSession(int id) {
        calls = new PovZelCalls(this, id);
        converter = calls.converter();
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
     * @param server the server's name
     * @param user the database user
     * @param password the user's password
     * @return the session
     * @throws PovZelException if the library cannot be loaded or the login is refused
     */
    public static PovZelSession login(String server, String user, String password) {
        return login(server, null, user, password, null, null);
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
        PovZelLibrary.LOCK.lock();
        try {
            PovZelLibrary.initialize();
            return new PovZelSession(PovZelLibrary.check(e -> PovZelInterface._login(server, kellService,
                    user, password, hostUser, hostPassword, e)));
        } finally {
            PovZelLibrary.LOCK.unlock();
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
     * @return its result: null, a {@code Boolean}, {@code Character}, {@code Long}, {@code Double},
     *     {@code String} or {@code LocalDateTime} when it is such a value, a {@link PovZelObject}
     *     otherwise
     * @throws PovZelException if it cannot be compiled or ends in an error
     */
    public Object execute(String text) {
        requireText(text, "text");
        return calls.locked(() -> {
            PovZelReport result = new PovZelReport();
            calls.call((id, e) -> PovZelInterface._executeStr(id, text, result, e));
            return converter.value(result);
        });
    }

    /**
     * Compiles and runs a text that is a string in the database.
     *
     * @param text the string
     * @return its result, as {@link #execute(String)} returns it
     * @throws PovZelException if it cannot be compiled or ends in an error
     */
    public Object execute(PovZelObject text) {
        return calls.locked(() -> {
            PovZelReport result = new PovZelReport();
            PovZelReport source = converter.report(text);
            calls.call((id, e) -> PovZelInterface._executeObj(id, source, result, e));
            return converter.value(result);
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
        requireText(text, "text");
        return calls.locked(() -> {
            PovZelReport result = new PovZelReport();
            calls.call((id, e) -> PovZelInterface._executeStr(id, text, result, e));
            return PovZelValues.isReference(result.oop) ? calls.hold(result.oop)
                    : PovZelValues.immediate(result.oop);
        });
    }

    /**
     * Compiles and runs a text, and returns a reference to its result.
     *
     * @param text the text
     * @return a reference to the result
     * @throws PovZelException if it cannot be compiled or ends in an error
     * @throws IllegalArgumentException if the result is no object with contents: see
     *     {@link #evaluate}
     */
    public PovZelObject executeForObject(String text) {
        Object result = evaluate(text);
        if (result instanceof PovZelObject) {
            return (PovZelObject) result;
        }
        throw new IllegalArgumentException("The result " + result + " of " + text
                + " is a value, not an object to refer to");
    }

    /**
     * Sends a message.
     *
     * @param receiver the receiver, of the types listed above
     * @param selector the message's name, such as {@code at:put:}
     * @param arguments the arguments, at most 20
     * @return the answer, as {@link #execute(String)} returns it
     * @throws PovZelException if the database reports an error
     */
    public Object perform(Object receiver, String selector, Object... arguments) {
        requireText(selector, "selector");
        return calls.locked(() -> {
            PovZelReport to = converter.report(receiver);
            // perform(receiver, selector, null) means one argument, nil.
            List<?> values = arguments == null ? Collections.singletonList(null) : Arrays.asList(arguments);
            PovZelReport[] with = converter.reports(values);
            PovZelReport result = new PovZelReport();
            calls.call((id, e) -> PovZelInterface._perform(id, to, selector, with, with.length, result, e));
            return converter.value(result);
        });
    }

    /**
     * Resumes the process that an error suspended, as if what failed had returned a value.
     *
     * @param suspended the error
     * @param value the value, of the types listed above
     * @return the process's result, as {@link #execute(String)} returns it
     * @throws PovZelException if the process ends in an error again, or cannot be resumed
     */
    public Object continueWith(PovZelException suspended, Object value) {
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
     */
    public Object continueWithError(PovZelException suspended, String message, String stack) {
        requireText(message, "message");
        requireText(stack, "stack");
        return calls.locked(() -> resume(suspended, null, message, stack));
    }

    /**
     * Resumes the process that an interrupt suspended, where it was.
     *
     * @param suspended the error that reported the interrupt
     * @return the process's result, as {@link #execute(String)} returns it
     * @throws PovZelException if the process ends in an error, or cannot be resumed
     */
    public Object continueAfterInterrupt(PovZelException suspended) {
        return calls.locked(() -> resume(suspended, null, null, null));
    }

    private Object resume(PovZelException suspended, PovZelReport value, String message, String stack) {
        PovZelReport process = PovZelValues.existing(suspended.context);
        PovZelReport result = new PovZelReport();
        calls.call((id, e) -> PovZelInterface._continue(id, process, value, result, message, stack, e));
        return converter.value(result);
    }

    /**
     * Returns a reference to the object that an oop names, such as one of an exception's arguments.
     *
     * @param oop the oop
     * @return the reference
     * @throws PovZelException if there is no such object
     * @throws IllegalArgumentException if the oop is a value, such as nil or a small integer
     */
    public PovZelObject object(long oop) {
        if (!PovZelValues.isReference(oop)) {
            throw new IllegalArgumentException("The oop " + oop
                    + " is a value of its own and names no object: " + PovZelValues.immediate(oop));
        }
        return calls.locked(() -> {
            calls.describe(PovZelValues.existing(oop));
            return calls.hold(oop);
        });
    }

    /**
     * Returns the value that an oop names, such as one of an exception's arguments.
     *
     * @param oop the oop
     * @return the value, as {@link #execute(String)} returns it
     * @throws PovZelException if there is no such object
     */
    public Object value(long oop) {
        return PovZelValues.isReference(oop)
                ? calls.locked(() -> converter.value(calls.describe(PovZelValues.existing(oop))))
                : PovZelValues.immediate(oop);
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
        requireText(text, "text");
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
        requireText(text, "text");
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
        return calls.locked(() -> {
            PovZelObject object = executeForObject("ByteArray new");
            object.setBytes(bytes);
            return object;
        });
    }

    /**
     * Creates an array.
     *
     * @param elements its elements, of the types listed above
     * @return a reference to the array
     * @throws PovZelException if it cannot be created
     */
    public PovZelObject newArray(List<?> elements) {
        return calls.locked(() -> converter.newArray(elements));
    }

    /**
     * Adds a listener that {@link #pollChanges()} tells of changed objects.
     *
     * @param listener is given a reference of its own to each object
     */
    public void onChange(Consumer<PovZelObject> listener) {
        calls.locked(() -> listeners.add(listener));
    }

    /**
     * Asks the database which objects that the program refers to have been changed since it was asked
     * last, and tells the listeners, on this thread.
     *
     * @return the changed objects
     * @throws PovZelException if the database reports an error
     */
    public List<PovZelObject> pollChanges() {
        List<Consumer<PovZelObject>> told = new ArrayList<>();
        List<PovZelObject> changed = calls.locked(() -> {
            told.addAll(listeners);
            return changedObjects();
        });
        for (Consumer<PovZelObject> listener : told) {
            changed.forEach(listener);
        }
        return changed;
    }

    private List<PovZelObject> changedObjects() {
        List<PovZelObject> changed = new ArrayList<>();
        long[] oops = new long[Math.min(1024, PovZelLibrary.oopCapacity())];
        int count;
        do {
            count = calls.call((id, e) -> PovZelInterface._changedOops(id, oops, oops.length, e));
            for (int i = 0; i < count; i++) {
                changed.add(calls.hold(oops[i]));
            }
        } while (count == oops.length);
        return changed;
    }

    /**
     * Ends the session. Does nothing when it has ended.
     *
     * @throws PovZelException if the database reports an error; the session has ended all the same
     */
    @Override
    public void close() {
        calls.end();
    }

    PovZelCalls calls() {
        return calls;
    }

    private PovZelObject create(PovZelReport value) {
        calls.describe(value);
        return calls.hold(value.oop);
    }

    private static void requireText(String text, String what) {
        if (text == null) {
            throw new IllegalArgumentException("The " + what + " is null");
        }
    }
}
