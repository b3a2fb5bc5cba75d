package com.tarvolin.povzel.shell;

import java.util.regex.Pattern;

/** The names of databases on servers. */
final class ServerUrl {
    private static final String SCHEME = "postgres(?:ql)?://";
    private static final Pattern START = Pattern.compile("^" + SCHEME);
    /**
     * A password before the host, also one that holds a '/' or a '?' that should have been encoded, or
     * in the query, whose words may be encoded.
     */
    private static final Pattern SECRET = Pattern.compile(
            SCHEME + "(?:[^/@\\s]*?:[^/@\\s]*@|[^?@\\s]*?:[^?@\\s]*@|\\S*[?&][^=&\\s]*password\\s*=)",
            Pattern.CASE_INSENSITIVE);
    private static final Pattern ENCODED = Pattern.compile("%([0-7][0-9a-fA-F])");

    private ServerUrl() {
    }

    static boolean isOne(String name) {
        return name != null && START.matcher(name).find();
    }

    /** Whether there is a URL with a password in the text. */
    static boolean hasPassword(String text) {
        String decoded = ENCODED.matcher(text).replaceAll(found -> {
            char letter = (char) Integer.parseInt(found.group(1), 16);
            return Character.isLetter(letter) ? String.valueOf(letter) : found.group();
        });
        return SECRET.matcher(decoded).find();
    }
}
