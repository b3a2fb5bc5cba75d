package com.tarvolin.povzel;

import java.io.File;
import java.io.IOException;
import java.io.InputStream;
import java.io.UncheckedIOException;
import java.nio.channels.FileChannel;
import java.nio.channels.OverlappingFileLockException;
import java.nio.file.AccessDeniedException;
import java.nio.file.DirectoryIteratorException;
import java.nio.file.DirectoryStream;
import java.nio.file.FileSystemException;
import java.nio.file.Files;
import java.nio.file.InvalidPathException;
import java.nio.file.LinkOption;
import java.nio.file.NoSuchFileException;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.nio.file.StandardOpenOption;
import java.nio.file.attribute.PosixFilePermissions;
import java.nio.file.attribute.UserPrincipal;
import java.util.Collections;
import java.util.HashSet;
import java.util.List;
import java.util.Set;
import java.util.stream.Collectors;
import java.util.stream.Stream;

/**
 * The installation that the jar carries, unpacked into a folder that only this user can enter and that
 * goes with the process. A lock tells that the process lives: whoever unpacks removes what others of
 * the same user left without one.
 */
final class PovZelUnpacked {
    private static final String CARRIED = "/META-INF/native/linux-i386/";
    private static final String LIBRARY = "lib/" + PovZelLibrary.FILE_NAME;
    private static final String MESSAGES = "sys/english67.err";
    private static final String DATABASE = "lib/libzelrpc67.so";

    private static final String PREFIX = "povzel-unpacked-";
    private static final String PRIVATE = "rwx------";
    /** The first name in the folder, and the last that is removed: what is half removed has a lock. */
    private static final String LOCK = ".lock";
    /**
     * Tells every class loader of the process where the folder is: there is one. As a constant it is
     * also an object that they share, and no other code locks.
     */
    private static final String FOLDER_PROPERTY = "povzel.unpacked";

    /** Holds the folder's lock as long as the classes are there. */
    private static FileChannel lock;

    private PovZelUnpacked() {
    }

    static boolean isCarried() {
        return PovZelUnpacked.class.getResource(CARRIED + LIBRARY) != null;
    }

    /**
     * The unpacked library.
     *
     * @throws PovZelException if it cannot be unpacked
     */
    static File library() {
        synchronized (FOLDER_PROPERTY) {
            String folder = System.getProperty(FOLDER_PROPERTY);
            if (folder == null || !isThisProcesses(folder)) {
                folder = unpack().toString();
                System.setProperty(FOLDER_PROPERTY, folder);
            }
            File library = new File(folder, LIBRARY);
            if (!library.isFile()) {
                // Another copy would be a second library in the process: the first is still in use.
                throw PovZelLibrary.failure("Cannot load " + library + ": it has been removed since"
                        + " this process unpacked it\nStart the program again", null);
            }
            return library;
        }
    }

    /**
     * Whether the folder is locked by this process: by these classes, by those of another loader, or by
     * those of one that is gone, whose lock these then take over if the folder is whole. A process that
     * was given its parent's properties has the name of a folder that the parent holds.
     */
    private static boolean isThisProcesses(String name) {
        try {
            Path folder = Paths.get(name);
            if (heldHere().contains(folder)) {
                return true;
            }
            FileChannel other = FileChannel.open(folder.resolve(LOCK), StandardOpenOption.WRITE);
            if (other.tryLock() != null && Files.exists(folder.resolve(LIBRARY))
                    && Files.exists(folder.resolve(MESSAGES))) {
                lock = other;
                return true;
            }
            other.close();
        } catch (IOException | OverlappingFileLockException | InvalidPathException e) {
            return false;
        }
        return false;
    }

    /**
     * The folders whose locks this process has open, or had when they were removed. To open such a lock
     * once more and close it again would give it up.
     */
    private static Set<Path> heldHere() throws IOException {
        Set<Path> held = new HashSet<>();
        try (DirectoryStream<Path> descriptors = Files.newDirectoryStream(Paths.get("/proc/self/fd"))) {
            for (Path descriptor : descriptors) {
                try {
                    Path file = Files.readSymbolicLink(descriptor);
                    if (file.endsWith(LOCK) || file.endsWith(LOCK + " (deleted)")) {
                        held.add(file.getParent());
                    }
                } catch (NoSuchFileException e) {
                    continue;  // closed meanwhile
                }
            }
        } catch (DirectoryIteratorException e) {
            throw e.getCause();
        }
        return held;
    }

    private static Path unpack() {
        String named = System.getProperty(PovZelLibrary.TMPDIR_PROPERTY);
        String name = PovZelLibraryFile.isSet(named) ? named : System.getProperty("java.io.tmpdir");
        try {
            Path place = Paths.get(name).toRealPath();
            Path folder = lockedFolder(place);
            try {
                removeAbandoned(place, folder);
                fill(folder);
                for (Path path : contents(folder)) {
                    path.toFile().deleteOnExit();
                }
            } catch (IOException | RuntimeException e) {
                discard(folder, e);
                throw e;
            }
            return folder;
        } catch (IOException | InvalidPathException e) {
            throw PovZelLibrary.failure("Cannot unpack " + PovZelLibrary.FILE_NAME + " from the jar into "
                    + new File(name).getAbsolutePath() + ": " + reason(e)
                    + "\nName another folder with -D" + PovZelLibrary.TMPDIR_PROPERTY
                    + "=FOLDER, or an installation with -D" + PovZelLibrary.HOME_PROPERTY + "=FOLDER", e);
        }
    }

