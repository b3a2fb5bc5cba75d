package com.tarvolin.povzel;

/**
 * A call that took longer than its session allows. What it ran was stopped. Or a pool had no session
 * to give in the time that it may take.
 *
 * <pre>{@code
 * session.setTimeout(Duration.ofSeconds(5));
 * try {
 *     session.execute("[true] whileTrue");
 * } catch (PovZelTimeoutException e) {
 *     System.out.println("It was at " + e.getStack());
 * }
 * }</pre>
 *
 * @see PovZelSession#setTimeout(java.time.Duration)
 * @see PovZelPool.Builder#maxWait(java.time.Duration)
 */
public final class PovZelTimeoutException extends PovZelException {
    private static final long serialVersionUID = 1L;

    PovZelTimeoutException(PovZelException report) {
        super(report);
    }
}
