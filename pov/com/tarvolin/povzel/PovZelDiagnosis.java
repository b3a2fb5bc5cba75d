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
        if (place != null) {
            place += "/lib";
            places = place + " and then in " + places;
        } else if (new File(library.getParentFile(), "../sys/english67.err").exists()) {
            place = library.getParent();
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
        return (message.endsWith("\n") ? "" : "\n") + what
                + "\nSet TARVOLIN to the installation that holds the right one, ZELRTL_BASELIBNAME and"
                + " ZELRTL_VERSION when its name differs, and start the program again";
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
            if (in.read(start) < start.length || start[0] != 0x7F || start[1] != 'E') {
                return file.length() == 0 ? "is empty" : "is not a library";
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

    private static boolean isMountedNoexec(File file) {
        String options = "";
        try {
            String path = file.getCanonicalPath();
            int longest = 0;
            byte[] mounts = Files.readAllBytes(Paths.get("/proc/self/mounts"));
            for (String mount : new String(mounts, StandardCharsets.UTF_8).split("\n")) {
                String[] fields = mount.split(" ");
                String point = fields[1].replace("\\040", " ");
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
