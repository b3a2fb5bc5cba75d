package com.tarvolin.povzel;

import static org.junit.jupiter.api.Assertions.*;

import java.io.IOException;
import java.lang.reflect.*;
import java.net.*;
import java.nio.channels.FileChannel;
import java.nio.file.*;
import java.nio.file.attribute.PosixFilePermissions;
import java.util.*;
import java.util.jar.JarFile;
import java.util.stream.Stream;
import java.util.zip.ZipEntry;
import org.junit.jupiter.api.Assumptions;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

// What a user reads when the library or the database is not what it should be, beyond what
// docs/java.md shows.
public class LoadingTest {
    private static final String TARVOLIN = System.getenv("TARVOLIN");
    // Without the shell's jar, which leads to povzel.jar beside it, and to the library in that.
    private static final String CLASSES = System.getProperty("java.class.path").replaceFirst("[^:]*-shell.jar:", "");

    @TempDir
    private Path directory;

    // Logs in and tells how it went, to another loader too, which finds the unpacked library gone.
    public static void main(String[] arguments) throws Exception {
        try (PovZelSession session = PovZelSession.login("DataCurator", "swordfish")) {
            System.out.println("answer " + session.execute("3 + 4"));
            String unpacked = System.getProperty("povzel.unpacked");
            System.out.println(unpacked == null ? "" : "unpacked " + PosixFilePermissions.toString(
                    Files.getPosixFilePermissions(Path.of(unpacked))));
            String other = System.getProperty("test.other");
            if (other != null) {
                Files.delete(Path.of(unpacked, "lib", PovZelLibrary.FILE_NAME));
                System.out.println(cause(Path.of(other)));
                String locks = "grep -h POSIX /proc/" + ProcessHandle.current().pid() + "/fdinfo/*";
                new ProcessBuilder("sh", "-c", locks).inheritIO().start().waitFor();
            }
        } catch (PovZelException e) {
            System.out.println(e.getNumber() + " " + e.getMessage());
        }
    }

    // Runs main() in a JVM of its own, with these variables of the environment and options.
    private void probe(String settings, String options, String... parts) throws Exception {
        String java = System.getProperty("java.home") + "/bin/java -cp " + CLASSES;
        shell(settings + " " + java + " " + options + " " + LoadingTest.class.getName(), 0, parts);
    }

    // Runs a command in the folder of the test. $T is the installation.
    private void shell(String command, int status, String... parts) throws Exception {
        Process process = new ProcessBuilder("bash", "-c", "T=$TARVOLIN; unset TARVOLIN; " + command)
                .directory(directory.toFile()).redirectErrorStream(true).start();
        String output = new String(process.getInputStream().readAllBytes());
        assertEquals(status, process.waitFor(), output);
        assertTrue(Stream.of(parts).allMatch(output::contains), output);
    }

    // mk makes an installation with programs of its own, cut one with a jar cut short; run starts its shell.
    @Test
    void theLauncherRefusesWhatCannotWork() throws Exception {
        String functions = "mk() { mkdir $1; cp -r $T/bin $1; ln -s $T/{lib,java,sys,jre} $1; }; run() { "
                + "$1/bin/povzel -e 1; }; cut() { mk $2; rm $2/java; cp -r $T/java $2; head -c 3000 $T/java/$1 "
                + ">$2/java/$1; run $2; }\n";
        List<String> refusals = List.of("mk t:; run t:", "holds a ':' or ';'", "mk '$LIB'; run ./*LIB", "$ORIGIN",
                "x=$'x\\xf0\\x9f\\x98\\x80'; mk $x; run $x", "does not take", "x=$'\\xff'; mk $x; run $x", "no UTF-8",
                "cut povzel.jar b", "is damaged", "cut picocli.jar c; c/bin/povzel --help", "is damaged",
                "cut povzel-shell.jar d", "is cut short", "mk e; rm e/java; run e", "shell.jar is not there",
                "mk f; ln -sfn /nowhere f/jre; JAVA_HOME= run f", "f/jre is no JVM",
                "mkdir bin; cp $T/jre/bin/java bin; JAVA32=. run $T", "/lib/libjli.so",
                "mkdir g; cd g; rmdir ../g; run $T", "change to another one", "$T/bin/povzel </tmp", "Give it texts",
                "echo '-e 1' >x; $T/bin/povzel -e @x", "error 2501", "TARVOLIN=/no run $T", "Set TARVOLIN to the");
        for (int i = 0; i < refusals.size(); i += 2) {
            shell(functions + refusals.get(i), 1, refusals.get(i + 1));
        }
        shell("PATH= LC_ALL=C $T/bin/povzel -e \"'\"$'\\xc3\\xbc'\"' byteSize\"", 0, "2\n");
        shell("TERM=xterm POVZEL_HISTORY=/tmp script -qec $T/bin/povzel x <<<:quit", 0, "Name another file with");
    }

