package com.tarvolin.povzel;

import static org.junit.jupiter.api.Assertions.*;
import static org.junit.jupiter.api.Assumptions.assumeTrue;

import java.io.File;
import java.net.*;
import java.nio.charset.StandardCharsets;
import java.nio.file.*;
import java.util.*;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

// What a user reads when the library, the JVM or the database is not what it should be.
public class LoadingTest {
    private static final String JAVA = System.getProperty("java.home") + "/bin/java";
    private static final String TARVOLIN = System.getenv("TARVOLIN");
    private static final String CLASSES = System.getProperty("java.class.path");
    private static final String PROBE = Probe.class.getName();
    private static final Map<String, String> INSTALLED = Map.of("TARVOLIN", TARVOLIN);

    @TempDir
    private Path directory;

    // Logs in, in a JVM of its own, and tells how it went; with an argument once more by the same
    // classes in a loader of their own.
    public static final class Probe {
        private Probe() {
        }

        public static void main(String[] arguments) throws Exception {
            logIn();
            if (arguments.length > 0) {
                List<URL> urls = new ArrayList<>();
                for (String entry : CLASSES.split(File.pathSeparator)) {
                    urls.add(new File(entry).toURI().toURL());
                }
                ClassLoader second = new URLClassLoader(urls.toArray(new URL[0]), null);
                second.loadClass(PROBE).getDeclaredMethod("logIn").invoke(null);
            }
        }

        public static void logIn() {
            try (PovZelSession session = PovZelSession.login("DataCurator", "swordfish")) {
                System.out.println("answer " + session.execute("3 + 4"));
            } catch (PovZelException e) {
                System.out.println(e.number + " " + e.getMessage());
            }
        }
    }

    private static void run(Map<String, String> environment, List<String> command, String... parts)
            throws Exception {
        ProcessBuilder builder = new ProcessBuilder(command).redirectErrorStream(true);
        builder.environment().remove("TARVOLIN");
        builder.environment().putAll(environment);
        Process process = builder.start();
        process.getOutputStream().close();
        String output = new String(process.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
        assertEquals(0, process.waitFor(), output);
        for (String part : parts) {
            assertTrue(output.contains(part), () -> "no \"" + part + "\" in: " + output);
        }
    }

    private static void probe(Map<String, String> environment, String option, String... parts)
            throws Exception {
        run(environment, List.of(JAVA, option, "-cp", CLASSES, PROBE), parts);
    }

    @Test
    void theLibraryIsFoundInEachPlace() throws Exception {
        Path copy = Files.copy(Path.of(TARVOLIN, "lib", PovZelLibrary.FILE_NAME),
                directory.resolve(PovZelLibrary.FILE_NAME));
        probe(INSTALLED, "-Xshare:auto", "answer 7");
        probe(INSTALLED, "-Dpovzel.library=" + copy, "answer 7");
        probe(INSTALLED, "-Djava.library.path=/nowhere:" + directory, "answer 7");
    }

    @Test
    void aMissingOrForeignLibraryIsExplained() throws Exception {
        probe(Map.of(), "-Dpovzel.library=/nowhere/lib.so", "2318 Library not found",
                "/nowhere/lib.so", "povzel.library");
        Path text = Files.writeString(directory.resolve("text.so"), "no library");
        probe(Map.of(), "-Dpovzel.library=" + text, "Cannot load " + text);
        // Away from the installation the classes have no neighbours to look at.
        Path jar = Files.copy(Path.of(TARVOLIN, "java/povzel.jar"), directory.resolve("p.jar"));
        String classes = CLASSES.replace(TARVOLIN + "/java/povzel.jar", jar.toString());
        run(Map.of("TARVOLIN", "/nowhere/tarvolin"),
                List.of(JAVA, "-Djava.library.path=/nowhere", "-cp", classes, PROBE),
                "2318 Library not found", "/nowhere/libpovzel30.so", "-Dpovzel.library=FILE",
                "/nowhere/tarvolin/lib/libpovzel30.so", directory + "/libpovzel30.so", "TARVOLIN");
        Path wide = Path.of("/lib/x86_64-linux-gnu/libm.so.6");
        assumeTrue(Files.exists(wide));
        probe(Map.of(), "-Dpovzel.library=" + wide, "wrong ELF class", "64-bit library");
    }

    @Test
    void aMissingDatabaseIsExplained() throws Exception {
        String library = "-Dpovzel.library=" + TARVOLIN + "/lib/libpovzel30.so";
        probe(Map.of(), library, "ZelRtlLoad failure: dlopen(libzelrpc67.so) failed",
                "The TARVOLIN environment variable is not defined.", "Set TARVOLIN",
                "looked for as libzelrpc67.so");
        probe(Map.of("TARVOLIN", "/nowhere", "ZELRTL_BASELIBNAME", "own"), library,
                "looked for as libownrpc67.so in /nowhere/lib");
    }

    @Test
    void aSecondClassLoaderIsExplained() throws Exception {
        run(INSTALLED, List.of(JAVA, "-cp", CLASSES, PROBE, "twice"), "answer 7",
                "already loaded in another classloader", "for one class loader only");
    }

    @Test
    void aWideJvmIsExplained() throws Exception {
        String java = System.getProperty("povzel.test.jdk") + "/bin/java";
        assumeTrue(new File(java).canExecute());
        run(INSTALLED, List.of(java, "-cp", CLASSES, PROBE),
                "2318 This JVM is a 64-bit one", "run the program with a 32-bit (i386) JVM");
    }
}
