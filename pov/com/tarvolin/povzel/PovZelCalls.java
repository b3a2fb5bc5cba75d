package com.tarvolin.povzel;

import java.util.ArrayList;
import java.util.Arrays;
import java.util.function.Supplier;

/** How a session's natives are called: one at a time, while the session is open. */
final class PovZelCalls {
    private final PovZelSession session;
    private final int id;
    private final PovZelReferences references = new PovZelReferences();
    private final PovZelConverter converter = new PovZelConverter(this);
    private volatile boolean open = true;

    PovZelCalls(PovZelSession session, int id) {
        this.session = session;
        this.id = id;
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

    boolean isOpen() {
        return open;
    }

    /** Ends the session, unless it has ended. */
    void end() {
        PovZelLibrary.LOCK.lock();
        try {
            if (open) {
                open = false;
                PovZelLibrary.check(e -> PovZelInterface._logout(id, e));
            }
        } finally {
            PovZelLibrary.LOCK.unlock();
        }
    }

    /**
     * Does something with the library's lock held and the session open. References that were given up
     * are released first, and only in the outermost call: none that the work still uses can be among
     * them.
     */
    <T> T locked(Supplier<T> work) {
        PovZelLibrary.LOCK.lock();
        try {
            if (!open) {
                throw new IllegalStateException("The session is closed");
            }
            if (PovZelLibrary.LOCK.getHoldCount() == 1) {
                references.releaseUnused(id);
            }
            return work.get();
        } finally {
            PovZelLibrary.LOCK.unlock();
        }
    }

    /** Calls a native of this session. */
    int call(Call call) {
        return locked(() -> {
            try {
                return PovZelLibrary.check(e -> call.call(id, e));
            } catch (PovZelException e) {
                keepObjects(e);
                throw e;
            }
        });
    }

    /** What an error names would otherwise be collected before the program looks at it. */
    private void keepObjects(PovZelException e) {
        e.kept = new ArrayList<>();
        if (e.fatal) {
            return;
        }
        keep(e, e.context);
        for (int i = 0; i < e.argCount; i++) {
            keep(e, e.args[i]);
        }
    }

    private void keep(PovZelException e, long oop) {
        if (PovZelValues.isReference(oop)
                && PovZelInterface._setup(id, PovZelValues.existing(oop), new PovZelException()) == 0) {
            e.kept.add(hold(oop));
        }
    }

    /**
     * Calls a native that fills up to {@code count} reports, and returns the oops that they have: fewer
     * when there are no more. What these name lives until the call that is under way ends.
     */
    long[] fetch(int count, Fetch fetch) {
        PovZelReport[] reports = new PovZelReport[count];
        Arrays.setAll(reports, i -> new PovZelReport());
        long[] oops = new long[call((id, e) -> fetch.call(reports, id, e))];
        for (int i = 0; i < oops.length; i++) {
            oops[i] = reports[i].oop;
            references.exported(oops[i]);
        }
        return oops;
    }

    /** Fills a report that holds an oop. */
    PovZelReport describe(PovZelReport report) {
        call((id, e) -> PovZelInterface._setup(id, report, e));
        references.exported(report.oop);
        return report;
    }

    /** A new reference to an object that the database has exported. */
    PovZelObject hold(long oop) {
        return new PovZelObject(session, oop, references);
    }

    void release(PovZelReferences.Handle handle) {
        references.release(handle);
    }

    /** Notes that the database exported an object to which the program got no reference. */
    void exported(long oop) {
        references.exported(oop);
    }

    PovZelConverter converter() {
        return converter;
    }

    /** How many objects the program refers to. */
    int heldObjects() {
        return locked(references::held);
    }
}
