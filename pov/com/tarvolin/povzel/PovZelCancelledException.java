package com.tarvolin.povzel;

/**
 * A call that was stopped: by {@link PovZelSession#cancel()}, by the end of its session, or because
 * its thread was interrupted, which it still is then.
 *
 * <pre>{@code
 * try {
 *     session.execute("[true] whileTrue");
 * } catch (PovZelCancelledException e) {
 *     System.out.println("Stopped at " + e.getStack());
 * }
 * }</pre>
 */
public final class PovZelCancelledException extends PovZelException {
    private static final long serialVersionUID = 1L;

    PovZelCancelledException(PovZelException report) {
        super(report);
    }
}
