package com.tarvolin.povzel;

import java.io.IOException;
import java.io.InputStream;

/** Reads a byte object from its first byte on, one transfer buffer at a time. */
final class PovZelInputStream extends InputStream {
    private final PovZelObject object;
    private final long size;
    private final byte[] chunk;
    /** What {@link #chunk} holds begins {@link #next} bytes before the position. */
    private long position;
    private int next;
    private int filled;

    PovZelInputStream(PovZelObject object) {
        this.object = object;
        this.size = object.byteSize();
        this.chunk = new byte[(int) Math.min(Math.max(size, 1), PovZelLibrary.byteCapacity())];
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
    public long skip(long count) {
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

    @Override
    public int available() {
        return filled - next;
    }

    private int take(int count) {
        int from = next;
        next += count;
        position += count;
        return from;
    }

    /** Whether there is a byte at the position; fetches it when it is not in the chunk. */
    private boolean fill() throws IOException {
        if (next < filled) {
            return true;
        }
        int count = (int) Math.min(size - position, chunk.length);
        next = 0;
        filled = 0;
        if (count == 0) {
            return false;
        }
        try {
            object.fetch(position + 1, count, chunk);
        } catch (PovZelException e) {
            throw new IOException("Cannot read " + object + " from byte " + (position + 1) + " on: "
                    + e.getMessage(), e);
        }
        filled = count;
        return true;
    }
}
