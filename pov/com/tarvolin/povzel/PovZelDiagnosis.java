package com.tarvolin.povzel;

import java.io.File;
import java.io.IOException;
import java.io.RandomAccessFile;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.channels.FileChannel;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Paths;
import java.util.Arrays;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/** Why a library cannot be loaded, where the loader's own text does not say it or names no file. */
final class PovZelDiagnosis {
    private static final int ELF_HEADER = 52;
    private static final int ELF_MAGIC = 0x464C457F;
    private static final int ELF_CLASS = 4;
    private static final int ELF_MACHINE = 18;
    private static final int ELF_64 = 2;
    private static final int I386 = 3;
    /** Where a library says where its program headers are and how many there are. */
    private static final int HEADERS_OFFSET = 28;
    private static final int HEADER_COUNT = 44;
    private static final int PROGRAM_HEADER = 32;
    /** Where a program header says which part of the file it is about. */
    private static final int PART_OFFSET = 4;
    private static final int PART_SIZE = 16;
    private static final long UNSIGNED = 0xFFFFFFFFL;

    private static final Pattern LOADERS_WORD = Pattern.compile(
            "\\$(\\{(ORIGIN|PLATFORM|LIB)\\}|(ORIGIN|PLATFORM|LIB)(?![A-Za-z0-9_]))");

    private static final String CUT_SHORT = "is cut short";
    private static final String OTHER = "\nName another one with -D" + PovZelLibrary.LIBRARY_PROPERTY
            + "=FILE";

    private PovZelDiagnosis() {
    }

    /** What to know about a libpovzel30 that was refused, behind the JVM's text. */
    static String ofLibrary(File file, UnsatisfiedLinkError e) {
        if (String.valueOf(e.getMessage()).contains("another classloader")) {
            return "\nA JVM loads a native library for one class loader only: put povzel.jar on the"
                    + " class path of the loader that all its users share";
        }
        String reason = reasonOrMount(file);
        return reason == null ? "" : "\n" + file + " " + reason + OTHER;
    }

    /** Refuses a libpovzel30 that is cut short: the loader would not, and kill the process. */
    static void check(File file) {
        if (CUT_SHORT.equals(reason(file))) {
            throw PovZelLibrary.failure("Cannot load " + file + ": it " + CUT_SHORT + OTHER, null);
        }
    }

    /** The word in a path that the loader replaces by a path of its own; null if there is none. */
    static String loadersWord(String path) {
        Matcher word = LOADERS_WORD.matcher(path);
        return word.find() ? word.group() : null;
    }

    /** What to know about an interface library that was not loaded, behind the loader's text. */
    static String ofInterfaceLibrary(String message, boolean linked, File library) {
        if (message.startsWith("Incorrect version of libpovzel")) {
            return "\nTARVOLIN, ZELRTL_BASELIBNAME and ZELRTL_VERSION name the interface library: set"
                    + " them to one that fits, and start the program again";
        }
        if (!message.startsWith("ZelRtlLoad failure:")) {
            return "";
        }
        if (message.contains("already loaded")) {
            return "\nAn earlier start failed behind the loading: start the program again";
        }
        String name = "lib" + environment("ZELRTL_BASELIBNAME", "zel") + (linked ? "lnk" : "rpc")
                + environment("ZELRTL_VERSION", "67") + ".so";
        String place = environment("TARVOLIN", null);
        String places = "the system's library directories";
        if (place != null && (place.contains(":") || place.contains(";"))) {
            return "\nTARVOLIN holds a ':' or ';', which end a path here: " + place
                    + "\nMove the installation to a folder without them, and set TARVOLIN to it";
        }
        if (place != null && loadersWord(place) != null) {
            return "\nTARVOLIN holds " + loadersWord(place) + ", which the loader replaces: " + place
                    + "\nMove the installation to a folder without it, and set TARVOLIN to it";
        }
        if (message.contains("with its file name is too long")) {
            return "\nMove the installation to a shorter path, and set TARVOLIN to it";
        }
        File own = ownTree(library);
        if (place != null) {
            place += "/lib";
            places = place + " and then in " + places;
        } else if (own != null) {
            place = own.getPath();
            places += " and then in " + place;
        }
        File file = new File(place, name);
        boolean found = place != null && file.exists();
        boolean opened = !message.contains("dlopen(");
        String what = "The database's interface library is looked for as " + name + " in " + places;
        if (found) {
            String reason = reasonOrMount(file);
            what = file + " " + (reason != null ? reason
                    : opened ? "is not of the right kind or version"
                    : "cannot be loaded: tvinfo says why");
        }
        String home = System.getProperty(PovZelLibrary.HOME_PROPERTY);
        String ignored = PovZelLibraryFile.isSet(home) && environment("TARVOLIN", null) != null
                ? "\n" + PovZelLibrary.HOME_PROPERTY + " does not count for it: TARVOLIN is set"
                : "";
        return (message.endsWith("\n") ? "" : "\n") + what + ignored
                + "\nSet TARVOLIN to the installation that holds the right one, ZELRTL_BASELIBNAME and"
                + " ZELRTL_VERSION when its name differs, and start the program again";
    }