    /** A new folder with its lock held; until it is, another process may take it for abandoned. */
    private static Path lockedFolder(Path place) throws IOException {
        String replaceable = PovZelLibraryFile.replaceable(place);
        if (replaceable != null) {
            throw new IOException("it " + replaceable + ", and others may replace what is in it");
        }
        String word = PovZelDiagnosis.loadersWord(place.toString());
        if (word != null) {
            throw new IOException("the loader replaces the word " + word);
        }
        while (true) {
            Path folder = Files.createTempDirectory(place, PREFIX);
            try {
                narrow(folder);
                Path file = folder.resolve(LOCK);
                lock = FileChannel.open(file, StandardOpenOption.CREATE_NEW, StandardOpenOption.WRITE);
                if (lock.tryLock() != null && Files.exists(file)) {
                    narrow(file);
                    return folder;
                }
                lock.close();
            } catch (NoSuchFileException e) {
                continue;
            } catch (IOException e) {
                discard(folder, e);
                throw e;
            }
        }
    }

    /** Gives this user everything and others nothing, whatever the process's mask is. */
    private static void narrow(Path path) throws IOException {
        Files.setPosixFilePermissions(path, PosixFilePermissions.fromString(PRIVATE));
    }

    private static void fill(Path folder) throws IOException {
        copy(LIBRARY, folder);
        copy(MESSAGES, folder);
        if (isDatabaseWanted()) {
            copy(DATABASE, folder);
        }
        if (!Files.isExecutable(folder.resolve(LIBRARY))) {
            throw new IOException("it lies on a file system mounted noexec");
        }
    }

    /** A database that was set up is never replaced in silence. */
    private static boolean isDatabaseWanted() {
        return Stream.of("TARVOLIN", "ZELRTL_BASELIBNAME", "ZELRTL_VERSION")
                .noneMatch(name -> PovZelLibraryFile.isSet(System.getenv(name)));
    }

    private static void copy(String name, Path folder) throws IOException {
        Path file = folder.resolve(name);
        Files.createDirectories(file.getParent());
        narrow(file.getParent());
        try (InputStream in = PovZelUnpacked.class.getResourceAsStream(CARRIED + name)) {
            if (in == null) {
                throw new IOException(PovZelUnpacked.class.getResource(CARRIED + name) == null
                        ? "the jar lacks " + CARRIED + name
                        : "Java reads nothing from a jar in a folder whose name ends in '!'");
            }
            Files.copy(in, file);
        }
        narrow(file);
    }

    private static String reason(Exception e) {
        if (e instanceof InvalidPathException) {
            return "this locale has no such characters";
        }
        if (e instanceof AccessDeniedException) {
            return "it cannot be written";
        }
        if (e instanceof NoSuchFileException) {
            return "there is no such folder";
        }
        String reason = e instanceof FileSystemException ? ((FileSystemException) e).getReason() : null;
        return reason != null ? reason : e.getMessage();
    }

    /** What cannot be listed or removed stays: it is no reason to refuse to start. */
    private static void removeAbandoned(Path place, Path own) {
        try (DirectoryStream<Path> folders = Files.newDirectoryStream(place, PREFIX + "*")) {
            UserPrincipal user = Files.getOwner(own);
            Set<Path> held = heldHere();
            for (Path folder : folders) {
                if (!held.contains(folder)) {
                    removeIfAbandoned(folder, user);
                }
            }
        } catch (IOException | DirectoryIteratorException e) {
            return;
        }
    }

    private static void removeIfAbandoned(Path folder, UserPrincipal user) {
        try {
            if (!Files.isDirectory(folder, LinkOption.NOFOLLOW_LINKS)
                    || !user.equals(Files.getOwner(folder, LinkOption.NOFOLLOW_LINKS))) {
                return;
            }
            Path file = folder.resolve(LOCK);
            if (!Files.exists(file)) {
                // Its maker ended before it made the lock, or is about to: then it makes another folder.
                Files.delete(folder);
                return;
            }
            try (FileChannel other = FileChannel.open(file, StandardOpenOption.WRITE)) {
                if (other.tryLock() != null) {
                    remove(folder);
                }
            }
        } catch (IOException | OverlappingFileLockException e) {
            return;
        }
    }

    /** Removes what a failure left; what fails in that is no reason to hide the failure. */
    private static void discard(Path folder, Exception failure) {
        try {
            remove(folder);
            if (lock != null) {
                lock.close();
            }
        } catch (IOException e) {
            failure.addSuppressed(e);
        }
    }

    private static void remove(Path folder) throws IOException {
        List<Path> paths = contents(folder);
        Collections.reverse(paths);
        for (Path path : paths) {
            Files.deleteIfExists(path);
        }
    }

    /** The folder and what is in it, each folder before what it holds. */
    private static List<Path> contents(Path folder) throws IOException {
        try (Stream<Path> paths = Files.walk(folder)) {
            return paths.sorted().collect(Collectors.toList());
        } catch (UncheckedIOException e) {
            throw e.getCause();
        }
    }
}
