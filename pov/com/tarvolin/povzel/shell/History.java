package com.tarvolin.povzel.shell;

import java.io.IOException;
import java.nio.channels.FileChannel;
import java.nio.charset.CharacterCodingException;
import java.nio.file.Files;
import java.nio.file.LinkOption;
import java.nio.file.Path;
import java.nio.file.StandardOpenOption;
import java.nio.file.attribute.FileAttribute;
import java.nio.file.attribute.PosixFilePermission;
import java.nio.file.attribute.PosixFilePermissions;
import java.time.Instant;
import java.util.Locale;
import java.util.Set;
import java.util.regex.Pattern;
import org.jline.reader.impl.history.DefaultHistory;

/** What was entered in this conversation and earlier ones, in a file for nobody else to read. */
final class History extends DefaultHistory {
    private static final FileAttribute<Set<PosixFilePermission>> OWN_FOLDER =
            PosixFilePermissions.asFileAttribute(PosixFilePermissions.fromString("rwx------"));
    private static final Set<PosixFilePermission> OWN = PosixFilePermissions.fromString("rw-------");
    /** What users name when they want no file. */
    private static final Set<String> NONE = Set.of("", "none", "/dev/null");
    private static final Pattern ENTRY = Pattern.compile("\\d{1,15}:.*", Pattern.DOTALL);

    /** Where entries were kept first. */
    private static final String FORMER = ".povzel_history";

    /** The file that the user wants; null if none is. */
    static Path file() {
        String named = System.getenv("POVZEL_HISTORY");
        if (named != null) {
            return NONE.contains(named) ? null : Path.of(named).toAbsolutePath();
        }
        String state = System.getenv("XDG_STATE_HOME");
        Path folder = state != null && state.startsWith("/") ? Path.of(state)
                : home().resolve(".local").resolve("state");
        return folder.resolve("povzel").resolve("history").toAbsolutePath();
    }

    private static Path home() {
        String home = System.getenv("HOME");
        return Path.of(home != null && home.startsWith("/") ? home : System.getProperty("user.home"));
    }

    /** Makes the file ready, for its owner alone; answers why that cannot be, null if it can. */
    static String obstacle(Path file) {
        try {
            if (!Files.exists(file)) {
                Files.createDirectories(file.getParent(), OWN_FOLDER);
                make(file);
            }
            if (!Files.isRegularFile(file)) {
                return Files.isDirectory(file) ? "it is a folder" : "it is not a regular file";
            }
            if (!Files.isReadable(file) || !Files.isWritable(file)) {
                return "it cannot be read and written";
            }
            // Another file's rights are not the shell's to change.
            if (!hasEntries(file)) {
                return "it holds something else";
            }
            if (!Files.getPosixFilePermissions(file).equals(OWN)) {
                Files.setPosixFilePermissions(file, OWN);
            }
            return null;
        } catch (CharacterCodingException e) {
            return "it holds what is no UTF-8";
        } catch (IOException e) {
            return "it cannot be made, or kept from others";
        }
    }

    /** What the first versions kept is taken along, unless the user named a file. */
    private static void make(Path file) throws IOException {
        Path former = home().resolve(FORMER);
        if (System.getenv("POVZEL_HISTORY") == null && canTake(former)) {
            Files.move(former, file);
        } else {
            Files.createFile(file, PosixFilePermissions.asFileAttribute(OWN));
        }
    }

    private static boolean canTake(Path former) {
        try {
            boolean found = Files.isRegularFile(former, LinkOption.NOFOLLOW_LINKS) && hasEntries(former);
            if (found) {
                Files.setPosixFilePermissions(former, OWN);
            }
            return found;
        } catch (IOException e) {
            return false;
        }
    }

    private static boolean hasEntries(Path file) throws IOException {
        return Files.readAllLines(file).stream().allMatch(line -> ENTRY.matcher(line).matches());
    }

    /** Lines are no entries: a text may have several. */
    @Override
    public void add(Instant time, String line) {
    }

    /** Keeps a text or a command, unless the user hides it or it may hold a password. */
    void keep(String entry) {
        boolean secret = entry.toLowerCase(Locale.ROOT).contains("password") || ServerUrl.hasPassword(entry);
        if (!entry.isBlank() && !Character.isWhitespace(entry.charAt(0)) && !secret) {
            // The file's lines end with either.
            super.add(Instant.now(), entry.stripTrailing().replace('\r', '\n'));
        }
    }

    /** Adds what was kept to a file, or nothing of it. */
    void saveTo(Path file) throws IOException {
        long size = Files.size(file);
        try {
            save();
        } catch (IOException e) {
            try (FileChannel channel = FileChannel.open(file, StandardOpenOption.WRITE)) {
                channel.truncate(size);
            }
            throw e;
        }
    }
}
