package com.tarvolin.povzel;

import java.util.AbstractList;
import java.util.Collections;
import java.util.List;
import java.util.RandomAccess;

/** The indexed elements of an object, read in chunks. The library's lock guards the chunk. */
final class PovZelList extends AbstractList<Object> implements RandomAccess {
    private static final int LARGEST_CHUNK = 1024;

    private final PovZelObject object;
    private final int size;
    private final int chunkSize;
    private int chunkStart;
    private List<Object> chunk = Collections.emptyList();

    PovZelList(PovZelObject object, long size) {
        if (size > Integer.MAX_VALUE) {
            throw new IllegalArgumentException(object + " has " + size
                    + " elements, more than a list of Java can");
        }
        this.object = object;
        this.size = (int) size;
        this.chunkSize = Math.min(LARGEST_CHUNK, PovZelLibrary.oopCapacity());
    }

    @Override
    public int size() {
        return size;
    }

    @Override
    public Object get(int index) {
        return object.session().calls().locked(() -> getLocked(index));
    }

    private Object getLocked(int index) {
        requireInside(index);
        if (index < chunkStart || index - chunkStart >= chunk.size()) {
            read(index - index % chunkSize);
        }
        if (index - chunkStart >= chunk.size()) {
            throw new IndexOutOfBoundsException(object + " has no element " + (index + 1)
                    + " any more");
        }
        return chunk.get(index - chunkStart);
    }

    /** Stores the element in the database. The former one is returned as {@link #get} would. */
    @Override
    public Object set(int index, Object element) {
        return object.session().calls().locked(() -> {
            Object former = getLocked(index);
            object.setElements(index + 1L, Collections.singletonList(element));
            chunk = Collections.emptyList();
            return former;
        });
    }

    private void read(int start) {
        int count = Math.min(chunkSize, size - start);
        chunk = object.session().calls().fetch(count, (reports, id, e) ->
                PovZelInterface._getObjs(id, object.report(), start + 1L, count, reports, e));
        chunkStart = start;
    }

    private void requireInside(int index) {
        if (index < 0 || index >= size) {
            throw new IndexOutOfBoundsException("Index " + index + " of " + size + " elements");
        }
    }
}
