package com.tarvolin.povzel.shell;

import static org.junit.jupiter.api.Assertions.*;

import java.io.*;
import java.nio.charset.StandardCharsets;
import java.nio.file.*;
import java.nio.file.attribute.PosixFilePermissions;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

// Conversations of the installed shell with a user at a terminal, which script(1) makes.
class TerminalTest {
    private static final String PROMPT = "povzel> ";
    private static final String OPEN = "....... ";
    private static final String INTERRUPT = "\003";

    @TempDir
    Path home;

    private Process shell;
    private OutputStream keys;
    private InputStream screen;

    // Starts the shell in a terminal; settings are variables, as for env(1).
    private void start(String settings, String arguments) throws IOException {
        // In place of the shell that script(1) starts: some would take the interrupts as theirs too.
        String command = "exec env -u TARVOLIN -u XDG_STATE_HOME -u POVZEL_HISTORY HOME=" + home + " TERM=xterm "
                + settings + " " + System.getenv("TARVOLIN") + "/bin/povzel " + arguments;
        shell = new ProcessBuilder("script", "-qec", command, "/dev/null").redirectErrorStream(true).start();
        keys = shell.getOutputStream();
        screen = shell.getInputStream();
    }

    private void type(String text) throws IOException {
        keys.write(text.getBytes(StandardCharsets.UTF_8));
        keys.flush();
    }

    // What is shown until some text is, which it ends with.
    private String until(String text) throws IOException {
        StringBuilder shown = new StringBuilder();
        while (shown.indexOf(text, shown.length() - text.length()) < 0) {
            int c = screen.read();
            assertTrue(c >= 0, "ended before " + text + ": " + shown);
            shown.append((char) c);
        }
        return shown.toString();
    }

    private void answer(String typed, String... parts) throws IOException {
        type(typed);
        for (String part : parts) {
            until(part);
        }
    }

    // Types what ends the shell; answers what it still shows.
    private String end(String typed, int status) throws Exception {
        type(typed);
        String shown = new String(screen.readAllBytes(), StandardCharsets.UTF_8);
        assertEquals(status, shell.waitFor(), shown);
        return shown;
    }

    @Test
    void textsAreInterruptedAndGoOn() throws Exception {
        start("", "--commit");
        until(PROMPT);
        answer("n := 0. done := false. [done] whileFalse: [n := n + 1]. -9\r", "running for");
        answer(INTERRUPT, "error 6003", PROMPT);
        answer("n > 0\r", "true   (Boolean)", PROMPT);
        answer("done := true\r", "true", PROMPT);
        answer(":continue\r", "-9   (SmallInteger)", PROMPT);
        answer("[[true] whileTrue] ensure: [n]\r", "running for");
        answer(INTERRUPT, "error 6003", ":continue goes on", PROMPT);
        answer(":continue\r", "running for");
        answer(INTERRUPT, "error 6003", ":continue goes on", PROMPT);
        answer("Object subclass: #Slow. Slow compile: 'printString [true] whileTrue'. Slow new\r", "running for");
        answer(INTERRUPT, "error 6003", "the text ran, but its result cannot be shown", PROMPT);
        answer(":continue\r", "there is no interrupted text", PROMPT);
        answer("(1 +\r", OPEN);
        answer("x" + INTERRUPT, PROMPT);
        end(":quit\r", 0);
    }

    // However many there are, each is for the line, file or text that it comes to.
    @Test
    void interruptsOfLinesAreNotForTexts() throws Exception {
        String fifo = home.resolve("fifo").toString();
        assertEquals(0, new ProcessBuilder("mkfifo", fifo).start().waitFor());
        start("PAGER=", "");
        until(PROMPT);
        for (int i = 0; i < 30; i++) {
            answer(INTERRUPT + INTERRUPT, PROMPT);
        }
        answer("\r7 * 7\r", "49   (SmallInteger)", PROMPT);
        answer("done := nil. [done isNil] whileTrue: []. 8\r", "running for");
        answer(INTERRUPT, "error 6003", ":continue goes on", PROMPT);
        answer("3 + ]\r", "error 2501", PROMPT);
        answer(":load " + fifo + "\r", "running for");
        answer(INTERRUPT, "interrupted before ", PROMPT);
        answer("done := 1\r", "1   (SmallInteger)", PROMPT);
        answer(":continue\r", "8   (SmallInteger)", PROMPT);
        answer("(String new: 9999999) copyReplaceAll: (String with: (Character value: 0)) with: 'ab'\r", "abababab");
        answer(INTERRUPT, "interrupted: not all is shown", PROMPT);
        end(":quit\r", 0);
    }

    @Test
    void namesAreCompletedAndNothingRuns() throws Exception {
        start("", "");
        until(PROMPT);
        answer("variable := 7. System compileClassMethod: 'names ^Globals at: #variable put: 8'\r", "#names", "povzel*> ");
        answer("#(3) includesK\t3\r", "#includesKey:", "povzel*> ");
        answer("vari\t+ (OrderedC\twith: 3) size\r", "8   (SmallInteger)", "povzel*> ");
        answer(":abo\t\r", "aborted", PROMPT);
        end("\004", 0);
    }

