package com.tarvolin.povzel;

/**
 * A commit that was refused: since the transaction began, another session has committed a change to
 * something that this one has read or written. The changes are kept, but each further commit is
 * refused as well, until the session aborts: then it sees what the other one did, and may try again.
 * The arguments are the objects concerned, ten at most. An error that a program raises with the number
 * 2513 is one, too.
 *
 * <pre>{@code
 * try {
 *     session.transaction(() -> account.perform("add:", 5));
 * } catch (PovZelConflictException e) {
 *     System.out.println("Somebody else was faster: " + e.getArguments());
 * }
 * }</pre>
 *
 * @see PovZelSession#transaction(int, java.util.concurrent.Callable)
 */
public final class PovZelConflictException extends PovZelException {
    private static final long serialVersionUID = 1L;

    PovZelConflictException(PovZelException report) {
        super(report);
    }
}
