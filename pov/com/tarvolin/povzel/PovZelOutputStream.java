package com.tarvolin.povzel;

import java.io.IOException;
import java.io.OutputStream;
import java.util.Arrays;

/**
 * Writes a byte object from a given byte on, one transfer buffer at a time; the object grows.
 *
 * <p>A write or a flush that fails leaves the stream where it was, so that it can be repeated: what
 * was stored already is then stored in the same place.
 */
final class PovZelOutputStream extends OutputStream {
    private static final int SMALLEST_CHUNK = 512;

    private final PovZelObject object;
    /** How far the object reaches, unless others change it. */
    private long size;
    private byte[] chunk = {};
    private int filled;
    /** The index of the first byte that is not stored. */
    private long position;
    private volatile boolean closed;

    PovZelOutputStream(PovZelObject object, long position) {
        PovZelObject.requireIndex(position, "Bytes");
        this.object = object;
        this.size = object.describeBytes().indexedSize;
        this.position = position;
    }

    @Override
    public void write(int value) throws IOException {
        requireOpen();
        makeRoom(1);
        chunk[filled++] = (byte) value;
        if (filled == PovZelLibrary.byteCapacity()) {
            storeFrom(position + filled - 1);
        }
    }

    @Override
    public void write(byte[] bytes, int offset, int length) throws IOException {
        if (offset < 0 || length < 0 || length > bytes.length - offset) {
            throw new IndexOutOfBoundsException(offset + " and " + length + " of " + bytes.length);
        }
        requireOpen();
        int capacity = PovZelLibrary.byteCapacity();
        long start = position + filled;
        int done = 0;
        while (done < length) {
            int count = Math.min(length - done, capacity - filled);
            makeRoom(count);
            System.arraycopy(bytes, offset + done, chunk, filled, count);
            filled += count;
            done += count;
            if (filled == capacity) {
                storeFrom(start);
            }
        }
    }

    @Override
    public void flush() throws IOException {
        requireOpen();
        store();
    }

    @Override
    public void close() throws IOException {
        if (!closed) {
            closed = true;
            store();
        }
    }

    private void makeRoom(int count) {
        if (count > chunk.length - filled) {
            int wanted = Math.max(Math.max(filled + count, 2 * chunk.length), SMALLEST_CHUNK);
            chunk = Arrays.copyOf(chunk, Math.min(wanted, PovZelLibrary.byteCapacity()));
        }
    }

    /** Stores the chunk, or takes back a write that began at {@code start}. */
    private void storeFrom(long start) throws IOException {
        try {
            store();
        } catch (IOException e) {
            filled = (int) Math.max(0, start - position);
            position = Math.min(position, start);
            throw e;
        }
    }

    private void store() throws IOException {
        if (filled == 0) {
            return;
        }
        try {
            if (position - 1 > size) {
                object.growTo(position - 1);
            }
            object.store(position, filled, chunk);
        } catch (PovZelException | IllegalStateException | IllegalArgumentException e) {
            throw new IOException("Cannot write " + object + ": " + filled + " bytes from byte "
                    + position + " on were not stored: " + e.getMessage(), e);
        }
        position += filled;
        size = Math.max(size, position - 1);
        filled = 0;
    }

    private void requireOpen() throws IOException {
        if (closed) {
            throw new IOException("The stream is closed");
        }
        if (!object.isUsable()) {
            throw new IOException("Cannot write " + object + ": its reference or session is closed");
        }
    }
}