    @Test
    void theLibraryIsLookedForAndExplained() throws Exception {
        Files.copy(Path.of(TARVOLIN, "lib", PovZelLibrary.FILE_NAME),
                directory.resolve(PovZelLibrary.FILE_NAME));
        probe("TARVOLIN=" + TARVOLIN, "-Djava.library.path=/nowhere:" + directory, "answer 7");
        probe("", "-Dpovzel.home=" + TARVOLIN, "answer 7");
        probe("TARVOLIN=" + TARVOLIN, "-Dpovzel.home=/nowhere", "no file /nowhere/lib/libpovzel30.so,");
        // Away from the installation the classes have no neighbours to look at.
        Files.delete(directory.resolve(PovZelLibrary.FILE_NAME));
        Path jar = Files.copy(Path.of(CLASSES.split(":")[0]), directory.resolve("p.jar"));
        probe("TARVOLIN=/nowhere/tarvolin", "-Djava.library.path=/nowhere -cp " + jar + ":" + CLASSES,
                "2318 Library not found", "/nowhere/libpovzel30.so", "-Dpovzel.library=FILE",
                "/nowhere/tarvolin/lib/libpovzel30.so", directory + "/libpovzel30.so", "TARVOLIN");
    }

    // A text in the library's place tells that it was taken.
    @Test
    void aLibraryThatNobodyNamedIsTakenFromOnesOwnInstallation() throws Exception {
        String files = "mkdir -p mine java lib sys; chmod 755 lib; touch sys/english67.err; "
                + "cp $T/java/povzel.jar mine; cp mine/* java; echo evil >lib/libpovzel30.so; chmod 644 lib/*;";
        String jar = "-cp java/povzel.jar:" + CLASSES;
        probe(files, jar, "is a text");
        probe(files, jar.replace("java/", "mine/"), "answer 7");
        for (String change : List.of("chmod 664 lib/*;", "chmod 777 lib;", "rm sys/*;")) {
            probe(files + change, jar, "answer 7");
        }
    }

    @Test
    void anUnfitLibraryIsRefused() throws Exception {
        probe("head -c 50000 $T/lib/libpovzel30.so >cut.so;", "-Dpovzel.library=cut.so",
                "2318 Cannot load cut.so: it is cut short\nName another");
        probe("mkdir '$LIB'; cp $T/lib/*30.so '$LIB';", "-Dpovzel.library='$LIB/libpovzel30.so'",
                "holds $LIB, which the loader replaces");
        String other = TARVOLIN + "/lib/libzelrpc67.so";
        probe("", "-Dpovzel.library=" + other, "2318 " + other + " is not the library", "older version");
        Path library = Files.copy(Path.of(TARVOLIN, "lib", PovZelLibrary.FILE_NAME),
                directory.resolve("unfit.so"));
        Path jar = Files.copy(Path.of(TARVOLIN, "java/povzel.jar"), directory.resolve("later.jar"));
        Path manifest = Files.writeString(directory.resolve("manifest"), "Implementation-Version: 99\n");
        String jdk = System.getProperty("povzel.test.jdk");
        assertEquals(0, new ProcessBuilder(jdk + "/bin/jar", "--update", "--file", jar.toString(),
                "--manifest", manifest.toString()).start().waitFor());
        System.setProperty(PovZelLibrary.LIBRARY_PROPERTY, library.toString());
        String unfit = library + " is of version 6.7.1 and does not fit povzel.jar 99\n";
        String cause = cause(jar);
        System.clearProperty(PovZelLibrary.LIBRARY_PROPERTY);
        assertTrue(cause.startsWith(unfit), cause);
    }

    @Test
    void aMissingDatabaseIsExplained() throws Exception {
        Path library = Files.copy(Path.of(TARVOLIN, "lib", PovZelLibrary.FILE_NAME),
                directory.resolve("alone.so"));
        probe("", "-Dpovzel.library=" + library, "Set TARVOLIN",
                "ZelRtlLoad failure: dlopen(libzelrpc67.so) failed",
                "The TARVOLIN environment variable is not defined.");
    }

    @Test
    void anUnusableDatabaseIsNamed() throws Exception {
        Path file = Files.createDirectories(directory.resolve("lib")).resolve("libzelrpc67.so");
        Map<String, String> refusals = Map.of("touch F", "is empty", "cp /etc/passwd F",
                "is a text", "mkdir F", "is a folder", "cp /lib/x86_64-linux-gnu/libm.so.6 F",
                "is a 64-bit library; this JVM needs the 32-bit one", "cp " + TARVOLIN
                + "/lib/libpovzel30.so F", "is not of the right kind or version");
        for (String command : refusals.keySet()) {
            probe("rm -rf " + file + "; " + command.replace("F", file.toString()) + "; TARVOLIN="
                    + directory, "-Dpovzel.home=" + TARVOLIN, "2318 ZelRtlLoad failure: ",
                    "\n" + file + " " + refusals.get(command)
                    + "\npovzel.home does not count for it: TARVOLIN is set\nSet TARVOLIN to");
        }
    }

