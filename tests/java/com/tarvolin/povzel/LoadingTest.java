package com.tarvolin.povzel;

import static org.junit.jupiter.api.Assertions.*;

import java.io.File;
import java.net.*;
import java.nio.file.*;
import java.util.*;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

// What a user reads when the library or the database is not what it should be, beyond what
// docs/java.md shows.
public class LoadingTest {
    private static final String TARVOLIN = System.getenv("TARVOLIN");
    private static final String CLASSES = System.getProperty("java.class.path");

    @TempDir
    private Path directory;

    // Logs in and tells how it went; with -Dtwice=true once more by the same classes in a loader of
    // their own.
    public static void main(String[] arguments) throws Exception {
        logIn();
        if (Boolean.getBoolean("twice")) {
            List<URL> urls = new ArrayList<>();
            for (String entry : CLASSES.split(File.pathSeparator)) {
                urls.add(new File(entry).toURI().toURL());
            }
            ClassLoader second = new URLClassLoader(urls.toArray(new URL[0]), null);
            second.loadClass(LoadingTest.class.getName()).getMethod("logIn").invoke(null);
        }
    }

    public static void logIn() {
        try (PovZelSession session = PovZelSession.login("DataCurator", "swordfish")) {
            System.out.println("answer " + session.execute("3 + 4"));
        } catch (PovZelException e) {
            System.out.println(e.number + " " + e.getMessage());
        }
    }

    // Runs main() in a JVM of its own, with these variables of the environment and options.
    private static void probe(List<String> settings, List<String> options, String... parts)
            throws Exception {
        List<String> command = new ArrayList<>(List.of("env", "-u", "TARVOLIN"));
        command.addAll(settings);
        command.addAll(List.of(System.getProperty("java.home") + "/bin/java", "-cp", CLASSES));
        command.addAll(options);
        command.add(LoadingTest.class.getName());
        Process process = new ProcessBuilder(command).redirectErrorStream(true).start();
        String output = new String(process.getInputStream().readAllBytes());
        assertEquals(0, process.waitFor(), output);
        for (String part : parts) {
            assertTrue(output.contains(part), () -> "no \"" + part + "\" in: " + output);
        }
    }

    @Test
    void theLibraryIsLookedForAndExplained() throws Exception {
        Files.copy(Path.of(TARVOLIN, "lib", PovZelLibrary.FILE_NAME),
                directory.resolve(PovZelLibrary.FILE_NAME));
        probe(List.of("TARVOLIN=" + TARVOLIN),
                List.of("-Djava.library.path=/nowhere:" + directory), "answer 7");
        Path text = Files.writeString(directory.resolve("text.so"), "no library");
        probe(List.of(), List.of("-Dpovzel.library=" + text), "Cannot load " + text);
        // Away from the installation the classes have no neighbours to look at.
        Files.delete(directory.resolve(PovZelLibrary.FILE_NAME));
        Path jar = Files.copy(Path.of(TARVOLIN, "java/povzel.jar"), directory.resolve("p.jar"));
        String classes = CLASSES.replace(TARVOLIN + "/java/povzel.jar", jar.toString());
        probe(List.of("TARVOLIN=/nowhere/tarvolin"),
                List.of("-Djava.library.path=/nowhere", "-cp", classes),
                "2318 Library not found", "/nowhere/libpovzel30.so", "-Dpovzel.library=FILE",
                "/nowhere/tarvolin/lib/libpovzel30.so", directory + "/libpovzel30.so", "TARVOLIN");
    }

    @Test
    void aMissingDatabaseIsExplained() throws Exception {
        List<String> library = List.of("-Dpovzel.library=" + TARVOLIN + "/lib/libpovzel30.so");
        probe(List.of(), library, "ZelRtlLoad failure: dlopen(libzelrpc67.so) failed",
                "The TARVOLIN environment variable is not defined.", "Set TARVOLIN",
                "looked for as libzelrpc67.so");
        probe(List.of("TARVOLIN=/nowhere", "ZELRTL_BASELIBNAME=own"), library,
                "looked for as libownrpc67.so in /nowhere/lib");
    }

    @Test
    void aSecondClassLoaderIsExplained() throws Exception {
        probe(List.of("TARVOLIN=" + TARVOLIN), List.of("-Dtwice=true"), "answer 7",
                "already loaded in another classloader", "for one class loader only");
    }
}
