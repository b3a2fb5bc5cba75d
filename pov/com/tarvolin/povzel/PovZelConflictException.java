package com.tarvolin.povzel;

/**
 * Another session changed what this one is changing. Once this one has aborted, it may try again. An
 * error that a program raises with the number 2508 or 2513 is one, too.
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
