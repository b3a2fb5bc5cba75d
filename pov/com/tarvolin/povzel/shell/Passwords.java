package com.tarvolin.povzel.shell;

import java.io.FileInputStream;
import java.io.IOException;
import java.io.InputStream;
import java.nio.ByteBuffer;
import java.nio.CharBuffer;
import java.nio.charset.CharacterCodingException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;

/** The passwords that nobody has to be asked for. They are in arrays, for their callers to clear. */
final class Passwords {
    /** The most bytes of one. */
    static final int LONGEST = 4096;

    /** From which the launcher gives what it took out of the environment, if anything. */
    private static final Integer DESCRIPTOR = Integer.getInteger("povzel.password");
    private static final int OF_OTHERS = 077;
    private static final String WELL_KNOWN = "swordfish";

    private Passwords() {
    }

    /** The password to log in with; null when the user has to be asked. */
    static char[] known(Options options) throws IOException {
        char[] inEnvironment = inEnvironment();
        if (options.passwordFile != null) {
            clear(inEnvironment);
            return inFile(options.passwordFile);
        }
        boolean wellKnown = options.embedded && options.server == null
                && options.user.equals(Options.DEFAULT_USER);
        return inEnvironment != null ? inEnvironment : wellKnown ? WELL_KNOWN.toCharArray() : null;
    }

    /** What is wrong with the password of a new database, which was typed twice; null if nothing is. */
    static String flaw(char[] password, char[] again) {
        return !Arrays.equals(password, again) ? "these were two different passwords"
                : password.length == 0 ? "the database needs a password"
                : Arrays.equals(password, WELL_KNOWN.toCharArray()) ? "everybody knows that password" : null;
    }

    static void clear(char[] password) {
        if (password != null) {
            Arrays.fill(password, '\0');
        }
    }

    private static char[] inEnvironment() throws IOException {
        if (DESCRIPTOR == null) {
            return null;
        }
        byte[] bytes = new byte[LONGEST];
        try (InputStream stream = Main.inputStream(DESCRIPTOR)) {
            return decoded(bytes, stream.readNBytes(bytes, 0, LONGEST));
        }
    }

    private static char[] inFile(Path file) throws IOException {
        if (file.toString().isEmpty()) {
            throw new IOException("no password file is named\nName one with --password-file");
        }
        // What is no file, such as a pipe, keeps nothing for others to read.
        if (Files.isRegularFile(file)
                && ((int) Files.getAttribute(file, "unix:mode") & OF_OTHERS) != 0) {
            throw new IOException("others than you can use the password file " + file
                    + "\nTake that from them: chmod 600 " + file);
        }
        byte[] bytes = new byte[LONGEST + 1];
        try (InputStream stream = new FileInputStream(file.toFile())) {
            return firstLine(bytes, stream.readNBytes(bytes, 0, bytes.length));
        } catch (IOException e) {
            throw new IOException("cannot read the password file " + file + ": "
                    + Input.obstacle(file, e.getMessage()) + "\nName a file that has the password in its first line", e);
        }
    }

    /** The first line of some bytes, without its end. They are cleared. */
    static char[] firstLine(byte[] bytes, int size) throws IOException {
        int end = 0;
        while (end < size && bytes[end] != '\n') {
            end++;
        }
        if (end > LONGEST) {
            throw new IOException("its first line has more than " + LONGEST + " bytes");
        }
        return decoded(bytes, end > 0 && bytes[end - 1] == '\r' ? end - 1 : end);
    }

    private static char[] decoded(byte[] bytes, int size) throws IOException {
        try {
            CharBuffer text = StandardCharsets.UTF_8.newDecoder().decode(ByteBuffer.wrap(bytes, 0, size));
            char[] password = new char[text.length()];
            text.get(password);
            clear(text.array());
            return password;
        } catch (CharacterCodingException e) {
            throw new IOException("the password is no text in UTF-8", e);
        } finally {
            Arrays.fill(bytes, (byte) 0);
        }
    }
}
