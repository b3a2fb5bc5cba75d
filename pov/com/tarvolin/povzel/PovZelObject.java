package com.tarvolin.povzel;

import java.io.InputStream;
import java.io.OutputStream;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Collections;
import java.util.List;
import java.util.Objects;
import java.util.function.LongConsumer;

/**
 * A reference to an object of the database.
 *
 * <pre>{@code
 * try (PovZelObject set = session.executeForObject("Set new")) {
 *     set.perform("add:", "once");
 *     System.out.println(set.className() + ": " + set.value());
 * }
 * }</pre>
 *
 * <p>The database keeps the object for the session while a reference to it exists. {@link #close()}
 * gives it up at once; a reference that the program merely forgets is given up some time after it was
 * garbage-collected, at one of the session's next calls. Indexes count from 1, as in the database.
 *
 * <p>Two references are equal when they name the same object in the same session.
 */
public final class PovZelObject implements AutoCloseable {
    private final PovZelSession session;
    private final PovZelCalls calls;
    private final long oop;
    private final PovZelReferences.Handle handle;
    private volatile boolean closed;
    private String className;

    PovZelObject(PovZelSession session, long oop, PovZelReferences references) {
        this.session = session;
        this.calls = session.calls();
        this.oop = oop;
        this.handle = references.hold(this, oop);
    }

    /**
     * Returns the session that the object belongs to.
     *
     * @return the session
     */
    public PovZelSession session() {
        return session;
    }

    /**
     * Returns the object's identity in the database.
     *
     * @return the oop
     */
    public long oop() {
        return oop;
    }

    /**
     * Returns the object's value as Java has it, with all that it contains: a {@code String},
     * {@code Double}, {@code LocalDateTime}, {@code Long} or {@code java.math.BigInteger} for what the
     * database stores as such, a {@code byte[]} for other byte objects, a {@code Map} for a
     * dictionary, a {@code Set} for a set and a {@code List} for other collections. Anything else is
     * this reference itself, and a reference inside of containers; so is a container where it contains
     * itself, and a key or an element of a set that is equal to another one only in Java, or that shows
     * more than 10,000 values or 64 levels of containers, which Java would hash again and again.
     *
     * <p>The containers are new, may be changed and keep the database's order.
     *
     * <pre>{@code
     * Map<?, ?> ages = (Map<?, ?>) session.executeForObject("Dictionary with: 'Ada' -> 36").value();
     * }</pre>
     *
     * @return the value
     * @throws PovZelException if the object cannot be read
     */
    public Object value() {
        return calls.locked(() -> {
            Object value = calls.converter().wholeValue(describe());
            if (!equals(value)) {
                return value;
            }
            ((PovZelObject) value).close();
            return this;
        });
    }

    /**
     * Returns the object's class.
     *
     * @return the class
     * @throws PovZelException if the object cannot be read
     */
    public PovZelObject classObject() {
        return calls.locked(() -> session.object(describe().classOop));
    }

    /**
     * Returns the name of the object's class.
     *
     * @return what the class answers to {@code name}
     * @throws PovZelException if the object cannot be read
     */
    public String className() {
        return calls.locked(() -> {
            className = calls.converter().className(describe());
            return className;
        });
    }

    /** Notes the class's name as far as it is known, for {@link #toString}. */
    void noteClassName(String name) {
        className = name;
    }

    /**
     * Returns the object's size as the database has it: the characters of a string, the elements of a
     * collection, the entries of a dictionary.
     *
     * @return what the object answers to {@code size}
     * @throws PovZelException if it does not understand that, or the database reports another error
     * @throws IllegalArgumentException if the answer is no integer
     */
    public long size() {
        return session.performFor(long.class, this, "size");
    }

    /**
     * Returns how many bytes a byte object has now: those that {@link #bytes()} returns.
     *
     * @return the number of bytes
     * @throws PovZelException if the object cannot be read
     * @throws IllegalArgumentException if the object holds no bytes
     */
    public long byteSize() {
        return describeBytes().indexedSize;
    }

