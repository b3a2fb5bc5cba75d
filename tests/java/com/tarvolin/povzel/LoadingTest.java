package com.tarvolin.povzel;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assumptions.assumeTrue;

import java.io.File;
import java.io.IOException;
import java.net.MalformedURLException;
import java.net.URL;
import java.net.URLClassLoader;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Map;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/** What a user reads when the library, the JVM or the database is not what it should be. */
public class LoadingTest {
    private static final String JAVA = System.getProperty("java.home") + "/bin/java";
    private static final String TARVOLIN = System.getenv("TARVOLIN");
    private static final String CLASSES = System.getProperty("java.class.path");

    /** Logs in, in a JVM of its own, and tells how it went. */
    public static final class Probe {
        private Probe() {
        }

        public static void main(String[] arguments) throws ReflectiveOperationException, MalformedURLException {
            logIn();
            if (arguments.length > 0) {
                // The same classes once more, in a loader of their own.
                List<URL> urls = new ArrayList<>();
                for (String entry : System.getProperty("java.class.path").split(File.pathSeparator)) {
                    urls.add(new File(entry).toURI().toURL());
                }
                ClassLoader second = new URLClassLoader(urls.toArray(new URL[0]), null);
                second.loadClass(Probe.class.getName()).getDeclaredMethod("logIn").invoke(null);
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

    private static String probe(String java, Map<String, String> environment, List<String> options,
            String... arguments) throws IOException, InterruptedException {
        List<String> command = new ArrayList<>(List.of(java));
        command.addAll(options);
        command.addAll(List.of("-cp", CLASSES, Probe.class.getName()));
        command.addAll(Arrays.asList(arguments));
        ProcessBuilder builder = new ProcessBuilder(command).redirectErrorStream(true);
        builder.environment().remove("TARVOLIN");
        builder.environment().putAll(environment);
        Process process = builder.start();
        process.getOutputStream().close();
        String output = new String(process.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
        assertEquals(0, process.waitFor(), output);
        return output;
    }

    private static void assertTells(String output, String... parts) {
        for (String part : parts) {
            assertTrue(output.contains(part), () -> "no \"" + part + "\" in: " + output);
        }
    }

    @Test
    void theLibraryIsFoundInEachPlace(@TempDir Path directory) throws Exception {
        Map<String, String> environment = Map.of("TARVOLIN", TARVOLIN);
        Path copy = Files.copy(Path.of(TARVOLIN, "lib", PovZelLibrary.FILE_NAME),
                directory.resolve(PovZelLibrary.FILE_NAME));
        assertTells(probe(JAVA, environment, List.of()), "answer 7");
        assertTells(probe(JAVA, environment, List.of("-Dpovzel.library=" + copy)), "answer 7");
        assertTells(probe(JAVA, environment, List.of("-Djava.library.path=/nowhere:" + directory)),
                "answer 7");
    }

    @Test
    void aMissingOrForeignLibraryIsExplained(@TempDir Path directory) throws Exception {
        assertTells(probe(JAVA, Map.of(), List.of("-Dpovzel.library=/nowhere/lib.so")),
                "2318 Library not found", "/nowhere/lib.so", "povzel.library");
        Path text = Files.writeString(directory.resolve("text.so"), "no library");
        assertTells(probe(JAVA, Map.of(), List.of("-Dpovzel.library=" + text)), "Cannot load " + text);
        Path wide = Path.of("/lib/x86_64-linux-gnu/libm.so.6");
        assumeTrue(Files.exists(wide));
        assertTells(probe(JAVA, Map.of(), List.of("-Dpovzel.library=" + wide)),
                "wrong ELF class", "64-bit library");
    }

    @Test
    void aMissingLibraryWithoutAnInstallationIsExplained(@TempDir Path directory) throws Exception {
        // Away from the installation the classes have no neighbours to look at.
        Path jar = Files.copy(Path.of(PovZelLibrary.class.getProtectionDomain().getCodeSource()
                .getLocation().toURI()), directory.resolve("povzel.jar"));
        String classes = CLASSES.replace(Path.of(TARVOLIN, "java", "povzel.jar").toString(), jar.toString());
        ProcessBuilder builder = new ProcessBuilder(JAVA, "-Djava.library.path=/nowhere", "-cp", classes,
                Probe.class.getName()).redirectErrorStream(true);
        builder.environment().put("TARVOLIN", "/nowhere/tarvolin");
        Process process = builder.start();
        assertTells(new String(process.getInputStream().readAllBytes(), StandardCharsets.UTF_8),
                "2318 Library not found", "/nowhere/libpovzel30.so", "/nowhere/tarvolin/lib/libpovzel30.so",
                directory + "/libpovzel30.so", "-Dpovzel.library=FILE", "TARVOLIN");
        process.waitFor();
    }

    @Test
    void aMissingDatabaseIsExplained() throws Exception {
        List<String> library = List.of("-Dpovzel.library=" + TARVOLIN + "/lib/libpovzel30.so");
        assertTells(probe(JAVA, Map.of(), library), "ZelRtlLoad failure: dlopen(libzelrpc67.so) failed",
                "The TARVOLIN environment variable is not defined.", "looked for as libzelrpc67.so",
                "Set TARVOLIN");
        assertTells(probe(JAVA, Map.of("TARVOLIN", "/nowhere", "ZELRTL_BASELIBNAME", "own"), library),
                "looked for as libownrpc67.so in /nowhere/lib");
    }

    @Test
    void aSecondClassLoaderIsExplained() throws Exception {
        assertTells(probe(JAVA, Map.of("TARVOLIN", TARVOLIN), List.of(), "twice"), "answer 7",
                "already loaded in another classloader", "for one class loader only");
    }

    @Test
    void aWideJvmIsExplained() throws Exception {
        String java = System.getProperty("povzel.test.jdk") + "/bin/java";
        assumeTrue(new File(java).canExecute());
        assertTells(probe(java, Map.of("TARVOLIN", TARVOLIN), List.of()), "2318 This JVM is a 64-bit one",
                "run the program with a 32-bit (i386) JVM");
    }
}
