package com.tarvolin.povzel;

import static org.junit.jupiter.api.Assertions.*;

import java.lang.reflect.*;
import java.net.*;
import java.nio.file.*;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

// What a user reads when the library or the database is not what it should be, beyond what
// docs/java.md shows.
public class LoadingTest {
    private static final String TARVOLIN = System.getenv("TARVOLIN");
    private static final String CLASSES = System.getProperty("java.class.path");

    @TempDir
    private Path directory;

    // Logs in and tells how it went.
    public static void main(String[] arguments) {
        try (PovZelSession session = PovZelSession.login("DataCurator", "swordfish")) {
            System.out.println("answer " + session.execute("3 + 4"));
        } catch (PovZelException e) {
            System.out.println(e.number + " " + e.getMessage());
        }
    }

    // Runs main() in a JVM of its own, with these variables of the environment and options.
    private static void probe(String settings, String options, String... parts) throws Exception {
        String java = System.getProperty("java.home") + "/bin/java -cp " + CLASSES;
        Process process = new ProcessBuilder("bash", "-c", "unset TARVOLIN; " + settings + " "
                + java + " " + options + " " + LoadingTest.class.getName())
                .redirectErrorStream(true).start();
        String output = new String(process.getInputStream().readAllBytes());
        assertEquals(0, process.waitFor(), output);
        assertTrue(Stream.of(parts).allMatch(output::contains), output);
    }

    @Test
    void theLibraryIsLookedForAndExplained() throws Exception {
        Files.copy(Path.of(TARVOLIN, "lib", PovZelLibrary.FILE_NAME),
                directory.resolve(PovZelLibrary.FILE_NAME));
        probe("TARVOLIN=" + TARVOLIN, "-Djava.library.path=/nowhere:" + directory, "answer 7");
        // Away from the installation the classes have no neighbours to look at.
        Files.delete(directory.resolve(PovZelLibrary.FILE_NAME));
        Path jar = Files.copy(Path.of(TARVOLIN, "java/povzel.jar"), directory.resolve("p.jar"));
        String classes = CLASSES.replace(TARVOLIN + "/java/povzel.jar", jar.toString());
        probe("TARVOLIN=/nowhere/tarvolin", "-Djava.library.path=/nowhere -cp " + classes,
                "2318 Library not found", "/nowhere/libpovzel30.so", "-Dpovzel.library=FILE",
                "/nowhere/tarvolin/lib/libpovzel30.so", directory + "/libpovzel30.so", "TARVOLIN");
    }

    @Test
    void aMissingDatabaseIsExplained() throws Exception {
        String installed = TARVOLIN + "/lib/" + PovZelLibrary.FILE_NAME;
        probe("", "-Dpovzel.library=" + installed, "answer 7");
        Path alone = Files.copy(Path.of(installed), directory.resolve(PovZelLibrary.FILE_NAME));
        probe("", "-Dpovzel.library=" + alone, "Set TARVOLIN",
                "ZelRtlLoad failure: dlopen(libzelrpc67.so) failed",
                "The TARVOLIN environment variable is not defined.");
    }

    @Test
    void aSecondClassLoaderIsExplained() throws Exception {
        PovZelSession.login("DataCurator", "swordfish").close();
        URL[] jar = {Path.of(TARVOLIN, "java/povzel.jar").toUri().toURL()};
        Method login = new URLClassLoader(jar, null).loadClass(PovZelSession.class.getName())
                .getMethod("login", String.class, String.class);
        Throwable failure = assertThrows(InvocationTargetException.class,
                () -> login.invoke(null, "DataCurator", "swordfish")).getCause();
        assertTrue(failure.getMessage().contains("for one class loader only"),
                failure::getMessage);
    }
}
