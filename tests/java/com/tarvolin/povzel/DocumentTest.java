package com.tarvolin.povzel;

import static org.junit.jupiter.api.Assertions.*;

import java.io.*;
import java.net.*;
import java.nio.charset.StandardCharsets;
import java.nio.file.*;
import java.util.*;
import java.util.regex.*;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.TestInstance;
import org.junit.jupiter.api.io.TempDir;

// Runs what docs/java.md and examples/ show, and compares what they print.
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

    private record Block(String kind, String text) {
    }

    private final List<Block> blocks = new ArrayList<>();
    private ClassLoader loader;

    private static Matcher matcher(String pattern, String text) {
        return Pattern.compile(pattern, Pattern.DOTALL).matcher(text);
    }

    private String run(String command) throws Exception {
        ProcessBuilder builder = new ProcessBuilder("bash", "-c", command).redirectErrorStream(true)
                .directory(directory.toFile());
        builder.environment().put("JAVA32", JAVA32);
        builder.environment().put("PATH", JDK + ":" + System.getenv("PATH"));
        Process process = builder.start();
        process.getOutputStream().close();
        String output = new String(process.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
        process.waitFor();
        return output;
    }

    // Compiles the document's fragments and the examples in one go.
    @BeforeAll
    void compile() throws Exception {
        Matcher block = matcher("```(java|text|console|sh)\n(.*?)```",
                Files.readString(SOURCES.resolve("docs/java.md")));
        while (block.find()) {
            String name = "Fragment" + blocks.size();
            blocks.add(new Block(block.group(1), block.group(2)));
            if (block.group(1).equals("java")) {
                Matcher whole = matcher("public class (\\w+)", block.group(2));
                boolean isWhole = whole.find();
                Files.writeString(directory.resolve((isWhole ? whole.group(1) : name) + ".java"),
                        isWhole ? block.group(2) : String.format(FRAGMENT, name, block.group(2)));
            }
        }
        assertEquals("", run("javac --release 8 -encoding UTF-8 -Xlint:all,-try -Werror -cp " + JAR
                + " -d . *.java " + SOURCES + "/examples/*.java"));
        URL[] compiled = {directory.toUri().toURL()};
        loader = new URLClassLoader(compiled, getClass().getClassLoader());
    }

    private String outputOf(String name) throws Exception {
        PrintStream original = System.out;
        ByteArrayOutputStream captured = new ByteArrayOutputStream();
        System.setOut(new PrintStream(captured, true, StandardCharsets.UTF_8));
        try {
            loader.loadClass(name).getMethod("main", String[].class).invoke(null, (Object) null);
        } finally {
            System.setOut(original);
        }
        return captured.toString(StandardCharsets.UTF_8);
    }

    // An ellipsis stands for anything.
    private static void assertLike(String expected, String output, String of) {
        String pattern = "\\Q" + expected.replace("...", "\\E.*\\Q") + "\\E";
        assertTrue(matcher(pattern, output).matches(),
                () -> of + "\nprinted:\n" + output + "\nnot:\n" + expected);
    }

    @Test
    void fragmentsPrintWhatTheDocumentSays() throws Exception {
        for (int i = 0; i < blocks.size(); i++) {
            Block block = blocks.get(i);
            if (block.kind.equals("java") && !block.text.contains("public class")) {
                assertEquals("text", blocks.get(i + 1).kind, "code without output");
                assertLike(blocks.get(i + 1).text, outputOf("Fragment" + i), block.text);
            }
        }
    }

    @Test
    void commandsPrintWhatTheDocumentSays() throws Exception {
        for (Block block : blocks) {
            Matcher command = matcher("\\$ ([^\n]*)\n((?:(?!\\$ )[^\n]*\n)*)",
                    block.kind.equals("console") ? block.text : "");
            while (command.find()) {
                assertLike(command.group(2), run(command.group(1)), command.group(1));
            }
        }
        // What the document sets is where the tests have it.
        String sets = blocks.stream().filter(b -> b.kind.equals("sh")).findFirst().get().text;
        String paths = run("cd '" + SOURCES + "' && " + sets.replace("\n", ";")
                + "realpath $TARVOLIN/java/povzel.jar $JAVA32");
        assertEquals(Path.of(JAR).toRealPath() + "\n" + Path.of(JAVA32).toRealPath() + "\n", paths);
    }

    @Test
    void examplesRun() throws Exception {
        assertLike("3 + 4 is 7\nAda is older than 30\nGrace is older than 30\nNobody: error ...\n",
                outputOf("FirstQuery"), "FirstQuery");
        assertLike("stored 25%\nstored 50%\nstored 75%\nstored 100%\nread 25%\nread 50%\nread 75%\n"
                + "read 100%\nIt is the same.\n", outputOf("LargeBytes"), "LargeBytes");
        assertLike("Changes before: 0\nThe account holds 250\nChanges after: 1\n",
                outputOf("WatchChanges"), "WatchChanges");
    }
}
