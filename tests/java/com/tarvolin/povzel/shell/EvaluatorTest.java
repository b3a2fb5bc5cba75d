package com.tarvolin.povzel.shell;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;

import com.tarvolin.povzel.PovZelSession;
import java.util.ArrayDeque;
import java.util.Deque;
import java.util.List;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

/** Where texts end, and when their time is shown. */
class EvaluatorTest {
    @ParameterizedTest
    @CsvSource(delimiter = '|', quoteCharacter = '`', value = {
        "3 + 4           | true", "``      | true", "(3              | false", "(3)     | true",
        "[:x     | false", "'open           | false", "'it''s'         | true", "'it'' | false",
        "\"comment        | false", "$'              | true", "$( $[           | true", "'(' , \"[\" 'a' | true",
        "#(1 #(2)        | false", "{1. 2}          | true", ")               | true", "$            | true",
    })
    void textsEndWhenNothingIsOpen(String text, boolean complete) {
        assertEquals(complete, Text.isComplete(text));
    }

    @Test
    void timeIsShownFromASecondOn() {
        Deque<Long> times = new ArrayDeque<>(List.of(0L, 999_999_999L, 5L, 1_234_000_005L, 0L, 2_000_000_000L));
        try (PovZelSession session = PovZelSession.login("DataCurator", "swordfish")) {
            Evaluator evaluator = new Evaluator(session, "nobody", true, times::pop);
            assertEquals(new Evaluator.Outcome(true, "7   (SmallInteger)", ""), evaluator.run("3 + 4"));
            assertEquals(new Evaluator.Outcome(true, "'x'   (String)", "(1.234 s)"), evaluator.run("'x'"));
            Evaluator.Outcome failed = evaluator.run("3 foo");
            assertFalse(failed.ran());
            assertEquals("(2.000 s)", failed.remark().substring(failed.remark().lastIndexOf('\n') + 1));
        }
    }
}
