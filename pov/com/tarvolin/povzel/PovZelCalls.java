package com.tarvolin.povzel;

import java.util.ArrayList;
import java.util.Arrays;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.atomic.AtomicBoolean;
import java.util.function.Supplier;

/** How a session's natives are called: one at a time, while the session is open. */
final class PovZelCalls {
    private static final PovZelReport[] NO_ARGUMENTS = {};

    private final PovZelSession session;
    private final int id;
    private final PovZelReferences references = new PovZelReferences();
    private final PovZelLogins.Login login;
    private final PovZelConverter converter = new PovZelConverter(this);
    private final AtomicBoolean open = new AtomicBoolean(true);
    private final Map<Long, String> categories = new HashMap<>();
    private volatile long timeoutNanos;

    PovZelCalls(PovZelSession session, int id) {
        this.session = session;
        this.id = id;
        login = PovZelLogins.add(session, id, references);
    }

    /** A native of this session. */
    interface Call {
        int call(int sessionId, PovZelException errorReport);
    }

    /** A native of this session that fills reports. */
    interface Fetch {
        int call(PovZelReport[] reports, int sessionId, PovZelException errorReport);
    }

    int sessionId() {
        return id;
    }

    PovZelSession session() {
        return session;
    }

    PovZelReferences references() {
        return references;
    }

    PovZelLogins.Login login() {
        return login;
    }

    boolean isOpen() {
        return open.get();
    }

    void requireOpen() {
        if (!isOpen()) {
            throw new IllegalStateException("The session is closed");
        }
    }

    /** Sets how long a call may take, 0 for as long as it likes. */
    void setTimeout(long nanos) {
        timeoutNanos = nanos;
    }

    long timeout() {
        return timeoutNanos;
    }

    /**
     * Ends the session, unless it has ended. While another thread has the library it is left to
     * that one to log out, which the session's call that may be under way is broken for. A session of
     * a pool is given back to it.
     */
    void end() {
        PovZelLock.requireStack();
        if (!open.compareAndSet(true, false)) {
            return;
        }
        PovZelLogins.remove(login);
        try {
            logOut();
        } finally {
            PovZelPool pool = login.pool();
            if (pool != null) {
                pool.giveBack();
            }
        }
    }

    private void logOut() {
        PovZelTurn turn = new PovZelTurn(null, PovZelTurn.Kind.UNBREAKABLE, 0);
        if (PovZelLibrary.LOCK.close(this, turn)) {
            try {
                PovZelLibrary.check(e -> PovZelInterface._logout(id, e));
            } finally {
                PovZelLibrary.LOCK.leave(turn);
            }
        }
    }

    /**
     * Does something with the library's lock held and the session open. References that were given
     * up are released first, and only in the outermost call: none that the work still uses can be
     * among them.
     */
    <T> T locked(Supplier<T> work) {
        return locked(PovZelTurn.Kind.CALL, timeoutNanos, work);
    }

    /**
     * The same, as a call of another kind or with a timeout of its own, 0 for none. Within a call of
     * the same session it is a part of that, unless it is one that nothing ends.
     */
    <T> T locked(PovZelTurn.Kind kind, long nanos, Supplier<T> work) {
        PovZelTurn mine = PovZelLibrary.LOCK.mine();
        if (mine != null && mine.calls == this
                && (kind != PovZelTurn.Kind.UNBREAKABLE || mine.kind == kind)) {
            mine.requireUnbroken();
            return work.get();
        }
        PovZelTurn turn = new PovZelTurn(this, kind, nanos);
        PovZelLibrary.LOCK.enter(turn);
        try {
            turn.requireUnbroken();
            if (turn.outer == null) {
                references.releaseUnused(id);
            }
            turn.loud = true;
            return work.get();
        } finally {
            PovZelLibrary.LOCK.leave(turn);
        }
    }

    /** Calls a native of this session. */
    int call(Call call) {
        return locked(() -> attempt(call));
    }

    /** Does something that nothing ends, a broken call around it included. */
    void unbroken(Runnable work) {
        locked(PovZelTurn.Kind.UNBREAKABLE, 0, () -> {
            work.run();
            return null;
        });
    }

    /**
     * Does something with what the native answers that a call is made for. That native alone can be
     * interrupted: before it the call can be made again, behind it there is nothing to continue.
     */
    <T> T ask(Call call, Supplier<T> behind) {
        attempt(call, true);
        PovZelTurn turn = PovZelLibrary.LOCK.mine();
        boolean nested = turn.answered;
        turn.answered = true;
        try {
            return behind.get();
        } finally {
            turn.answered = nested;
        }
    }

    /**
     * Calls a native that moves contents, and may be called once more when the database had no
     * room.
     */
    int transfer(Call call) {
        return locked(() -> {
            try {
                return attempt(call);
            } catch (PovZelMemoryException e) {
                return attempt(call);
            }
        });
    }

    private int attempt(Call call) {
        return attempt(call, false);
    }

