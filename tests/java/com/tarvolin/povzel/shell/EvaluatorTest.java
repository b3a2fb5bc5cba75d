package com.tarvolin.povzel.shell;

import static org.junit.jupiter.api.Assertions.*;

import com.tarvolin.povzel.*;
import java.io.*;
import java.lang.management.*;
import java.nio.charset.StandardCharsets;
import java.nio.file.*;
import java.util.*;
import org.junit.jupiter.api.*;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

// Where texts end, what a filter prints of them, and when their time is shown.
class EvaluatorTest {
    private final PovZelSession session = PovZelSession.login("DataCurator", "swordfish");
    private final Options options = new Options();
    private final ByteArrayOutputStream out = new ByteArrayOutputStream();
    private final ByteArrayOutputStream err = new ByteArrayOutputStream();

    @TempDir
    Path folder;

    EvaluatorTest() {
        options.embedded = true;
    }

    @AfterEach
    void logOut() {
        session.close();
    }

    // Runs an input, or the files that are named "a" and so on and "-", with options by their letter.
    private int filter(String flags, byte[] input, String... files) throws IOException {
        options.stop = flags.contains("s");
        options.commit = flags.contains("c");
        options.quiet = flags.contains("q");
        options.format = flags.contains("j") ? Options.Format.JSON : Options.Format.TEXT;
        for (String file : files) {
            Options.Source source = new Options.Source();
            source.file = file.equals("-") ? file : folder.resolve(file).toString();
            options.sources.add(source);
        }
        out.reset();
        err.reset();
        return new Filter(session, options, new PrintStream(out, true), new PrintStream(err, true))
                .run(new ByteArrayInputStream(input));
    }

    private static String show(Options options) {
        StringBuilder text = new StringBuilder();
        for (Options.Source source : options.sources) {
            text.append(source.text).append('|').append(source.file).append(' ');
        }
        return text + String.join(" ", options.server, options.user, options.format.toString()) + options.passwordFile
                + options.create + options.stop + options.commit + options.quiet + options.debug
                + options.access.linked + options.access.rpc;
    }

    // Plain command lines are read as picocli reads them, and every other is left to it.
    @Test
    void commandLines() {
        for (String line : new String[] {"", "-e 3+4", "--execute a x -e b - -e c", "-s f.povzel --create --linked",
                "--rpc -u Ada --password-file p -q --debug", "--quiet --server n --user u --stop --commit",
                "--format json", "--format text x.zel -e ${sys:user.name}"}) {
            String[] words = line.isEmpty() ? new String[0] : line.split(" ");
            assertEquals(show(new Grammar(words).options()), show(Arguments.read(words)), line);
        }
        for (String line : new String[] {"--help", "-e", "-e -1", "-s", "-q -q", "--rpc --linked", "--format JSON",
                "--format xml", "--format json --format json", "-qe 1", "--server=a", "--", "--exec 1", "-u --create"}) {
            assertNull(Arguments.read(line.split(" ")), line);
        }
    }

    // Bytes for a text in which "~" stands for the end of a line and "¿" for a byte that is no UTF-8.
    private static byte[] bytes(String text) {
        byte[] bytes = text.replace('~', '\n').replace('¿', '\u0001').getBytes(StandardCharsets.UTF_8);
        for (int i = 0; i < bytes.length; i++) {
            bytes[i] = bytes[i] == 1 ? (byte) 0xFC : bytes[i];
        }
        return bytes;
    }

    private static String lines(ByteArrayOutputStream stream) {
        return stream.toString(StandardCharsets.UTF_8).replace('\n', '~');
    }

    @Test
    void textsEndWhenNothingIsOpen() {
        for (String whole : List.of("", "'it''s'", "'(' , \"[\" 'a'", "$( $[", "{1. 2}", ")")) {
            assertTrue(Text.isComplete(whole), whole);
        }
        for (String open : List.of("(3", "[:x", "'it''", "\"open", "#(1 #(2)")) {
            assertFalse(Text.isComplete(open) || Text.isEmpty(open), open);
        }
        assertTrue(Text.isEmpty(" \"nothing\" \n\"at all\""));
        assertFalse(Text.isEmpty("\"a\" 'b'"));
    }

