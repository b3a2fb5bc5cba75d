package com.tarvolin.povzel;

/**
 * The database has no room for what was asked of it. The references and sessions that the
 * program has forgotten were given up before this was thrown, so that the next call may find room.
 *
 * <pre>{@code
 * try {
 *     session.execute("Array new: 100000000");
 * } catch (PovZelMemoryException e) {
 *     session.abort();
 * }
 * }</pre>
 */
public final class PovZelMemoryException extends PovZelException {
    private static final long serialVersionUID = 1L;

    PovZelMemoryException(PovZelException report) {
        super(report);
    }
}