    /**
     * Returns the database's own description of the object, freshly made.
     *
     * @return a report that the caller owns
     * @throws PovZelException if the object cannot be read
     */
    public PovZelReport describe() {
        return calls.locked(() -> calls.describe(report()));
    }

    /**
     * Tests whether the object is an instance of a class or of one of its subclasses.
     *
     * @param cls the class
     * @return whether it is
     * @throws PovZelException if {@code cls} is no class
     */
    public boolean isKindOf(PovZelObject cls) {
        Objects.requireNonNull(cls, "The class is null");
        return calls.locked(() -> {
            PovZelReport of = calls.converter().report(cls, "the class");
            return calls.call((id, e) -> PovZelInterface._isKindOf(id, report(), of, e)) != 0;
        });
    }

    /**
     * Sends the object a message.
     *
     * @param selector the message's name, such as {@code at:put:}
     * @param arguments the arguments, at most 20, of the types that {@link PovZelSession} lists
     * @return the answer, as {@link PovZelSession#execute(String)} returns it
     * @throws PovZelException if the database reports an error
     */
    public Object perform(String selector, Object... arguments) {
        return session.perform(this, selector, arguments);
    }

    /**
     * Sends the object a message, and returns a reference to the answer even when {@link #perform} would
     * convert a string or another object.
     *
     * @param selector the message's name
     * @param arguments the arguments, at most 20, of the types that {@link PovZelSession} lists
     * @return a reference to the answer
     * @throws PovZelException if the database reports an error
     * @throws IllegalArgumentException if the answer is no object with contents: see
     *     {@link PovZelSession#evaluate}
     */
    public PovZelObject performForObject(String selector, Object... arguments) {
        return session.performForObject(this, selector, arguments);
    }

    /**
     * Sends the object a message, and returns the answer as a value of the class that the program wants.
     *
     * @param <T> the class
     * @param type the class
     * @param selector the message's name
     * @param arguments the arguments, at most 20, of the types that {@link PovZelSession} lists
     * @return the answer, converted as {@link PovZelSession#executeFor} does it
     * @throws PovZelException if the database reports an error
     * @throws IllegalArgumentException if the answer is no such value, or not exactly
     */
    public <T> T performFor(Class<T> type, String selector, Object... arguments) {
        return session.performFor(type, this, selector, arguments);
    }

    /**
     * Returns the bytes of a byte object, however many.
     *
     * @return the bytes
     * @throws PovZelException if the object cannot be read
     */
    public byte[] bytes() {
        return bytes(null);
    }

    /**
     * Returns the bytes of a byte object, and reports the progress.
     *
     * @param progress is told after each transfer how many bytes have arrived, while calls of other
     *     threads have to wait; or null
     * @return the bytes
     * @throws PovZelException if the object cannot be read
     */
    public byte[] bytes(LongConsumer progress) {
        return calls.locked(() -> bytes(describe(), progress));
    }

    /** The bytes of the object that {@code report} describes: the first ones came with it. */
    byte[] bytes(PovZelReport report, LongConsumer progress) {
        requireBytes(report);
        if (report.indexedSize > Integer.MAX_VALUE) {
            throw new IllegalArgumentException(this + " has " + report.indexedSize
                    + " bytes, more than an array of Java: use inputStream()");
        }
        byte[] bytes = Arrays.copyOf(report.valueBytes, (int) report.indexedSize);
        byte[] chunk = new byte[Math.min(bytes.length, PovZelLibrary.byteCapacity())];
        int done = report.valueBytes.length;
        notify(progress, done);
        while (done < bytes.length) {
            int count = Math.min(chunk.length, bytes.length - done);
            fetch(done + 1L, count, chunk);
            System.arraycopy(chunk, 0, bytes, done, count);
            done += count;
            notify(progress, done);
        }
        return bytes;
    }

