package com.tarvolin.povzel;

import java.io.File;
import java.io.IOException;
import java.net.URISyntaxException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.InvalidPathException;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.security.CodeSource;
import java.util.ArrayList;
import java.util.List;

/** Where the library's file is: as the program, the environment or the jar's own place say. */
final class PovZelLibraryFile {
    private static final int WRITABLE_FOR_ALL = 00002;
    private static final int WRITABLE_FOR_OTHERS = 00022;
    private static final int STICKY = 01000;
    private static final String OWN_IDS = "Uid:";

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
        StringBuilder tried = new StringBuilder();
        for (File candidate : configured()) {
            if (candidate.isFile()) {
                return candidate;
            }
            tried.append("\n  ").append(candidate);
        }
        for (File candidate : neighbours()) {
            String risk = candidate.isFile() ? risk(candidate) : "";
            if (risk == null) {
                return candidate;
            }
            tried.append("\n  ").append(candidate).append(risk);
        }
        if (PovZelUnpacked.isCarried()) {
            return PovZelUnpacked.library();
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

    private static List<File> configured() {
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
        return files;
    }

    /** Beside the jar, and in the installation that the jar lies in, where it is one. */
    private static List<File> neighbours() {
        List<File> files = new ArrayList<>();
        File jar = jarDirectory();
        if (jar != null) {
            files.add(new File(jar, PovZelLibrary.FILE_NAME));
            File tree = jar.getParentFile();
            if (jar.getName().equals("java") && new File(tree, "sys/english67.err").isFile()) {
                files.add(inTree(tree));
            }
        }
        return files;
    }

    /** What keeps a library that nobody named from being loaded: the code of others would run. */
    private static String risk(File library) {
        try {
            Path path = library.toPath().toRealPath();
            for (; path != null; path = path.getParent()) {
                String replaceable = replaceable(path);
                if (replaceable != null) {
                    return " (passed over: " + path + " " + replaceable + ")";
                }
            }
            return null;
        } catch (IOException | InvalidPathException e) {
            return " (passed over: " + e.getMessage() + ")";
        }
    }

    /** Who else may replace a file, or what is in a folder; null if root and this user alone may. */
    static String replaceable(Path path) throws IOException {
        int owner = ownerId(path);
        // Whoever has the root folder may replace everything; in a container that need not be root.
        if (owner != 0 && owner != ownId() && owner != ownerId(Paths.get("/"))) {
            return "belongs to another user";
        }
        int mode = (Integer) Files.getAttribute(path, "unix:mode");
        if ((mode & WRITABLE_FOR_OTHERS) == 0 || Files.isDirectory(path) && (mode & STICKY) != 0) {
            return null;
        }
        return (mode & WRITABLE_FOR_ALL) != 0 ? "is writable for all" : "is writable for its group";
    }

    private static int ownerId(Path path) throws IOException {
        return (Integer) Files.getAttribute(path, "unix:uid");
    }

    /** The user that the process's files belong to. */
    private static int ownId() throws IOException {
        Path status = Paths.get("/proc/self/status");
        for (String line : Files.readAllLines(status, StandardCharsets.ISO_8859_1)) {
            if (line.startsWith(OWN_IDS)) {
                String[] ids = line.substring(OWN_IDS.length()).trim().split("\\s+");
                return Integer.parseUnsignedInt(ids[ids.length - 1]);
            }
        }
        throw new IOException(status + " does not tell whose process this is");
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