    // With an editor or without, one text of many lines, and keys that a terminal may not tell of.
    @ParameterizedTest
    @ValueSource(strings = {"xterm", "", "dumb", "no-such", "unknown"})
    void anyTerminalWillDo(String type) throws Exception {
        start("TERM=" + type, "-q");
        until(PROMPT);
        answer("(5 +\r", OPEN);
        answer("1)\r", "6   (SmallInteger)", PROMPT);
        answer(":{\r", OPEN);
        answer("3.\r", OPEN);
        answer("7\r", OPEN);
        answer(":}\r", "7   (SmallInteger)", PROMPT);
        if (type.equals("xterm") || type.equals("no-such")) {
            answer("\033[200~6 +\r3\033[201~\r", "9   (SmallInteger)", PROMPT);
            answer("8 +\033\r3\r", "11   (SmallInteger)", PROMPT);
            answer("\033[A\033OD1\r", "21   (SmallInteger)", PROMPT);
            answer("\033OA\033[D1\r", "121   (SmallInteger)", PROMPT);
        } else if (!type.equals("unknown")) {
            answer("{1.\r", OPEN);
            keys.write(0xFC);
            answer("}\r", "error 2501: the byte FC is no UTF-8 (line 2, column 1)", PROMPT);
        }
        end("\004", 0);
    }

    @Test
    void longRunsAndResultsAndChangesAreShown() throws Exception {
        start("PAGER=\"sed s/^9999/paged/\"", "");
        until(PROMPT);
        answer("Globals at: #Seen put: 5. String new: 9999\r", "(String)", "povzel*> ");
        answer(":quit\r", "[y/N] ");
        answer("\r", "povzel*> ");
        answer(":commit\r", "committed", PROMPT);
        answer("w := WriteStream on: ''. 1 to: 9999 do: [:i | w print: i; nl]. w contents\r", "paged", PROMPT);
        answer("[true] whileTrue\r", "running for 2 s", "running for 3 s");
        answer(INTERRUPT, "\033[K", "error 6003", PROMPT);
        answer("Globals at: #Seen put: 6\r", "povzel*> ");
        end(":quit\ry\r", 0);
    }

    // What the terminal or the pager cannot show as it is.
    @Test
    void resultsAreShownWhateverTheyHold() throws Exception {
        start("PAGER=\"false\"", "-q");
        until(PROMPT);
        answer("String with: (Character value: 27) with: (Character value: 155)\r", "'\\x1B\\x9B'   (String)", PROMPT);
        answer("'\\' , (String new: 9999)\r", "the pager failed: false ended with 1", "(String)", PROMPT);
        end(":quit\r", 0);
    }

    @Test
    void historyIsKeptForTheUserAlone() throws Exception {
        Path former = Files.writeString(home.resolve(".povzel_history"), "1:7 + 7\n");
        start("", "");
        until(PROMPT);
        answer("\033[A\r", "14 ", PROMPT);
        assertFalse(Files.exists(former));
        answer("(5 +\r", OPEN);
        answer("1)\r", "6 ", PROMPT);
        answer("'password'\r", "(String)", PROMPT);
        answer("'postgresql://ada:x@host'\r", "(String)", PROMPT);
        answer(" 8\r", "8 ", PROMPT);
        end("\004", 0);
        Path file = home.resolve(".local/state/povzel/history");
        assertTrue(Files.readString(file).matches("1:7 \\+ 7\n\\d+:\\(5 \\+\\\\n1\\)\n"), Files.readString(file));
        assertEquals("rwx------", PosixFilePermissions.toString(Files.getPosixFilePermissions(file.getParent())));
        Files.setPosixFilePermissions(file, PosixFilePermissions.fromString("rw-r--r--"));
        start("POVZEL_HISTORY=" + file, "");
        until(PROMPT);
        answer("\033[A\r", "6 ", PROMPT);
        end("\004", 0);
        assertEquals("rw-------", PosixFilePermissions.toString(Files.getPosixFilePermissions(file)));
    }

    @Test
    void passwordsAreNotShown() throws Exception {
        start("", "-u SystemUser");
        until("SystemUser: ");
        assertFalse(end("swordfish\r:quit\r", 0).contains("swordfish"));
        start("", "-u SystemUser");
        until(": ");
        end(INTERRUPT, 130);
        // A new database's is typed twice, until it is one.
        String file = home + "/1%P.povzel";
        start("", "--create -s " + file);
        until("New password of SystemUser and DataCurator: ");
        answer("swordfish\r", "again: ");
        answer("swordfish\r", "everybody knows that password", "DataCurator: ");
        answer("one\r", "again: ");
        answer("two\r", "two different passwords", "DataCurator: ");
        answer("one\r", "again: ");
        answer("one\r", "DataCurator at " + file + " (rpc); :commit makes the database.", "1%P.povzel");
        answer(":com\t\r", "committed", "1%P.povzel> ");
        end(":quit\r", 0);
        start("", "--create -s " + file);
        until("Password of DataCurator: ");
        answer("one\r", "1%P.povzel> ");
        end(":quit\r", 0);
    }
}