    private static void notify(LongConsumer progress, long done) {
        if (progress != null) {
            progress.accept(done);
        }
    }

    /** Describes an object of which only bytes are asked for. */
    PovZelReport describeBytes() {
        PovZelReport report = describe();
        requireBytes(report);
        return report;
    }

    private void requireBytes(PovZelReport report) {
        if (report.valueBytes == null) {
            throw new IllegalArgumentException(this + " is no byte object: see size() and value()");
        }
    }

    /**
     * Stores bytes from the first byte on. The object grows as needed and keeps what it has beyond.
     *
     * @param bytes the bytes
     * @throws PovZelException if they cannot be stored; those of the transfers before may be
     */
    public void setBytes(byte[] bytes) {
        setBytes(1, bytes, null);
    }

    /**
     * Stores bytes at a place, and reports the progress. The object grows as needed: zeros fill the
     * room between its end and a place beyond.
     *
     * @param start the index of the first byte, from 1
     * @param bytes the bytes
     * @param progress is told after each transfer how many bytes have been stored, while calls of
     *     other threads have to wait; or null
     * @throws PovZelException if they cannot be stored; those reported to {@code progress} are
     * @throws IllegalArgumentException if the place is less than 1, or the object holds no bytes and
     *     there are none to store
     */
    public void setBytes(long start, byte[] bytes, LongConsumer progress) {
        Objects.requireNonNull(bytes, "The array of bytes is null");
        requireIndex(start, "Bytes");
        calls.locked(() -> {
            if (bytes.length == 0) {
                describeBytes();
            } else if (start > 1) {
                growTo(start - 1);
            }
            byte[] chunk = new byte[Math.min(bytes.length, PovZelLibrary.byteCapacity())];
            int done = 0;
            while (done < bytes.length) {
                int count = Math.min(chunk.length, bytes.length - done);
                System.arraycopy(bytes, done, chunk, 0, count);
                store(start + done, count, chunk);
                done += count;
                notify(progress, done);
            }
            return null;
        });
    }

    /**
     * Cuts the object or makes it longer. New elements are nil, new bytes zero.
     *
     * @param size how many indexed slots it is to have; of a byte object, strings included, how many
     *     bytes
     * @throws PovZelException if it cannot have that size, such as an object without indexed slots
     * @throws IllegalArgumentException if the size is negative, or odd for a double-byte string
     */
    public void setSize(long size) {
        if (size < 0) {
            throw new IllegalArgumentException("The size " + size + " is negative");
        }
        calls.locked(() -> {
            PovZelReport report = describe();
            long count = report.isString ? charactersFor(size, report) : size;
            // The answer is the object, whose value nobody wants: it may be a long text.
            return calls.converter().perform(report(), "size:", calls.converter().report(count));
        });
    }

    /** How many characters a string of so many bytes has, once those behind them are of one unit each. */
    private long charactersFor(long size, PovZelReport report) {
        int unit = report.isDBString ? 2 : 1;
        if (size % unit != 0) {
            throw new IllegalArgumentException("The size " + size
                    + " is odd, and a double-byte string has two bytes for each character");
        }
        long units = size / unit - report.indexedSize / unit;
        long characters = size();
        if (units < 0 && characters != report.indexedSize / unit) {
            clear(size, report.indexedSize);
            characters = size();
        }
        return characters + units;
    }

    private void clear(long from, long to) {
        byte[] zeros = new byte[(int) Math.min(to - from, PovZelLibrary.byteCapacity())];
        for (long done = from; done < to; done += zeros.length) {
            store(done + 1, (int) Math.min(zeros.length, to - done), zeros);
        }
    }

    /** Makes the object longer if it is shorter than that, by whole characters. */
    void growTo(long size) {
        calls.locked(() -> {
            PovZelReport report = describe();
            if (report.indexedSize < size) {
                setSize(report.isDBString ? size + size % 2 : size);
            }
            return null;
        });
    }

