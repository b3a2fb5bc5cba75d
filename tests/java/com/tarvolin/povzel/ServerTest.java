package com.tarvolin.povzel;

import static org.junit.jupiter.api.Assertions.*;

import java.io.IOException;
import java.nio.file.*;
import java.util.Map;
import java.util.regex.Matcher;
import org.junit.jupiter.api.*;
import org.junit.jupiter.api.condition.EnabledIfEnvironmentVariable;
import org.junit.jupiter.api.io.TempDir;

// Runs what docs/server.md shows, beside the PostgreSQL server that POVZEL_TEST_SERVER names.
@EnabledIfEnvironmentVariable(named = "POVZEL_TEST_SERVER", matches = "postgresql:.*")
class ServerTest {
    @TempDir
    private Path directory;

    @Test
    void commandsPrintWhatThePageSays() throws IOException {
        Matcher url = DocumentTest.matcher("//([^@]*)@/[^?]*\\?host=([^&]*)", System.getenv("POVZEL_TEST_SERVER"));
        assertTrue(url.find());
        Map<String, String> reaches = Map.of("PGUSER", url.group(1), "PGHOST", url.group(2));
        DocumentTest.run("dropdb --if-exists shop; dropuser --if-exists shop; dropuser --if-exists shop_owner",
                directory, reaches);
        Path page = Path.of(System.getProperty("povzel.test.sources"), "docs/server.md");
        DocumentTest.runCommands(Files.readString(page), directory, reaches);
    }
}