    private int attempt(Call call, boolean asked) {
        PovZelTurn turn = PovZelLibrary.LOCK.mine();
        turn.requireUnbroken();
        turn.fresh = false;
        if (asked) {
            turn.softly = true;
        } else if (turn.softly) {
            PovZelLibrary.LOCK.hushSoftly(turn);
        }
        try {
            return PovZelLibrary.check(e -> call.call(id, e));
        } catch (PovZelException e) {
            PovZelLibrary.LOCK.hush(turn);
            e.noteSession(id);
            try {
                complete(e);
                if (e instanceof PovZelMemoryException && !turn.collected) {
                    turn.collected = true;
                    PovZelLogins.collect();
                }
            } finally {
                turn.loud = true;
            }
            throw e instanceof PovZelCancelledException && turn.broken == PovZelTurn.Break.TIMEOUT
                    ? new PovZelTimeoutException(e) : e;
        }
    }

    /**
     * Fetches what an error names: it would be collected before the program looks at it, or be out
     * of reach when the session is closed. No program of the database's users runs for that, which
     * would end the one that failed.
     */
    @SuppressWarnings("deprecation")
    private void complete(PovZelException e) {
        if (e.fatal || !isOpen()) {
            return;
        }
        Object process = named(e.context);
        List<Object> arguments = new ArrayList<>(e.argCount);
        for (int i = 0; i < e.argCount; i++) {
            arguments.add(named(e.args[i]));
        }
        if (!categories.containsKey(e.category)) {
            categories.put(e.category, answerOf(e.category, "printString"));
        }
        e.complete(process, arguments, categories.get(e.category), answerOf(e.context, "stack"));
    }

    /** What an oop names: a value where that takes no further native, or a reference. */
    private Object named(long oop) {
        if (!PovZelValues.isReference(oop)) {
            return PovZelValues.isImmediate(oop) ? PovZelValues.immediate(oop) : "oop " + oop;
        }
        PovZelReport report = PovZelValues.existing(oop);
        if (PovZelInterface._setup(id, report, null) != 0) {
            return "oop " + oop;
        }
        references.touch(oop);
        try {
            boolean simple = report.isString ? report.valueBytes.length == report.indexedSize
                    : report.valueType != PovZelValues.VALUE_BYTES;
            Object value = simple ? converter.simpleValue(report) : null;
            return value != null ? value : hold(oop);
        } catch (IllegalArgumentException e) {
            return hold(oop);
        }
    }

    /** The text that an object answers to a message; null when it has no such answer. */
    private String answerOf(long oop, String selector) {
        PovZelReport text = new PovZelReport();
        PovZelReport receiver = PovZelValues.existing(oop);
        if (!PovZelValues.isReference(oop) || PovZelInterface._perform(id, receiver, selector,
                NO_ARGUMENTS, 0, text, null) != 0) {
            return null;
        }
        references.touch(text.oop);
        if (!text.isString) {
            return null;
        }
        byte[] bytes = Arrays.copyOf(text.valueBytes, (int) text.indexedSize);
        byte[] chunk = new byte[Math.min(bytes.length - text.valueBytes.length,
                PovZelLibrary.byteCapacity())];
        for (int done = text.valueBytes.length, count; done < bytes.length; done += count) {
            count = Math.min(chunk.length, bytes.length - done);
            if (PovZelInterface._getBytes(id, PovZelValues.existing(text.oop), done + 1L, count,
                    chunk, null) < 0) {
                return null;
            }
            System.arraycopy(chunk, 0, bytes, done, count);
        }
        return text.isDBString ? PovZelValues.decodeDoubleByte(bytes)
                : PovZelValues.decodeSingleByte(bytes);
    }

    /**
     * Calls a native that fills up to {@code count} reports, and returns the oops that they have: fewer
     * when there are no more. What these name lives until the call that is under way ends.
     */
    long[] fetch(int count, Fetch fetch) {
        PovZelReport[] reports = new PovZelReport[count];
        Arrays.setAll(reports, i -> new PovZelReport());
        long[] oops = new long[transfer((id, e) -> fetch.call(reports, id, e))];
        for (int i = 0; i < oops.length; i++) {
            oops[i] = reports[i].oop;
            references.touch(oops[i]);
        }
        return oops;
    }

    /** Fills a report that holds an oop. */
    PovZelReport describe(PovZelReport report) {
        transfer((id, e) -> PovZelInterface._setup(id, report, e));
        references.touch(report.oop);
        return report;
    }

    /** A new reference to an object that the database has exported. */
    PovZelObject hold(long oop) {
        return new PovZelObject(session, oop, references);
    }

    void release(PovZelReferences.Handle handle) {
        references.release(handle);
    }

    /** Keeps what an oop names until the call that is under way ends. */
    void touch(long oop) {
        references.touch(oop);
    }

    PovZelConverter converter() {
        return converter;
    }

    /** How many objects the program refers to. */
    int heldObjects() {
        return locked(references::held);
    }
}
