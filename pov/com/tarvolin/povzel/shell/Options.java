package com.tarvolin.povzel.shell;

import com.tarvolin.povzel.PovZelSession;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.InvalidPathException;
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
        footerHeading = "%nThe first word can be one of these, with a database:%n",
        footer = {
            "  check NAME            tell whether it is whole",
            "  dump NAME [OUT]       write all of it as text",
            "  load NAME [IN]        make a new one of such a text",
            "  compact NAME          give room back that it no longer needs",
            "  create NAME           make an empty one",
            "  stat NAME             tell its size and what is in it",
            "NAME is a file, or postgresql://user@host:port/database?schema=povzel.",
            "A file of texts that has such a name is ./check."
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
    /** What can stand behind a server's name. */
    private static final char QUERY = '?';
    private static final String CREATE = "create=true";

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

    @Option(names = {"-s", "--server"}, paramLabel = "NAME",
            description = "The server to log in to. Of the built-in database a name with a / or that ends in"
                    + " .povzel is a file, which keeps what is committed, and"
                    + " postgresql://user@host:port/database?schema=povzel is on a PostgreSQL server.")
    String server;

    @Option(names = "--create",
            description = "Make the file, at the first commit; its users SystemUser and DataCurator get the"
                    + " password. One that is there is used as it is.")
    boolean create;

    @Option(names = {"-u", "--user"}, paramLabel = "NAME", defaultValue = DEFAULT_USER,
            description = "The user to log in as; ${DEFAULT-VALUE} unless given.")
    String user = DEFAULT_USER;

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

    /** The server's name as the login takes it. */
    String login() {
        if (server == null) {
            return "";
        }
        return !create || isCreating(server) ? server
                : server + (server.indexOf(QUERY) < 0 ? QUERY : '&') + CREATE;
    }

    private static boolean isCreating(String name) {
        int query = name.indexOf(QUERY);
        return query >= 0 && name.indexOf(CREATE, query) >= 0;
    }

    boolean isOnServer() {
        return ServerUrl.isOne(server);
    }

    /** Whether the first commit makes the database. */
    boolean creates() {
        if (!isCreating(login()) || isOnServer()) {
            return false;
        }
        try {
            return Files.size(Path.of(place())) == 0;
        } catch (IOException | InvalidPathException e) {
            return true;
        }
    }

    /** The server's name without what is asked of it. */
    private String place() {
        int query = server.indexOf(QUERY);
        return query < 0 ? server : server.substring(0, query);
    }

    /** The database's name, as short as it is told apart at a prompt. */
    String database() {
        String place = server == null ? "" : place();
        String last = place.substring(place.lastIndexOf('/') + 1);
        return last.isEmpty() ? "povzel" : last;
    }

    /** Who is logged in and where. */
    String description() {
        String where = server != null ? place() : embedded ? "the built-in database" : "the database";
        return user + " at " + where + " (" + (access.linked ? "linked" : "rpc") + ")";
    }

    /** Which of the two interface libraries to use. */
    static final class Access {
        @Option(names = "--linked", description = "Use the interface library that runs in this process.")
        boolean linked;

        @Option(names = "--rpc", description = "Use the one that calls a server (the default).")
        boolean rpc;
    }
}
