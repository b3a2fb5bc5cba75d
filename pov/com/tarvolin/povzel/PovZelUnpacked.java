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
import java.util.List;
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
    /** What others may replace between unpacking and loading: writable for all, and not sticky. */
    private static final int REPLACEABLE_MASK = 01002;
    private static final int REPLACEABLE = 00002;

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
            return new File(folder, LIBRARY);
        }
    }

    /**
     * Whether the folder is whole and locked by this process: by these classes, by those of a loader
     * that is gone, whose lock these then take over, or by those of another one. A process that was
     * given its parent's properties has the name of a folder that the parent holds.
     */
    private static boolean isThisProcesses(String folder) {
        if (!new File(folder, LIBRARY).isFile() || !new File(folder, MESSAGES).isFile()) {
            return false;
        }
        try {
            FileChannel other = FileChannel.open(Paths.get(folder, LOCK), StandardOpenOption.WRITE);
            try {
                if (other.tryLock() != null) {
                    lock = other;
                    return true;
                }
            } catch (OverlappingFileLockException e) {
                return true;
            }
            other.close();
        } catch (IOException | InvalidPathException e) {
            return false;
        }
        return false;
    }

    private static Path unpack() {
        String named = System.getProperty(PovZelLibrary.TMPDIR_PROPERTY);
        String name = PovZelLibraryFile.isSet(named) ? named : System.getProperty("java.io.tmpdir");
        try {
            Path place = Paths.get(name).toAbsolutePath();
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
        int mode = (Integer) Files.getAttribute(place, "unix:mode");
        if ((mode & REPLACEABLE_MASK) == REPLACEABLE) {
            throw new IOException("anybody may replace what is in it (chmod +t would forbid that)");
        }
        while (true) {
            Path folder = Files.createTempDirectory(place, PREFIX,
                    PosixFilePermissions.asFileAttribute(PosixFilePermissions.fromString(PRIVATE)));
            Path file = folder.resolve(LOCK);
            try {
                lock = FileChannel.open(file, StandardOpenOption.CREATE_NEW, StandardOpenOption.WRITE);
                if (lock.tryLock() != null && Files.exists(file)) {
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

    private static void fill(Path folder) throws IOException {
        copy(LIBRARY, folder);
        copy(MESSAGES, folder);
        if (isDatabaseWanted()) {
            copy(DATABASE, folder);
        }
        Path library = folder.resolve(LIBRARY);
        Files.setPosixFilePermissions(library, PosixFilePermissions.fromString(PRIVATE));
        if (!Files.isExecutable(library)) {
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
        try (InputStream in = PovZelUnpacked.class.getResourceAsStream(CARRIED + name)) {
            if (in == null) {
                throw new IOException("the jar lacks " + CARRIED + name);
            }
            Files.copy(in, file);
        }
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
            for (Path folder : folders) {
                if (!folder.equals(own)) {
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
