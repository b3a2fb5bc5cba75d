package com.tarvolin.povzel;

import java.io.File;
import java.io.FileInputStream;
import java.io.IOException;
import java.io.InputStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Paths;
import java.util.Arrays;

/** Why a library cannot be loaded, where the loader's own text does not say it or names no file. */
final class PovZelDiagnosis {
    private static final int ELF_HEADER = 20;
    private static final int ELF_CLASS = 4;
    private static final int ELF_MACHINE = 18;
    private static final int ELF_64 = 2;
    private static final int I386 = 3;

    private PovZelDiagnosis() {
    }

    /** What to know about a libpovzel30 that was refused, behind the JVM's text. */
    static String ofLibrary(File file, UnsatisfiedLinkError e) {
        if (String.valueOf(e.getMessage()).contains("another classloader")) {
            return "\nA JVM loads a native library for one class loader only: put povzel.jar on the"
                    + " class path of the loader that all its users share";
        }
        String reason = reason(file);
        return reason == null ? "" : "\n" + file + " " + reason + "\nName another one with -D"
                + PovZelLibrary.LIBRARY_PROPERTY + "=FILE";
    }

    /** What to know about an interface library that was not loaded, behind the loader's text. */
    static String ofInterfaceLibrary(String message, boolean linked, File library) {
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
            String reason = reason(file);
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

    /** What keeps this JVM from loading a file that is there; null when that cannot be seen. */
    private static String reason(File file) {
        if (file.isDirectory()) {
            return "is a folder";
        }
        byte[] start = new byte[ELF_HEADER];
        try (InputStream in = new FileInputStream(file)) {
            int length = in.read(start);
            if (length < start.length || start[0] != 0x7F || start[1] != 'E') {
                return length <= 0 ? "is empty" : isText(start, length) ? "is a text" : "is not a library";
            }
        } catch (IOException e) {
            return "cannot be read";
        }
        if (start[ELF_CLASS] == ELF_64) {
            return "is a 64-bit library; this JVM needs the 32-bit one";
        }
        if (start[ELF_MACHINE] != I386) {
            return "is a library for another processor";
        }
        return isMountedNoexec(file) ? "lies on a file system mounted noexec" : null;
    }

    private static boolean isText(byte[] start, int length) {
        for (int i = 0; i < length; i++) {
            if (start[i] >= 0 && start[i] < ' ' && !Character.isWhitespace(start[i])) {
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
