package com.tarvolin.povzel;

import java.util.AbstractList;
import java.util.Arrays;
import java.util.Comparator;
import java.util.ConcurrentModificationException;
import java.util.List;
import java.util.Objects;
import java.util.RandomAccess;
import java.util.function.IntFunction;
import java.util.function.UnaryOperator;

/**
 * The indexed elements of an object, or a part of them. Reads in chunks that begin with one element
 * and double as long as each continues the one before, so that a jump costs one element and a run few
 * natives.
 */
final class PovZelList extends AbstractList<Object> implements RandomAccess {
    private static final int LARGEST_CHUNK = 1024;
    private static final int BAD_SUBSCRIPT = 2004;
    private static final int BAD_OFFSET = 2110;

    private final PovZelObject object;
    private final Chunk chunk;
    /** Where the part begins. */
    private final int offset;
    private final int size;

    /** What a list and its parts have in hand. The library's lock guards it. */
    private static final class Chunk {
        /** Stands for an element that has to be read again. */
        private static final Object UNREAD = new Object();

        private int start;
        private Object[] values = {};

        private boolean has(int index) {
            return index >= start && index - start < values.length;
        }

        /** Whether it can give the element out. The program may have closed what it was given before. */
        private boolean isRead(int index) {
            Object value = values[index - start];
            return value != UNREAD
                    && !(value instanceof PovZelObject && !((PovZelObject) value).isUsable());
        }
    }

    /** An element, and the object that it is the value of. */
    private static final class Element {
        private final long oop;
        private final Object value;

        private Element(long oop, Object value) {
            this.oop = oop;
            this.value = value;
        }
    }

    PovZelList(PovZelObject object, long size) {
        this(object, new Chunk(), 0, checkedSize(object, size));
    }

    private PovZelList(PovZelObject object, Chunk chunk, int offset, int size) {
        this.object = object;
        this.chunk = chunk;
        this.offset = offset;
        this.size = size;
    }

    private static int checkedSize(PovZelObject object, long size) {
        if (size > Integer.MAX_VALUE) {
            throw new IllegalArgumentException(object + " has " + size
                    + " elements, more than a list of Java can");
        }
        return (int) size;
    }

    @Override
    public int size() {
        return size;
    }

    @Override
    public List<Object> subList(int from, int to) {
        if (from < 0 || to > size || from > to) {
            throw new IndexOutOfBoundsException("From " + from + " to " + to + " of " + size
                    + " elements");
        }
        return new PovZelList(object, chunk, offset + from, to - from);
    }

    @Override
    public Object get(int index) {
        requireInside(index);
        return calls().locked(() -> element(offset + index));
    }

    /** Stores the element in the database. The former one is returned as {@link #get} would. */
    @Override
    public Object set(int index, Object element) {
        requireInside(index);
        return calls().locked(() -> {
            int at = offset + index;
            Object former = element(at);
            PovZelReport report = report(element, index);
            try {
                object.storeElements(at + 1L, report);
            } catch (PovZelException e) {
                throw isBeyond(e) ? shrunk(at) : e;
            }
            if (chunk.has(at)) {  // the element was perhaps a part of this list, and read by now
                chunk.values[at - chunk.start] = stored(element, report.oop);
            }
            return former;
        });
    }

    private PovZelReport report(Object element, int index) {
        return calls().converter().report(element, index, i -> "the element at index " + i);
    }

    /** What {@link #get} returns of an element that was stored as {@code oop}. */
    private static Object stored(Object element, long oop) {
        if (!PovZelValues.isReference(oop)) {
            return PovZelValues.immediate(oop);
        }
        return element instanceof CharSequence ? element.toString() : Chunk.UNREAD;
    }

    @Override
    public Object[] toArray() {
        Element[] elements = elements();
        Object[] values = new Object[elements.length];
        Arrays.setAll(values, i -> elements[i].value);
        return values;
    }

    @Override
    public int indexOf(Object sought) {
        return calls().locked(() -> {
            int done = 0;
            while (done < size) {
                for (long oop : oopsBehind(done)) {
                    if (isValue(oop, sought)) {
                        return done;
                    }
                    ++done;
                }
            }
            return -1;
        });
    }

    @Override
    public boolean contains(Object sought) {
        return indexOf(sought) >= 0;
    }

    /** Reads the object only if its value may be {@code sought}. */
    private boolean isValue(long oop, Object sought) {
        boolean immediate = sought == null || sought instanceof Boolean || sought instanceof Character;
        if (immediate && PovZelValues.isReference(oop)
                || sought instanceof PovZelObject && ((PovZelObject) sought).oop() != oop) {
            return false;
        }
        return Objects.equals(sought, object.session().value(oop));
    }

    /**
     * Stores all results in batches; elements that the operator returns as they are stay the same
     * objects. When the operator throws, nothing is stored.
     *
     * @throws ConcurrentModificationException if an element was changed meanwhile
     */
    @Override
    public void replaceAll(UnaryOperator<Object> operator) {
        Element[] before = elements();
        Object[] after = new Object[before.length];
        Arrays.setAll(after, i -> operator.apply(before[i].value));
        replace(before, i -> after[i] == before[i].value ? PovZelValues.existing(before[i].oop)
                : report(after[i], i));
    }