    /** The folder that the library lies in, behind all links, where it is that of an installation. */
    private static File ownTree(File library) {
        try {
            File folder = library.getCanonicalFile().getParentFile();
            return new File(folder, "../sys/english67.err").exists() ? folder : null;
        } catch (IOException e) {
            return null;
        }
    }

    private static String environment(String name, String otherwise) {
        String value = System.getenv(name);
        return PovZelLibraryFile.isSet(value) ? value : otherwise;
    }

    private static String reasonOrMount(File file) {
        String reason = reason(file);
        return reason == null && isMountedNoexec(file) ? "lies on a file system mounted noexec" : reason;
    }

    /** What in a file that is there keeps this JVM from loading it; null if it can be loaded. */
    private static String reason(File file) {
        if (!file.isFile()) {
            return file.isDirectory() ? "is a folder" : "is not a library";
        }
        try (FileChannel in = new RandomAccessFile(file, "r").getChannel()) {
            String word = loadersWord(file.getCanonicalPath());
            if (word != null) {
                return "lies in a folder whose path holds " + word + ", which the loader replaces";
            }
            ByteBuffer start = read(in, 0, ELF_HEADER);
            return start.limit() == 0 ? "is empty" : reason(in, start);
        } catch (IOException e) {
            return "cannot be read";
        } catch (IndexOutOfBoundsException e) {
            return CUT_SHORT;
        }
    }

    private static String reason(FileChannel in, ByteBuffer start) throws IOException {
        if (start.limit() < 4 || start.getInt(0) != ELF_MAGIC) {
            return isText(start) ? "is a text" : "is not a library";
        }
        if (start.get(ELF_CLASS) == ELF_64) {
            return "is a 64-bit library; this JVM needs the 32-bit one";
        }
        if (start.getShort(ELF_MACHINE) != I386) {
            return "is a library for another processor";
        }
        int end = start.getShort(HEADER_COUNT) * PROGRAM_HEADER;
        ByteBuffer headers = read(in, start.getInt(HEADERS_OFFSET) & UNSIGNED, Math.max(end, 0));
        for (int at = 0; at < end; at += PROGRAM_HEADER) {
            long offset = headers.getInt(at + PART_OFFSET) & UNSIGNED;
            if (offset + (headers.getInt(at + PART_SIZE) & UNSIGNED) > in.size()) {
                return CUT_SHORT;
            }
        }
        return null;
    }

    /** What the file has of this part. */
    private static ByteBuffer read(FileChannel in, long offset, int length) throws IOException {
        ByteBuffer part = ByteBuffer.allocate(length).order(ByteOrder.LITTLE_ENDIAN);
        int got;
        do {
            got = in.read(part, offset + part.position());
        } while (got > 0);
        part.flip();
        return part;
    }

    private static boolean isText(ByteBuffer start) {
        for (int i = 0; i < start.limit(); i++) {
            byte c = start.get(i);
            if (c >= 0 && c < ' ' && !Character.isWhitespace(c)) {
                return false;
            }
        }
        return true;
    }

    private static boolean isMountedNoexec(File file) {
        String options = "";
        try {
            String path = file.getCanonicalPath();
            int longest = 0;
            byte[] mounts = Files.readAllBytes(Paths.get("/proc/self/mounts"));
            for (String mount : new String(mounts, StandardCharsets.UTF_8).split("\n")) {
                String[] fields = mount.split(" ");
                String point = fields[1].replace("\\040", " ").replace("\\011", "\t")
                        .replace("\\012", "\n").replace("\\134", "\\");
                if (point.length() >= longest && path.startsWith(point.replaceFirst("/?$", "/"))) {
                    longest = point.length();
                    options = fields[3];
                }
            }
        } catch (IOException e) {
            return false;
        }
        return Arrays.asList(options.split(",")).contains("noexec");
    }
}
