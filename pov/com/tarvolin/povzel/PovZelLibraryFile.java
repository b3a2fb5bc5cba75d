package com.tarvolin.povzel;

import java.io.File;
import java.io.IOException;
import java.net.URISyntaxException;
import java.security.CodeSource;
import java.util.ArrayList;
import java.util.List;

/** Where the library's file is: as the program, the environment or the jar's own place say. */
final class PovZelLibraryFile {
    private PovZelLibraryFile() {
    }

    /**
     * The library's file: the one that is named, else the first one there is, else the jar's own.
     *
     * @throws PovZelException if there is none
     */
    static File find() {
        File named = named();
        if (named != null) {
            return named;
        }
        List<File> candidates = candidates();
        for (File candidate : candidates) {
            if (candidate.isFile()) {
                return candidate;
            }
        }
        if (PovZelUnpacked.isCarried()) {
            return PovZelUnpacked.library();
        }
        StringBuilder tried = new StringBuilder();
        for (File candidate : candidates) {
            tried.append("\n  ").append(candidate);
        }
        throw PovZelLibrary.failure("Library not found: " + PovZelLibrary.FILE_NAME + " is none of"
                + tried + "\nName the file with -D" + PovZelLibrary.LIBRARY_PROPERTY
                + "=FILE, its directory with -Djava.library.path=DIRECTORY, or the installation with -D"
                + PovZelLibrary.HOME_PROPERTY + "=DIRECTORY or the environment variable TARVOLIN", null);
    }

    /** What a program names must be there: another file would serve in its place in silence. */
    private static File named() {
        String property = PovZelLibrary.LIBRARY_PROPERTY;
        String name = System.getProperty(property);
        boolean file = isSet(name);
        if (!file) {
            property = PovZelLibrary.HOME_PROPERTY;
            name = System.getProperty(property);
        }
        if (!isSet(name)) {
            return null;
        }
        File library = file ? new File(name) : inTree(new File(name));
        if (!library.isFile()) {
            throw PovZelLibrary.failure("Library not found: there is no file "
                    + library.getAbsolutePath() + ", which the system property " + property
                    + " names\nCorrect the property or leave it out", null);
        }
        return library;
    }

    private static List<File> candidates() {
        List<File> files = new ArrayList<>();
        if (isSet(System.getenv("TARVOLIN"))) {
            files.add(inTree(new File(System.getenv("TARVOLIN"))));
        }
        String path = System.getProperty("java.library.path", "");
        for (String directory : path.split(File.pathSeparator)) {
            if (!directory.isEmpty()) {
                files.add(new File(directory, PovZelLibrary.FILE_NAME));
            }
        }
        File jar = jarDirectory();
        if (jar != null && jar.getParentFile() != null) {
            files.add(new File(jar, PovZelLibrary.FILE_NAME));
            files.add(inTree(jar.getParentFile()));
        }
        return files;
    }

    private static File inTree(File tree) {
        return new File(new File(tree, "lib"), PovZelLibrary.FILE_NAME);
    }

    static boolean isSet(String value) {
        return value != null && !value.isEmpty();
    }

    /** The folder of the jar these classes come from, or of the file that a link to it leads to. */
    private static File jarDirectory() {
        try {
            CodeSource source = PovZelLibraryFile.class.getProtectionDomain().getCodeSource();
            return source == null || source.getLocation() == null ? null
                    : new File(source.getLocation().toURI()).getCanonicalFile().getParentFile();
        } catch (URISyntaxException | IOException | IllegalArgumentException | SecurityException e) {
            return null;
        }
    }
}