    @ParameterizedTest
    @CsvSource(delimiter = '@', quoteCharacter = '`', value = {
        "  @ #(1~  $a~)~~'it''s~\"no\" end'  @ 0 @ an Array( 1 $a )~it's~\"no\" end~ @ ``",
        "  @ 3 foo: 'x'~\"none\"~5           @ 1 @ 5~  @ <stdin>:1:3: error 2010: .*oo:~  category .*~  arguments: .*",
        "  @ :stack~3 foo~:stack             @ 1 @ text, line 1, column 3~ @ <stdin>:1:1: error: no text .*",
        "  @ (3                              @ 1 @ ``                              @ <stdin>:1:3: error 2501.*",
        "  @ Transcript show: 'a'; cr; show: 5. 7 foo~Transcript cr; show: 'b'; cr. 3~4 "
                + "                         @ 1 @ a~5~~b~3~4~ @ .*:1:38: error 2010: .*",
        "  @ ''~#!                            @ 0 @ ~!~                             @ ``",
        "  @ \uFEFF                          @ 0 @ ``                              @ ``",
        "  @ :quit~3                         @ 0 @ ``                              @ ``",
        "  @ :class nil~~:wrong~: inspect    @ 1 @ UndefinedObject < Object~       @ <stdin>:3:1: error: no command :wrong; .*",
        "s @ 1~{2.~ 3 foo}~4                 @ 1 @ 1~                              @ <stdin>:3:4: error 2010.*",
        "  @ :{~| a |~a := 3.~a~:}~:{~3.~bar~ :} ~5 @ 1 @ 3~5~                     @ <stdin>:8:1: error 2189.*",
        "  @ 2~:{~Transcript show: 'ran'.~   @ 1 @ 2~                              @ <stdin>:2:1: error 2501: the :\\{ .*",
        "  @ #!/bin/povzel~1 foo             @ 1 @ ``                              @ <stdin>:2:3: error.*",
        "  @ \uFEFF1~'ü¿' size~'ü' size       @ 1 @ 1~1~                            @ <stdin>:2:3: .*the byte FC is no UTF-8~",
        "  @ Object subclass: 'T' instVarNames: #('b' 'a').~T compile: 'm ^nil foo'~:describe T~{~T new m}~:describe 3"
                + " @ 1 @ T~m~T < Object~  instance variables: b a~  selectors: m~"
                + " @ <stdin>:5:7: error 2010: .*\\(T>>m, line 1, column 8\\)~.*:6:11: error: 3 is no class~",
        "  @ :inspect (3~  zork)~:time~:inspect 3~:class i @ 1 @ 3   (SmallInteger)~ @ .*:2:3: error 2010.*:3:1: error: say :time on .*:5:8: error 2189.*",
        "  @ Object subclass: 'Q'~Q compile: 'class ^3'~:class Q new~5 @ 1 @ Q~class~5~ @ .*:3:8: error: the answer .*",
        "  @ Globals at: #E put: (Array with: 1). :commit @ 1 @ `` @ .*:1:38: error 2501.*",
        "  @ Globals at: #E put: (Array with: 1)~:commit~E at: 1 put: 2~:abort~E~:commit @ 0 "
                + "@ an Array( 1 )~2~an Array( 1 )~ @ committed~aborted~committed~",
        "  @ Globals at: #E put: 1~:refresh~:abort~:refresh @ 1 @ 1~ @ <stdin>:2:1: error 2521: .*~aborted~refreshed~",
        "q @ :commit~:abort~:time on~3       @ 0 @ 3~                              @ \\(0\\.\\d{3} s\\)~",
        "cq@ Globals at: #E put: (Array with: 1)~E at: 1 put: 7. 3 foo~E~E at: 1 put: 5~:abort~E @ 1 "
                + "@ an Array( 1 )~an Array( 1 )~5~an Array( 5 )~ @ .*2010.*",
        "cq@ Globals at: #E put: (Array with: 1). Object subclass: 'U'~U compile: 'printString ^nil foo'"
                + "~E at: 1 put: 7. U new~:stack~:abort~E @ 1 @ U~printString~U>>printString, line 1, column 18~an Array( 7 )~ "
                + "@ .*:3:1: error 2010: .*~  the text ran, but its result cannot be shown~",
        "j @ Transcript show: 'x'. 3~:class 3~3 foo~:no~nil~:{ @ 1 "
                + "@ 3~\"SmallInteger < Integer < Number < Magnitude < Object\"~{\"error\": {\"number\": 2010, "
                + "\"name\": \"rtErrDoesNotUnderstand\", \"message\": \"a SmallInteger does not understand #foo\", \"file\": \"<stdin>\", \"line\": 3, "
                + "\"column\": 3, \"arguments\": [\"3\", \"#foo\", \"an Array( )\"], \"fatal\": false}}~{\"error\": "
                + "{\"number\": null, \"name\": null, \"message\": \"no command :no; :help shows those there are\", \"file\": "
                + "\"<stdin>\", \"line\": 4, \"column\": 1, \"arguments\": [], \"fatal\": false}}~null~{\"error\": "
                + "{\"number\": 2501, \"name\": null, \"message\": \"the :{ is not closed by a line :}\", \"file\": \"<stdin>\", "
                + "\"line\": 6, \"column\": 1, \"arguments\": [], \"fatal\": false}}~ @ x~",
    })
    void filtersPrintResultsAloneAndTellWhetherAllRan(String flags, String input, int status, String printed,
            String told) throws IOException {
        assertEquals(status, filter(String.valueOf(flags), bytes(input)), lines(err));
        assertEquals(printed, lines(out));
        assertTrue(lines(err).matches(told), lines(err));
    }

