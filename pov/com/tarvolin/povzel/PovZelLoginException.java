package com.tarvolin.povzel;

/**
 * A login that the database refused.
 *
 * <pre>{@code
 * try (PovZelSession session = PovZelSession.login("DataCurator", "guess")) {
 *     session.execute("3 + 4");
 * } catch (PovZelLoginException e) {
 *     System.out.println("Not let in: " + e.getMessage());
 * }
 * }</pre>
 */
public final class PovZelLoginException extends PovZelException {
    private static final long serialVersionUID = 1L;

    PovZelLoginException(PovZelException report) {
        super(report);
    }
}
