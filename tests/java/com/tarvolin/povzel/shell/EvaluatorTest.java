package com.tarvolin.povzel.shell;

import static org.junit.jupiter.api.Assertions.*;

import com.tarvolin.povzel.PovZelSession;
import java.io.*;
import java.util.*;
import org.junit.jupiter.api.*;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

// Where texts end, what a filter prints of them, and when their time is shown.
class EvaluatorTest {
    private final PovZelSession session = PovZelSession.login("DataCurator", "swordfish");

    @AfterEach
    void logOut() {
        session.close();
    }

    @Test
    void textsEndWhenNothingIsOpen() {
        for (String whole : List.of("", "'it''s'", "'(' , \"[\" 'a'", "$( $[", "{1. 2}", ")")) {
            assertTrue(Text.isComplete(whole), whole);
        }
        for (String open : List.of("(3", "[:x", "'it''", "\"open", "#(1 #(2)")) {
            assertFalse(Text.isComplete(open), open);
        }
    }

    // A "~" stands for the end of a line.
    @ParameterizedTest
    @CsvSource(delimiter = '|', quoteCharacter = '`', value = {
        "#(1~  $a~)~~'it''s~\"no\" end'  | 0 | an Array( 1 $a )~it's~\"no\" end~ | ``",
        "3 foo: 'x'~5                    | 1 | 5~  | error 2010: .*~  category .*~  arguments: .*",
        ":stack~3 foo~:stack             | 1 | text, line 1, column 3~ | no text .*1, column 3\\)~.*",
        "(3                              | 1 | ``                              | error 2501.*",
        "Transcript show: 'a'; cr; show: 5. 7 foo~Transcript cr; show: 'b'; cr. 3~4 "
                + "                       | 1 | a~5~~b~3~4~ | error 2010: .*",
        ":quit~3                         | 0 | ``                              | ``",
        ":class nil~:wrong               | 1 | UndefinedObject < Object~       | no command.*",
    })
    void filtersPrintResultsAloneAndTellWhetherAllRan(String input, int status, String out,
            String err) throws IOException {
        ByteArrayOutputStream printed = new ByteArrayOutputStream();
        ByteArrayOutputStream told = new ByteArrayOutputStream();
        Filter filter = new Filter(session, new PrintStream(printed), new PrintStream(told), "", true);
        byte[] bytes = input.replace('~', '\n').getBytes();
        assertEquals(status, filter.run(new ByteArrayInputStream(bytes)));
        assertEquals(out, printed.toString().replace('\n', '~'));
        String shown = told.toString().replace('\n', '~');
        assertTrue(shown.matches(err), shown);
    }

    @Test
    void timeIsShownFromASecondOn() {
        Deque<Long> times = new ArrayDeque<>(List.of(0L, 999_999_999L, 5L, 1_234_000_005L));
        Evaluator evaluator = new Evaluator(session, "nobody", true, true, times::pop);
        assertEquals(new Evaluator.Outcome(true, "", "7   (SmallInteger)", ""), evaluator.run("3 + 4"));
        assertTrue(evaluator.run("3 foo").remark().endsWith("\n(1.234 s)"));
    }
}