    /**
     * Returns a stream of the bytes that the object has now. It reads ahead by one transfer buffer,
     * and throws an {@code IOException} when the reference or its session is closed.
     *
     * @return the stream
     * @throws PovZelException if the object cannot be read
     * @throws IllegalArgumentException if the object holds no bytes
     */
    public InputStream inputStream() {
        return new PovZelInputStream(this);
    }

    /**
     * Returns a stream that stores bytes from a place on, one transfer buffer at a time, and what is
     * left when it is flushed or closed. The object grows as needed: zeros fill the room between its
     * end and a place beyond. {@link #setSize} cuts what it holds behind. A write or flush that fails
     * can be repeated; when {@code close} fails, its exception says which bytes were not stored.
     *
     * @param start the index of the first byte, from 1
     * @return the stream
     * @throws PovZelException if the object cannot be read
     * @throws IllegalArgumentException if the object holds no bytes
     */
    public OutputStream outputStream(long start) {
        return new PovZelOutputStream(this, start);
    }

    /**
     * Returns the elements of an array or another collection as a list that reads them from the
     * database in chunks. It has the size that the object has now and may show an element as it was
     * when its chunk was read, and its iterators throw a {@code ConcurrentModificationException} when
     * the object became shorter; {@code set} stores an element in the database at once. {@code
     * replaceAll} and {@code sort} store in batches, all or nothing: they throw a
     * {@code ConcurrentModificationException} if an element was changed meanwhile, and put back what
     * they stored if a later batch fails or the call is broken. The list of a sorted collection, which places its elements
     * itself, cannot be changed.
     *
     * @return the list; elements are as {@link PovZelSession#execute(String)} returns them
     * @throws PovZelException if the object cannot be read
     * @throws IllegalArgumentException if the object's elements have no order or no place of their own:
     *     the message says which call reads it
     */
    public List<Object> list() {
        return calls.locked(() -> {
            PovZelReport report = describe();
            calls.converter().requireList(report, this);
            List<Object> list = new PovZelList(this, report.indexedSize);
            return calls.converter().kindOf(report) == PovZelKind.SORTED
                    ? Collections.unmodifiableList(list) : list;
        });
    }

    /**
     * Stores elements at a place, in chunks. The object grows as needed: nil fills the room between
     * its end and a place beyond.
     *
     * @param start the index of the first one, from 1
     * @param elements the elements, of the types that {@link PovZelSession} lists
     * @throws PovZelException if they cannot be stored; those of the chunks before are
     * @throws IllegalArgumentException if the object's elements have no order or no place of their own,
     *     such as those of a sorted collection; if the place is less than 1; or if one cannot be passed:
     *     when it is of the first
     *     chunk, of a quarter of the transfer buffer's size, nothing is stored, else the chunks before are
     */
    public void setElements(long start, List<?> elements) {
        Objects.requireNonNull(elements, "The list of elements is null");
        requireIndex(start, "Elements");
        calls.locked(() -> {
            PovZelReport report = describe();
            calls.converter().requirePlaces(report, this);
            int done = 0;
            while (done < elements.size()) {
                int count = Math.min(elements.size() - done, PovZelLibrary.oopCapacity());
                PovZelReport[] reports =
                        calls.converter().elements(elements.subList(done, done + count), done + 1L);
                if (done == 0 && report.indexedSize < start - 1) {
                    setSize(start - 1);
                }
                storeElements(start + done, reports);
                done += count;
            }
            return null;
        });
    }