    @Test
    void oneJarRunsAndLeavesNothing() throws Exception {
        Path jar = Files.copy(Path.of(TARVOLIN, "java/povzel.jar"), directory.resolve("one.jar"));
        Path place = Files.createDirectory(directory.resolve("place"));
        Path abandoned = place.resolve("povzel-unpacked-1");
        Files.createDirectories(abandoned.resolve("lib"));
        Files.createFile(abandoned.resolve(".lock"));
        Path living = Files.createDirectory(place.resolve("povzel-unpacked-2"));
        String options = "-cp " + jar + ":" + CLASSES + " -Dpovzel.tmpdir=" + place;
        try (FileChannel lock = FileChannel.open(living.resolve(".lock"),
                StandardOpenOption.CREATE_NEW, StandardOpenOption.WRITE)) {
            lock.lock();
            probe("", options, "answer 7", "unpacked rwx------");
        }
        try (Stream<Path> left = Files.list(place)) {
            assertEquals(List.of(living), left.toList());
        }
        probe("umask 0777;", options, "answer 7", "unpacked rwx------");
        probe("", options + " -Dtest.other=" + jar, "removed since", "POSIX  ADVISORY  WRITE");
        // A database that was set up is not replaced.
        probe("TARVOLIN=/nowhere", options, "2318 ZelRtlLoad failure: ");
        probe("ZELRTL_VERSION=67", options, "2318 ZelRtlLoad failure: ");
    }

    @Test
    void aPlaceThatCannotServeIsNamed() throws Exception {
        Path jar = Files.copy(Path.of(TARVOLIN, "java/povzel.jar"), directory.resolve("one.jar"));
        String options = "-cp " + jar + ":" + CLASSES + " -Dpovzel.tmpdir=";
        probe("", options + "/nowhere", " into /nowhere: there is no such folder\n", "povzel.tmpdir=");
        probe("mkdir -m 770 open;", options + "open", "for its group");
        probe("mkdir x!; cp one.jar x!;", "-cp x!/one.jar:" + CLASSES, "ends in '!'");
        Assumptions.assumeTrue(new ProcessBuilder("unshare", "--mount", "true").start().waitFor() == 0,
                "only root can mount");
        Path place = Files.createDirectory(directory.resolve("mounted"));
        Map<String, String> refusals = Map.of("noexec", "mounted noexec", "size=64k",
                "No space left on device", "ro", "Read-only file system");
        for (String kind : refusals.keySet()) {
            probe("exec unshare --mount bash -c 'mount -t tmpfs -o " + kind
                    + " none " + place + " && exec \"$@\"' -", options + place,
                    "2318 Cannot unpack libpovzel30.so from the jar into " + place,
                    refusals.get(kind) + "\n");
        }
    }

    @Test
    void aSecondClassLoaderIsExplained() throws Exception {
        PovZelSession.login("DataCurator", "swordfish").close();
        String cause = cause(Path.of(TARVOLIN, "java/povzel.jar"));
        assertTrue(cause.contains("for one class loader only"), cause);
    }

    @Test
    void aFailureMayBeTriedAgain() throws Exception {
        Path jar = Path.of(TARVOLIN, "java/povzel.jar");
        Class<?> library = classes(jar).loadClass(PovZelLibrary.class.getName());
        Method isAvailable = library.getMethod("isAvailable");
        System.setProperty(PovZelLibrary.LIBRARY_PROPERTY, TARVOLIN + "/lib/libzelrpc67.so");
        assertEquals(false, isAvailable.invoke(null));
        System.setProperty(PovZelLibrary.LIBRARY_PROPERTY, Files.copy(Path.of(TARVOLIN, "lib",
                PovZelLibrary.FILE_NAME), directory.resolve("fit.so")).toString());
        Object cause = library.getMethod("unavailabilityCause").invoke(null);
        System.clearProperty(PovZelLibrary.LIBRARY_PROPERTY);
        assertNull(cause);
        assertEquals(true, isAvailable.invoke(null));
    }

    @Test
    void theJarSaysWhatItIsAndNotWhenItWasMade() throws Exception {
        try (JarFile jar = new JarFile(TARVOLIN + "/java/povzel.jar")) {
            assertEquals("com.tarvolin.povzel",
                    jar.getManifest().getMainAttributes().getValue("Automatic-Module-Name"));
            assertNotNull(jar.getEntry("META-INF/maven/com.tarvolin/povzel/pom.xml"));
            List<String> names = jar.stream().map(ZipEntry::getName).toList();
            assertEquals(names.stream().sorted().toList(), names);
            assertEquals(1, jar.stream().map(ZipEntry::getTimeLocal).distinct().count());
        }
    }

    private static ClassLoader classes(Path jar) throws MalformedURLException {
        return new URLClassLoader(new URL[] {jar.toUri().toURL()}, null);
    }

    // Why a class loader of its own cannot use this jar.
    private static String cause(Path jar) throws Exception {
        Object cause = classes(jar).loadClass(PovZelLibrary.class.getName())
                .getMethod("unavailabilityCause").invoke(null);
        return ((Throwable) cause).getMessage();
    }
}