    /**
     * Sorts the objects themselves, and stores them in batches.
     *
     * @throws ConcurrentModificationException if an element was changed meanwhile
     */
    @Override
    @SuppressWarnings("unchecked")
    public void sort(Comparator<? super Object> order) {
        Comparator<? super Object> used = order != null ? order
                : (left, right) -> ((Comparable<Object>) left).compareTo(right);
        Element[] before = elements();
        Element[] after = before.clone();
        Arrays.sort(after, (left, right) -> used.compare(left.value, right.value));
        replace(before, i -> PovZelValues.existing(after[i].oop));
    }

    private PovZelCalls calls() {
        return object.session().calls();
    }

    private Object element(int index) {
        object.report();  // refuses a closed reference
        if (!chunk.has(index)) {
            readChunk(index);
        }
        if (!chunk.has(index)) {
            throw shrunk(index);
        }
        if (!chunk.isRead(index)) {
            long[] oop = oops(index, 1);
            if (oop.length == 0) {
                throw shrunk(index);
            }
            chunk.values[index - chunk.start] = object.session().value(oop[0]);
        }
        return chunk.values[index - chunk.start];
    }

    private void readChunk(int index) {
        int doubled = Math.max(1, Math.min(2 * chunk.values.length, largestChunk()));
        boolean onwards = index == chunk.start + chunk.values.length;
        boolean backwards = index == chunk.start - 1;
        int count = onwards ? Math.min(doubled, offset + size - index)
                : backwards ? Math.min(doubled, index + 1 - offset)
                : 1;
        int start = backwards ? index + 1 - count : index;
        long[] oops = oops(start, count);
        Object[] values = new Object[oops.length];
        Arrays.setAll(values, i -> object.session().value(oops[i]));
        chunk.start = start;
        chunk.values = values;
    }

    private static int largestChunk() {
        return Math.min(LARGEST_CHUNK, PovZelLibrary.oopCapacity());
    }

    /** The oops of elements that are still there, which the database keeps until the next call. */
    private long[] oops(int start, int count) {
        try {
            return calls().converter().indexedOops(object.report(), start + 1L, count);
        } catch (PovZelException e) {
            if (isBeyond(e)) {
                return new long[0];
            }
            throw e;
        }
    }

    private static boolean isBeyond(PovZelException e) {
        return e.getNumber() == BAD_SUBSCRIPT || e.getNumber() == BAD_OFFSET;
    }

    /** The oops of some elements behind the first {@code done}, one at least. */
    private long[] oopsBehind(int done) {
        long[] oops = oops(offset + done, Math.min(size - done, largestChunk()));
        if (oops.length == 0) {
            throw shrunk(offset + done);
        }
        return oops;
    }

    private Element[] elements() {
        return calls().locked(() -> {
            Element[] elements = new Element[size];
            int done = 0;
            while (done < size) {
                for (long oop : oopsBehind(done)) {
                    elements[done++] = new Element(oop, object.session().value(oop));
                }
            }
            return elements;
        });
    }

    /**
     * Stores all elements anew, unless one is no longer what it was. A failure between two batches
     * puts back what the first ones replaced.
     */
    private void replace(Element[] before, IntFunction<PovZelReport> after) {
        calls().locked(() -> {
            requireUnchanged(before);
            int done = 0;
            try {
                while (done < size) {
                    done += putBatch(done, size, after);
                }
            } catch (RuntimeException | Error e) {
                putBack(before, done, e);
                throw e;
            } finally {
                chunk.values = new Object[0];
            }
            return null;
        });
    }

    /** Whatever ended the call, which could end this, too. */
    private void putBack(Element[] before, int end, Throwable reason) {
        try {
            calls().unbroken(() -> {
                int done = 0;
                while (done < end) {
                    done += putBatch(done, end, i -> PovZelValues.existing(before[i].oop));
                }
            });
        } catch (RuntimeException e) {
            reason.addSuppressed(e);
        }
    }

    private int putBatch(int start, int end, IntFunction<PovZelReport> report) {
        PovZelReport[] reports = new PovZelReport[Math.min(end - start, PovZelLibrary.oopCapacity())];
        Arrays.setAll(reports, i -> report.apply(start + i));
        object.storeElements(offset + start + 1L, reports);
        return reports.length;
    }

    /** As the elements are, the list still holds them: what their oops name is still there. */
    private void requireUnchanged(Element[] elements) {
        int done = 0;
        while (done < size) {
            for (long oop : oopsBehind(done)) {
                if (oop != elements[done++].oop) {
                    throw new ConcurrentModificationException("Element " + (offset + done) + " of "
                            + object + " was changed meanwhile");
                }
            }
        }
    }

    /** Iterators of this list take it for what it is, rather than for the list's end. */
    private IndexOutOfBoundsException shrunk(int index) {
        modCount++;
        return new IndexOutOfBoundsException(object + " has no element " + (index + 1) + " any more");
    }

    private void requireInside(int index) {
        if (index < 0 || index >= size) {
            throw new IndexOutOfBoundsException("Index " + index + " of " + size + " elements");
        }
    }
}