    /**
     * Stores one value, which is one object, in all indexed slots, in chunks.
     *
     * @param value the value, of the types that {@link PovZelSession} lists
     * @throws PovZelException if it cannot be stored; in the slots of the chunks before it is
     * @throws IllegalArgumentException if the object's elements have no order or no place of their own,
     *     such as those of a sorted collection
     */
    public void fill(Object value) {
        calls.locked(() -> {
            PovZelReport report = describe();
            calls.converter().requirePlaces(report, this);
            PovZelReport element = calls.converter().report(value);
            if (element.objType == PovZelValues.NEW_VALUE) {
                element = PovZelValues.existing(calls.describe(element).oop);
            }
            PovZelReport[] chunk =
                    new PovZelReport[(int) Math.min(report.indexedSize, PovZelLibrary.oopCapacity())];
            Arrays.fill(chunk, element);
            for (long done = 0; done < report.indexedSize; done += chunk.length) {
                int count = (int) Math.min(chunk.length, report.indexedSize - done);
                storeElements(done + 1, Arrays.copyOf(chunk, count));
            }
            return null;
        });
    }

    /**
     * Returns the values of the named slots.
     *
     * @return the values, as {@link PovZelSession#execute(String)} returns them
     * @throws PovZelException if the object cannot be read
     */
    public List<Object> namedSlots() {
        return calls.locked(() -> {
            int count = describe().namedSize;
            List<Object> values = new ArrayList<>(count);
            int chunk = Math.min(count, PovZelLibrary.oopCapacity());
            while (values.size() < count) {
                long start = values.size() + 1;
                int wanted = Math.min(chunk, count - values.size());
                long[] some = calls.fetch(wanted, (reports, id, e) ->
                        PovZelInterface._getNamedObjs(id, report(), start, wanted, reports, e));
                if (some.length == 0) {
                    break;
                }
                for (long oop : some) {
                    values.add(session.value(oop));
                }
            }
            return values;
        });
    }

    /**
     * Stores a value in a named slot.
     *
     * @param slot the slot's index, from 1
     * @param value the value, of the types that {@link PovZelSession} lists
     * @throws PovZelException if it cannot be stored
     * @throws IllegalArgumentException if the index is less than 1, or the value cannot be passed
     */
    public void setNamedSlot(int slot, Object value) {
        requireIndex(slot, "Slots");
        calls.locked(() -> {
            PovZelReport[] reports = {calls.converter().report(value)};
            return calls.transfer((id, e) ->
                    PovZelInterface._putNamedObjs(id, report(), slot, 1, reports, e));
        });
    }

    static void requireIndex(long index, String of) {
        if (index < 1) {
            throw new IllegalArgumentException(of + " count from 1, not " + index);
        }
    }

    /** Gives the reference up. Does nothing when it is closed or its session is. */
    @Override
    public void close() {
        closed = true;
        calls.release(handle);
    }

    @Override
    public boolean equals(Object other) {
        return other instanceof PovZelObject && ((PovZelObject) other).oop == oop
                && ((PovZelObject) other).session == session;
    }

    @Override
    public int hashCode() {
        return Long.hashCode(oop);
    }

    @Override
    public String toString() {
        String ofClass = className == null ? "" : " of class " + className;
        return "object " + oop + ofClass + (closed ? " (closed)" : "");
    }

    /** The report that names the object to a native, within a call: it is there until that ends. */
    PovZelReport report() {
        if (closed) {
            throw new IllegalStateException("The reference to the object " + oop + " is closed");
        }
        calls.touch(oop);
        return PovZelValues.existing(oop);
    }

    /** Whether neither the reference nor its session is closed, as far as is known without a native. */
    boolean isUsable() {
        return !closed && calls.isOpen();
    }

    void storeElements(long start, PovZelReport... elements) {
        calls.transfer((id, e) ->
                PovZelInterface._putObjs(id, report(), start, elements.length, elements, e));
    }

    void fetch(long start, int count, byte[] into) {
        calls.transfer((id, e) -> PovZelInterface._getBytes(id, report(), start, count, into, e));
    }

    void store(long start, int count, byte[] from) {
        calls.transfer((id, e) -> PovZelInterface._putBytes(id, report(), start, count, from, e));
    }
}
