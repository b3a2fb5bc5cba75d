package com.tarvolin.povzel.shell;

import com.tarvolin.povzel.PovZelSession;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import picocli.CommandLine;
import picocli.CommandLine.ArgGroup;
import picocli.CommandLine.Command;
import picocli.CommandLine.Option;

/** What the command line says. */
@Command(
        name = "povzel",
        mixinStandardHelpOptions = true,
        versionProvider = Options.Version.class,
        sortOptions = false,
        description = {
            "Runs texts in an object database and prints their results.",
            "",
            "Without -e it reads them from standard input: a text ends with the line in which its"
                    + " last string, comment or bracket is closed. With no server and no password it"
                    + " uses the database that is built in.",
            ""
        },
        exitCodeListHeading = "%nExit status:%n",
        exitCodeList = {
            "0:Every text ran",
            "1:A text failed, or the login did",
            "2:The command line is wrong"
        })
final class Options {
    /** The version is that of povzel.jar. */
    static final class Version implements CommandLine.IVersionProvider {
        @Override
        public String[] getVersion() {
            return new String[] {"povzel " + PovZelSession.class.getPackage().getImplementationVersion()};
        }
    }

    static final String DEFAULT_USER = "DataCurator";

    @Option(names = {"-e", "--execute"}, paramLabel = "CODE",
            description = "Run this text and end; may be given again.")
    List<String> texts = new ArrayList<>();

    @Option(names = {"-s", "--server"}, paramLabel = "NAME", description = "The server to log in to.")
    String server;

    @Option(names = {"-u", "--user"}, paramLabel = "NAME", defaultValue = DEFAULT_USER,
            description = "The user to log in as; ${DEFAULT-VALUE} unless given.")
    String user;

    @Option(names = "--password-file", paramLabel = "FILE",
            description = "The file whose first line is the password; otherwise it is asked for.")
    Path passwordFile;

    @ArgGroup
    Access access = new Access();

    @Option(names = "--debug", description = "Trace every call on standard error.")
    boolean debug;

    /** Which of the two interface libraries to use. */
    static final class Access {
        @Option(names = "--linked", description = "Use the interface library that runs in this process.")
        boolean linked;

        @Option(names = "--rpc", description = "Use the one that calls a server (the default).")
        boolean rpc;
    }
}
