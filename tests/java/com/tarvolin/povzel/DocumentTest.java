package com.tarvolin.povzel;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.io.PrintStream;
import java.net.URL;
import java.net.URLClassLoader;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import java.util.stream.Collectors;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.TestInstance;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

/** Runs what docs/java.md and examples/ show, and compares what they print. */
@TestInstance(TestInstance.Lifecycle.PER_CLASS)
class DocumentTest {
    private static final Path SOURCES = Path.of(System.getProperty("povzel.test.sources"));
    private static final Path JDK = Path.of(System.getProperty("povzel.test.jdk"));
    private static final String JAVA32 = System.getProperty("java.home") + "/bin/java";
    private static final String JAR = System.getenv("TARVOLIN") + "/java/povzel.jar";
    private static final Pattern BLOCK = Pattern.compile("```(java|text|console|sh)\n(.*?)```", Pattern.DOTALL);
    private static final Pattern COMMAND = Pattern.compile("\\$ (.*)\n((?:(?!\\$ ).*\n)*)");
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

    private final List<String[]> blocks = new ArrayList<>();
    private ClassLoader loader;

    /** Compiles the document's fragments and the examples in one go. */
    @BeforeAll
    void compile() throws Exception {
        Matcher block = BLOCK.matcher(Files.readString(SOURCES.resolve("docs/java.md")));
        while (block.find()) {
            blocks.add(new String[] {block.group(1), block.group(2)});
        }
        List<String> files = new ArrayList<>();
        for (int i = 0; i < blocks.size(); i++) {
            String code = blocks.get(i)[1];
            if (blocks.get(i)[0].equals("java")) {
                Matcher name = Pattern.compile("public class (\\w+)").matcher(code);
                boolean whole = name.find();
                Path file = directory.resolve((whole ? name.group(1) : "Fragment" + i) + ".java");
                Files.writeString(file, whole ? code : String.format(FRAGMENT, "Fragment" + i, code));
                files.add(file.toString());
            }
        }
        try (var examples = Files.list(SOURCES.resolve("examples"))) {
            examples.map(Path::toString).filter(f -> f.endsWith(".java")).forEach(files::add);
        }
        String output = run(JDK.resolve("bin/javac") + " --release 8 -encoding UTF-8 -Xlint:all,-try -Werror -cp "
                + JAR + " -d " + directory + " " + String.join(" ", files));
        assertEquals("", output);
        loader = new URLClassLoader(new URL[] {directory.toUri().toURL()}, getClass().getClassLoader());
    }

    private String run(String command) throws IOException, InterruptedException {
        ProcessBuilder builder = new ProcessBuilder("bash", "-c", command).redirectErrorStream(true)
                .directory(directory.toFile());
        builder.environment().put("JAVA32", JAVA32);
        builder.environment().put("PATH", JDK.resolve("bin") + ":" + System.getenv("PATH"));
        Process process = builder.start();
        process.getOutputStream().close();
        String output = new String(process.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
        process.waitFor();
        return output;
    }

    private String outputOf(String name) throws ReflectiveOperationException {
        PrintStream original = System.out;
        ByteArrayOutputStream captured = new ByteArrayOutputStream();
        System.setOut(new PrintStream(captured, true, StandardCharsets.UTF_8));
        try {
            loader.loadClass(name).getMethod("main", String[].class).invoke(null, (Object) new String[0]);
        } finally {
            System.setOut(original);
        }
        return captured.toString(StandardCharsets.UTF_8);
    }

    /** An ellipsis stands for anything. */
    private static void assertLike(String expected, String output, String of) {
        String pattern = Arrays.stream(expected.split("\\.\\.\\.", -1)).map(Pattern::quote)
                .collect(Collectors.joining(".*"));
        assertTrue(Pattern.compile(pattern, Pattern.DOTALL).matcher(output).matches(),
                () -> of + "\nprinted:\n" + output + "\nnot:\n" + expected);
    }

    @Test
    void fragmentsPrintWhatTheDocumentSays() throws Exception {
        int compared = 0;
        for (int i = 0; i < blocks.size(); i++) {
            if (blocks.get(i)[0].equals("text")) {
                assertEquals("java", blocks.get(i - 1)[0], "output without code");
                assertLike(blocks.get(i)[1], outputOf("Fragment" + (i - 1)), blocks.get(i - 1)[1]);
                compared++;
            }
        }
        long fragments = blocks.stream()
                .filter(b -> b[0].equals("java") && !b[1].contains("public class")).count();
        assertEquals(fragments, compared, "each fragment shows its output");
    }

    @Test
    void commandsPrintWhatTheDocumentSays() throws Exception {
        for (String[] block : blocks) {
            Matcher command = COMMAND.matcher(block[0].equals("console") ? block[1] : "");
            while (command.find()) {
                assertLike(command.group(2), run(command.group(1)), command.group(1));
            }
        }
        // What the document sets is where the tests have it.
        String sets = blocks.stream().filter(b -> b[0].equals("sh")).map(b -> b[1]).findFirst().orElseThrow();
        String paths = run("cd '" + SOURCES + "' && " + sets.replace("\n", ";")
                + "realpath $TARVOLIN/java/povzel.jar $JAVA32");
        assertEquals(Path.of(JAR).toRealPath() + "\n" + Path.of(JAVA32).toRealPath() + "\n", paths);
    }

    @ParameterizedTest
    @CsvSource(delimiter = '|', value = {
        "FirstQuery   | 3 + 4 is 7;Ada is older than 30;Grace is older than 30;Nobody: error ...",
        "LargeBytes   | stored 25%;stored 50%;stored 75%;stored 100%;read 25%;read 50%;read 75%;read 100%;"
                + "It is the same.",
        "WatchChanges | Changes before: 0;The account holds 250;Changes after: 1",
    })
    void examplesRun(String name, String output) throws ReflectiveOperationException {
        assertLike(output.replace(';', '\n') + "\n", outputOf(name), name);
    }
}
