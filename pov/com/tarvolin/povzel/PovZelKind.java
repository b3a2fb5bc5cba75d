package com.tarvolin.povzel;

/** What the instances of a class are to Java, as far as their oops and bytes do not say it. */
enum PovZelKind {
    /** An integer that an oop has no room for. */
    INTEGER(false),
    /** An array, whose slots are its elements in their order. */
    ARRAY(true),
    /** Another collection with an order. */
    SEQUENCE(false),
    /** A collection that places its elements itself. */
    SORTED(false),
    /** A set that the interface shows element by element. */
    SET(true),
    DICTIONARY(false),
    /** A collection without order or keys, such as a bag. */
    COLLECTION(false),
    /** Anything else: a reference in Java, or bytes. */
    OBJECT(false);

    /** Whether the indexed slots are the elements. */
    final boolean readAsItIs;

    PovZelKind(boolean readAsItIs) {
        this.readAsItIs = readAsItIs;
    }
}
