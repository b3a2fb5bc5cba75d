package com.tarvolin.povzel;

import java.io.IOException;
import java.io.OutputStream;

/** Writes a byte object from a given byte on, one transfer buffer at a time; the object grows. */
final class PovZelOutputStream extends OutputStream {
    private final PovZelObject object;
    private final byte[] chunk = new byte[PovZelLibrary.byteCapacity()];
    private long position;
    private int filled;
    private boolean closed;

    PovZelOutputStream(PovZelObject object, long position) {
        this.object = object;
        this.position = position;
    }

    @Override
    public void write(int value) throws IOException {
        write(new byte[] {(byte) value}, 0, 1);
    }

    @Override
    public void write(byte[] bytes, int offset, int length) throws IOException {
        if (offset < 0 || length < 0 || length > bytes.length - offset) {
            throw new IndexOutOfBoundsException(offset + " and " + length + " of " + bytes.length);
        }
        if (closed) {
            throw new IOException("The stream is closed");
        }
        int done = 0;
        while (done < length) {
            int count = Math.min(length - done, chunk.length - filled);
            System.arraycopy(bytes, offset + done, chunk, filled, count);
            filled += count;
            done += count;
            if (filled == chunk.length) {
                flush();
            }
        }
    }

    @Override
    public void flush() throws IOException {
        if (filled == 0) {
            return;
        }
        try {
            object.store(position, filled, chunk);
        } catch (PovZelException e) {
            throw new IOException("Cannot write " + object + " from byte " + position + " on: "
                    + e.getMessage(), e);
        }
        position += filled;
        filled = 0;
    }

    @Override
    public void close() throws IOException {
        if (!closed) {
            closed = true;
            flush();
        }
    }
}
