package com.tarvolin.povzel.shell;

import java.io.IOException;
import java.io.InputStream;
import java.nio.ByteBuffer;
import java.nio.charset.CharacterCodingException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;

/** The passwords that nobody has to be asked for. */
final class Passwords {
    /** From which the launcher gives what it took out of the environment, if anything. */
    private static final Integer DESCRIPTOR = Integer.getInteger("povzel.password");
    private static final int LONGEST = 4096;
    private static final int OF_OTHERS = 077;
    private static final String WELL_KNOWN = "swordfish";

    private Passwords() {
    }

    /** The password to log in with; null when the user has to be asked. */
    static String known(Options options) throws IOException {
        String inEnvironment = inEnvironment();
        if (options.passwordFile != null) {
            return inFile(options.passwordFile);
        }
        boolean wellKnown = options.embedded && options.server == null
                && options.user.equals(Options.DEFAULT_USER);
        return inEnvironment != null ? inEnvironment : wellKnown ? WELL_KNOWN : null;
    }

    private static String inEnvironment() throws IOException {
        if (DESCRIPTOR == null) {
            return null;
        }
        try (InputStream stream = Main.inputStream(DESCRIPTOR)) {
            return decoded(stream.readAllBytes());
        } catch (CharacterCodingException e) {
            throw new IOException("the password in POVZEL_PASSWORD is no text in UTF-8", e);
        }
    }

    private static String inFile(Path file) throws IOException {
        // What is no file, such as a pipe, keeps nothing for others to read.
        if (Files.isRegularFile(file)
                && ((int) Files.getAttribute(file, "unix:mode") & OF_OTHERS) != 0) {
            throw new IOException("others than you can use the password file " + file
                    + "\nTake that from them: chmod 600 " + file);
        }
        try (InputStream stream = Files.newInputStream(file)) {
            return firstLine(stream);
        } catch (IOException e) {
            String reason = e instanceof CharacterCodingException ? "it is no text in UTF-8"
                    : e.getMessage();
            throw new IOException("cannot read the password file " + file + ": "
                    + Input.obstacle(file, reason) + "\nName a file that has the password in its first line", e);
        }
    }

    private static String firstLine(InputStream stream) throws IOException {
        byte[] bytes = stream.readNBytes(LONGEST + 1);
        int end = 0;
        while (end < bytes.length && bytes[end] != '\n') {
            end++;
        }
        if (end > LONGEST) {
            throw new IOException("its first line has more than " + LONGEST + " bytes");
        }
        return decoded(Arrays.copyOf(bytes, end > 0 && bytes[end - 1] == '\r' ? end - 1 : end));
    }

    private static String decoded(byte[] bytes) throws CharacterCodingException {
        return StandardCharsets.UTF_8.newDecoder().decode(ByteBuffer.wrap(bytes)).toString();
    }
}