    @ParameterizedTest
    @CsvSource(delimiter = '@', quoteCharacter = '`', value = {
        "{true. 2 raisedTo: 70. 1.5. Float nan. Float infinity. Float infinity negated. $é. #s. 1 to: 2. 3 -> 4} "
                + "@ [true, 1180591620717411303424, 1.5, \"nan\", \"inf\", \"-inf\", \"é\", \"s\", [1, 2], "
                + "{\"class\": \"Association\", \"text\": \"3->4\"}]",
        "{#[0 255]. Set with: #[]. Dictionary new. OrderedCollection. DateTime year: 2012 dayOfYear: 60 milliseconds: 0} "
                + "@ [[0, 255], [[]], {}, {\"class\": \"Class\", \"text\": \"OrderedCollection\"}, "
                + "{\"class\": \"DateTime\", \"text\": \"2012-060 00:00:00.000\"}]",
        "Dictionary new at: #a put: (Dictionary with: 3 -> #(nil)); at: 'ü\"' put: 'b\\'; yourself "
                + "@ {\"a\": [[3, [null]]], \"ü\\\"\": \"b\\\\\"}",
        "IdentityDictionary new at: #a put: 1; at: 'a' put: 2; yourself @ [[\"a\", 1], [\"a\", 2]]",
        "String with: (Character value: 10) with: (Character value: 1) @ \"\\n\\u0001\"",
        "| a | a := Array new: 1. a at: 1 put: a. {a. 1} "
                + "@ [[{\"class\": \"Array\", \"text\": \"an Array( an Array( an Array( an Array( an Array( an Array( "
                + "an Array( an Array( an Array( ... ) ) ) ) ) ) ) ) )\"}], 1]",
    })
    void valuesAreJson(String text, String json) throws IOException {
        assertEquals(0, filter("j", bytes(text)), lines(err));
        assertEquals(json + "~", lines(out));
    }

    @Test
    void filesAreTextsAndFarNestedOnesEnd() throws IOException {
        Files.write(folder.resolve("a"), bytes("#!x~| t |~t := 3.~t + 4~"));
        Files.write(folder.resolve("b"), bytes("'x'~ zork"));
        Files.write(folder.resolve("c"), bytes("3~+ '¿'"));
        assertEquals(1, filter("", bytes(":load " + folder.resolve("b") + "~ 5"), "a", "b", "no", "c", "-"));
        assertEquals("7~", lines(out));
        String all = "%1$s/b:2:2: error 2010: .*povzel: cannot read %1$s/no: it is not there~%1$s/c:2:4: error 2501: "
                + "the byte FC is no UTF-8~<stdin>:1:1: error 2501: .*";
        assertTrue(lines(err).matches(String.format(all, folder)), lines(err));
        options.sources.clear();
        assertEquals(1, filter("", bytes(":load " + folder.resolve("b") + "~:load it's~:load " + folder + "~6")));
        assertTrue(lines(err).matches(folder + "/b:2:2.*:2:1: error: cannot read it's: it .*:3:1: .* it is a folder~"),
                lines(err));
        String deep = "| a | a := nil. 1 to: 3000 do: [:i | a := Array with: a]. a";
        assertEquals(0, filter("j", bytes(deep)));
        assertTrue(lines(out).matches("\\[{100}\\{.*\\}\\]{100}~"), lines(out));
    }

    @Test
    void longTextsAreReadAtOnceOrRefused() throws IOException {
        String lines = "text~".repeat(100_000);
        ThreadMXBean processor = ManagementFactory.getThreadMXBean();
        long start = processor.getCurrentThreadCpuTime();
        assertEquals(0, filter("", bytes("('" + lines + "' , '') size~#(" + lines + ") size")));
        assertEquals("500000~100000~", lines(out));
        assertEquals(1, filter("", bytes(":{~" + "x := 3.~".repeat(100_000) + ":}~5")));
        assertTrue(lines(err).startsWith("<stdin>:32769:6: error 2501: the text is too large"), lines(err));
        assertTrue(processor.getCurrentThreadCpuTime() - start < 5_000_000_000L);
    }

    // An interrupt that finds no call waits for one; the next one stops all that the entry still does.
    @Test
    void theSecondInterruptIsForGood() throws Exception {
        Interrupts interrupts = new Interrupts(session);
        Runnable forever = () -> session.execute("[true] whileTrue");
        for (boolean twice : List.of(false, true)) {
            assertTrue(interrupts.begin());
            Thread first = new Thread(interrupts::interrupt);
            first.start();
            while (first.getState() != Thread.State.TIMED_WAITING) {
                Thread.onSpinWait();
            }
            if (twice) {
                interrupts.interrupt();
            }
            int number = assertThrows(PovZelException.class, forever::run).getNumber();
            assertEquals(twice ? 6004 : 6003, number);
            assertEquals(twice, Thread.currentThread().isInterrupted());
            interrupts.end();
            first.join();
            assertEquals(3L, session.execute("3"));
        }
        interrupts.interrupt();
        assertFalse(interrupts.begin());
    }

    // As when the reader of a pipe went away.
    @Test
    void nothingIsRunForNobody() throws IOException {
        OutputStream gone = new OutputStream() {
            @Override
            public void write(int b) throws IOException {
                throw new IOException("Broken pipe");
            }
        };
        InputStream input = new ByteArrayInputStream(bytes("3~".repeat(100_000)));
        new Filter(session, options, new PrintStream(gone), System.err).run(input);
        assertTrue(input.available() > 0);
    }
}
