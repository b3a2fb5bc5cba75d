package com.tarvolin.povzel;

import java.io.IOException;
import java.io.InputStream;

/**
 * Reads a byte object from its first byte on, one transfer buffer at a time. What came with the
 * object's description is not fetched again.
 */
final class PovZelInputStream extends InputStream {
    private final PovZelObject object;
    private final long size;
    /** What is in hand: {@link #next} bytes from before {@link #position}, the others behind it. */
    private byte[] chunk;
    private int next;
    private int filled;
    private long position;
    private volatile boolean closed;

    PovZelInputStream(PovZelObject object) {
        PovZelReport report = object.describeBytes();
        this.object = object;
        this.size = report.indexedSize;
        this.chunk = report.valueBytes;
        this.filled = chunk.length;
    }

    @Override
    public int read() throws IOException {
        return fill() ? chunk[take(1)] & 0xFF : -1;
    }

    @Override
    public int read(byte[] bytes, int offset, int length) throws IOException {
        if (offset < 0 || length < 0 || length > bytes.length - offset) {
            throw new IndexOutOfBoundsException(offset + " and " + length + " of " + bytes.length);
        }
        requireOpen();
        if (length == 0) {
            return 0;
        }
        if (!fill()) {
            return -1;
        }
        int count = Math.min(length, filled - next);
        System.arraycopy(chunk, take(count), bytes, offset, count);
        return count;
    }

    @Override
    public long skip(long count) throws IOException {
        requireOpen();
        long skipped = Math.max(0, Math.min(count, size - position));
        if (skipped < filled - next) {
            take((int) skipped);
        } else {
            position += skipped;
            next = 0;
            filled = 0;
        }
        return skipped;
    }

    /** All that is left, as of a file: readers of packed data take 0 for the end. */
    @Override
    public int available() throws IOException {
        requireOpen();
        return (int) Math.min(size - position, Integer.MAX_VALUE);
    }

    @Override
    public void close() {
        closed = true;
    }

    private int take(int count) {
        int from = next;
        next += count;
        position += count;
        return from;
    }

    /** Whether there is a byte at the position; fetches it when it is not in hand. */
    private boolean fill() throws IOException {
        requireOpen();
        if (next < filled) {
            return true;
        }
        int count = (int) Math.min(size - position, PovZelLibrary.byteCapacity());
        next = 0;
        filled = 0;
        if (count == 0) {
            return false;
        }
        if (chunk.length < count) {
            chunk = new byte[count];
        }
        try {
            object.fetch(position + 1, count, chunk);
        } catch (PovZelException | IllegalStateException e) {
            throw new IOException("Cannot read " + object + " from byte " + (position + 1) + " on: "
                    + e.getMessage(), e);
        }
        filled = count;
        return true;
    }

    private void requireOpen() throws IOException {
        if (closed) {
            throw new IOException("The stream is closed");
        }
        if (!object.isUsable()) {
            throw new IOException("Cannot read " + object + ": its reference or session is closed");
        }
    }
}
