package com.tarvolin.povzel;

/**
 * Something that a program registered and can take back, such as a listener:
 *
 * <pre>{@code
 * try (PovZelRegistration watch = session.onChange(object -> System.out.println(object))) {
 *     session.pollChanges();
 * }
 * }</pre>
 */
public interface PovZelRegistration extends AutoCloseable {
    /**
     * Ends the registration. Does nothing when it has ended; never throws and never waits, from
     * whichever thread.
     */
    @Override
    void close();
}
