package com.tarvolin.povzel.shell;

import com.tarvolin.povzel.PovZelSession;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import picocli.CommandLine;
import picocli.CommandLine.ArgGroup;
import picocli.CommandLine.Command;
import picocli.CommandLine.Option;
import picocli.CommandLine.Parameters;

/** What the command line says. */
@Command(
        name = "povzel",
        mixinStandardHelpOptions = true,
        versionProvider = Options.Version.class,
        sortOptions = false,
        description = {
            "Runs texts in an object database and prints their results.",
            "",
            "Without -e and FILE it reads them from standard input: a text ends with the line in which"
                    + " its last string, comment or bracket is closed, and the lines :{ and :} enclose one"
                    + " of many lines. With no server and no password it uses the database that is built"
                    + " in.",
            ""
        },
        exitCodeListHeading = "%nExit status:%n",
        exitCodeList = {
            "0:Every text ran, or the conversation was ended",
            "1:A text failed, or the login did",
            "2:The command line is wrong",
            "130, 143, 141:Ended by Ctrl-C, by SIGTERM, by a reader of standard output that went away"
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

    /** One of the texts that the command line gives or names, in its order. */
    static final class Source {
        @Option(names = {"-e", "--execute"}, paramLabel = "CODE", required = true,
                description = "Run this text and end; may be given again.")
        String text;

        @Parameters(paramLabel = "FILE", arity = "1",
                description = "Run the text in this file and end; - is standard input. In the order of"
                        + " the command line, as -e.")
        String file;
    }

    @ArgGroup(multiplicity = "0..*")
    List<Source> sources = new ArrayList<>();

    @Option(names = {"-s", "--server"}, paramLabel = "NAME", description = "The server to log in to.")
    String server;

    @Option(names = {"-u", "--user"}, paramLabel = "NAME", defaultValue = DEFAULT_USER,
            description = "The user to log in as; ${DEFAULT-VALUE} unless given.")
    String user;

    @Option(names = "--password-file", paramLabel = "FILE",
            description = "The file whose first line is the password, for nobody else to read; without"
                    + " it, the variable POVZEL_PASSWORD; otherwise it is asked for.")
    Path passwordFile;

    /** What results look like. */
    enum Format { TEXT, JSON }

    @Option(names = "--format", paramLabel = "FORMAT", defaultValue = "text",
            description = "Show results as text, or as json: one value a line.")
    Format format = Format.TEXT;

    @Option(names = "--stop", description = "End at the first text that fails.")
    boolean stop;

    @Option(names = "--commit",
            description = "Commit after each text that ran, abort after one that failed.")
    boolean commit;

    @Option(names = {"-q", "--quiet"}, description = "Show results and errors alone.")
    boolean quiet;

    @ArgGroup
    Access access = new Access();

    @Option(names = "--debug", description = "Trace every call on standard error.")
    boolean debug;

    /** Whether the database may be the one that is built in. */
    boolean embedded = Boolean.getBoolean("povzel.embedded");

    boolean inJson() {
        return format == Format.JSON;
    }

    /** Who is logged in and where. */
    String description() {
        String place = server != null ? "server " + server
                : embedded ? "the built-in database" : "the database";
        return user + " at " + place + " (" + (access.linked ? "linked" : "rpc") + ")";
    }

    /** Which of the two interface libraries to use. */
    static final class Access {
        @Option(names = "--linked", description = "Use the interface library that runs in this process.")
        boolean linked;

        @Option(names = "--rpc", description = "Use the one that calls a server (the default).")
        boolean rpc;
    }
}
