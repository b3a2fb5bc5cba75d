package com.tarvolin.povzel;

import static org.junit.jupiter.api.Assertions.*;

import java.io.*;
import java.nio.file.*;
import java.util.*;
import java.util.regex.*;
import org.junit.jupiter.api.*;
import org.junit.jupiter.api.io.TempDir;

// Runs what docs/java.md, docs/database.md and examples/ show, and compares what they print.
@TestInstance(TestInstance.Lifecycle.PER_CLASS)
class DocumentTest {
    private static final Path SOURCES = Path.of(System.getProperty("povzel.test.sources"));
    private static final String JDK = System.getProperty("povzel.test.jdk") + "/bin";
    private static final String JAVA32 = System.getProperty("java.home") + "/bin/java";
    private static final String JAR = System.getenv("TARVOLIN") + "/java/povzel.jar";
    private static final String FRAGMENT = """
            import com.tarvolin.povzel.*;
            import java.io.*;
            import java.nio.charset.StandardCharsets;
            import java.time.*;
            import java.util.*;
            public class %s {
                public static void main(String[] args) throws Exception {
                    try (PovZelSession session = PovZelSession.login("DataCurator", "swordfish")) {
            %s
                    }
                }
            }
            """;

    @TempDir
    private static Path directory;

    private String document;  // both pages

    // What each class prints, that of the examples to begin with. An ellipsis stands for anything.
    private final Map<String, String> outputs = new TreeMap<>(Map.of("FirstQuery",
            "3 + 4 is 7\nAda is older than 30\nGrace is older than 30\nNobody: error ...\n",
            "LargeBytes", "stored 25%\n...stored 100%\nread 25%\n...100%\nIt is the same.\n",
            "WatchChanges", "The account holds 100 at first\nChanges before: 0\nThe account holds 250\nChanges after: 1\n"));

    static Matcher matcher(String pattern, String text) {
        return Pattern.compile(pattern, Pattern.DOTALL | Pattern.MULTILINE).matcher(text);
    }

    private static String run(String command) throws IOException {
        return run(command, directory, Map.of());
    }

    static String run(String command, Path directory, Map<String, String> environment) throws IOException {
        ProcessBuilder builder = new ProcessBuilder("bash", "-c", command).redirectErrorStream(true)
                .directory(directory.toFile());
        builder.environment().putAll(environment);
        builder.environment().put("JAVA32", JAVA32);
        builder.environment().put("PATH", JDK + ":" + System.getenv("TARVOLIN") + "/bin:"
                + System.getenv("PATH"));
        return new String(builder.start().getInputStream().readAllBytes());
    }

    private static void assertLike(String expected, String output, String of) {
        String pattern = "\\Q" + expected.replace("...", "\\E.*\\Q") + "\\E";
        assertTrue(matcher(pattern, output).matches(),
                () -> of + "\nprinted:\n" + output + "\nnot:\n" + expected);
    }

    // Each public class shows in its documentation how it is used.
    private void extractJavadoc() throws IOException {
        for (File source : SOURCES.resolve("pov/com/tarvolin/povzel").toFile().listFiles(File::isFile)) {
            String text = Files.readString(source.toPath());
            int declared = text.lastIndexOf("\npublic ");
            Matcher example = matcher("<pre>\\{@code\n(.*?)}</pre>", text);
            assertTrue(declared < 0 || example.find() && example.start() < declared, source.toString());
            for (example.reset(); example.find();) {
                String name = source.getName().replace(".java", "Example") + example.start();
                Files.writeString(directory.resolve(name + ".java"), String.format(FRAGMENT, name,
                        "new Object() { PovZelObject object, account, from, to; void show() throws Exception {"
                        + example.group(1).replaceAll("(?m)^ *\\*", "") + "}};"));
            }
        }
    }

    // Compiles the examples and the document's Java, each piece of which has its output behind it.
    @BeforeAll
    void compile() throws IOException {
        document = Files.readString(SOURCES.resolve("docs/java.md"))
                + Files.readString(SOURCES.resolve("docs/database.md"));
        Matcher block = matcher("```java\n(.*?)```.*?```(\\w+)\n(.*?)```", document);
        while (block.find()) {
            boolean whole = block.group(1).contains("public class FirstLogin");
            String name = whole ? "FirstLogin" : "Fragment" + block.start();
            Files.writeString(directory.resolve(name + ".java"),
                    whole ? block.group(1) : String.format(FRAGMENT, name, block.group(1)));
            if (!whole) {
                assertEquals("text", block.group(2), "code without output");
                outputs.put(name, block.group(3));
            }
        }
        extractJavadoc();
        assertEquals("", run("javac --release 8 -encoding UTF-8 -Xlint:all,-try -Werror -cp " + JAR
                + " -d . *.java " + SOURCES + "/examples/*.java"));
    }

    @Test
    void codePrintsWhatIsShown() throws IOException {
        for (String name : outputs.keySet()) {
            String printed = run("$JAVA32 -Xcheck:jni -cp .:" + JAR + " " + name);
            // What the library itself prints comes last, as the JVM ends.
            assertLike(outputs.get(name) + "[Info] libpovzel30 initializing.\n...", printed, name);
        }
    }

    @Test
    void commandsPrintWhatTheDocumentSays() throws IOException {
        Matcher setting = matcher("```sh\n(.*?)```", document);
        assertTrue(setting.find());
        assertEquals("", run("cd " + SOURCES + "\n" + setting.group(1) + "test -x $JAVA32 || echo $JAVA32"));
        runCommands(document, directory, Map.of());
    }

    static void runCommands(String document, Path directory, Map<String, String> environment) throws IOException {
        Matcher command = matcher("^\\$ ([^\n]*)\n((?:(?!\\$ |```)[^\n]*\n)*)", document);
        while (command.find()) {
            assertLike(command.group(2), run(command.group(1), directory, environment), command.group(1));
        }
    }
}
