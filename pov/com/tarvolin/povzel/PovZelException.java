package com.tarvolin.povzel;

import java.util.List;

/**
 * A call that failed, with what the database or the bridge says of it.
 *
 * <p>The natives of {@link PovZelInterface} never throw: they fill the instance they are given and
 * return a negative status. {@link PovZelSession} throws it.
 */
public class PovZelException extends RuntimeException {
    private static final long serialVersionUID = 1L;

    /** The error's number; 2318 for the bridge's own errors. */
    public int number;

    /** The error's text. */
    public String message;

    /** The oop of the error's category; 10, the oop of nil, for the bridge's own errors. */
    public long category;

    /** The oop of the error's context, mostly the process that failed; 10 when there is none. */
    public long context;

    /** Whether the session is no longer usable. */
    public boolean fatal;

    /** How many of {@link #args} are valid. */
    public int argCount;

    /** The oops of the error's arguments. */
    public long[] args;

    /** Keeps the context and the arguments in the database as long as this exception is kept. */
    transient List<PovZelObject> kept;

    /** An exception for a native to fill. */
    public PovZelException() {
    }

    /**
     * Returns the error's text.
     *
     * @return the field {@link #message}
     */
    @Override
    public String getMessage() {
        return message;
    }
}
