// kxadmin-strict: the exit status of each ending, its long options, and its end by a signal.
#include "tests/run_program.h"
#include "tests/scratch.h"
#include "tests/scripted_server.h"

#include <gtest/gtest.h>

#include <csignal>

static const std::string strict = KXADMIN_PROGRAM "-strict";

namespace {

struct StrictRow {
    const char* name;
    int status;
    const char* command;
    const char* note = ""; // what kxadmin-strict says of it
    const char* input = "";
};

} // namespace

/// The lines of standard error that are kxadmin-strict's own.
static std::string notesIn(const std::string& err) {
    std::string notes;
    for (std::size_t at = 0, end; at < err.size(); at = end + 1) {
        end = std::min(err.find('\n', at), err.size());
        if (err.compare(at, 16, "kxadmin-strict: ") == 0)
            notes += err.substr(at + 16, end - at - 16);
    }
    return notes;
}

TEST(Strict, TellsHowACommandEnded) {
    Scratch scratch;
    scratch.write("a.rep", "4321\5" + std::string(2000, '\0'));
    scratch.write("long.rep", std::string(3000, '\0'));
    scratch.write("password", "pw\n");
    scratch.write("empty", "\n");
    scratch.write("long", std::string(31, 'x'));
    // clang-format off
    const StrictRow rows[] = {
        {"statistics", 0, "stat"},
        {"password typed", 0, "opts -s2", "", "pw\n"},
        {"password wrong", 3, "opts -s2 -p no"},
        {"no password", 4, "opts -s2", "no password was given"},
        {"level too high", 1, "opts -s4 -p pw"},
        {"no such connection", 3, "list -s 77"},
        {"named like a success", 3, "test -r 'x appears to be a valid repository with a maximum size of 1 GB.'"},
        {"report lost", 3, "test -r a.rep -f /dev/full"},
        {"results lost", 3, "bench -c1024 -l /dev/full"},
        {"output lost", 3, "stat >/dev/full", "standard output was lost"},
        {"unreachable", 2, "stat -P1"},
        {"unreachable in the report", 2, "test -r a.rep -P1 -f report"},
        {"not understood", 1, "stat -x"},
        {"copied to a name with a line feed", 0, "copy -p pw a.rep 'b\nc.rep'"},
        {"copied in silence", 0, "copy -qop pw a.rep b.rep"},
        {"not to be overwritten", 4, "copy -p pw a.rep b.rep", "", "n\n"},
        {"command failed", 3, "copy -qp pw -f 'exit 5;' a.rep b.rep", "the system command failed with status 5"},
        {"command done", 0, "copy -qp pw -f 'echo Copy cancelled.;cp' a.rep c.rep"},
        {"copy verified", 0, "--verify copy -p pw a.rep d.rep"},
        {"old end found", 3, "--verify copy -op pw a.rep long.rep", "the copy goes on where the source ends, at [0:2005]"},
        {"nothing to verify", 1, "--verify stat", "--verify goes with a copy through the servers only"},
        {"no number of tries", 1, "--tries 31 stat", "--tries takes a number from 1 to 30"},
        {"password file", 0, "--password-file password opts -s1"},
        {"password on standard input", 0, "--password-file - stop", "", "pw\ny\n"},
        {"password twice", 1, "--password-file password opts -s1 -p pw", "-p and --password-file exclude each other"},
        {"password open to others", 1, "--password-file a.rep stat", "password file a.rep: others may read or change it"},
        {"password file missing", 1, "--password-file none stat", "password file none: No such file or directory"},
        {"password is a folder", 1, "--password-file . stat", "password file .: Is a directory"},
        {"password empty", 1, "--password-file empty stat", "password file empty: its first line is empty"},
        {"password long", 1, "--password-file long stat", "password file long: its first line is too long for a password"},
    };
    // clang-format on
    const std::string start = "cd '" + scratch.directory +
                              "' && chmod 600 password empty long && " + strict + " --tries=1 ";
    for (const StrictRow& row : rows) {
        SCOPED_TRACE(row.name);
        const Outcome outcome =
            runProgram(KXSANDBOX_PROGRAM,
                       {"-d", scratch.directory, "-p", "pw", "--", "sh", "-c", start + row.command},
                       {}, row.input);
        EXPECT_EQ(outcome.status, row.status) << outcome.out << outcome.err;
        EXPECT_EQ(notesIn(outcome.err), row.note);
    }
}

TEST(Strict, JudgesRepliesThatKxadminDoesNotLookAt) {
    const struct {
        const char* name;
        int status;
        U32 code;
        Answer answer;
        Arguments command;
        const char* note;
    } rows[] = {
        {"level refused",
         3,
         REQUEST_SET_LOG_LEVEL,
         reply(5),
         {"opts", "-s1", "-p"},
         "[localhost] did not set its logging level (-5)"},
        {"stop refused",
         3,
         REQUEST_STOP_SERVER,
         reply(-9),
         {"stop", "-p"},
         "[localhost] refused to stop (-9)"},
        {"stop not answered",
         3,
         REQUEST_STOP_SERVER,
         {"", Answer::CLOSE},
         {"stop", "-p"},
         "[localhost] did not answer the request to stop"},
        {"no data limit",
         3,
         REQUEST_GET_MAX_DATA,
         reply(0, be32(0)),
         {"stat"},
         "[localhost] gave no data limit"},
        {"a text like a failure",
         0,
         REQUEST_GET_KXSRV_STATS,
         reply(0, "Failed receiving statistics."),
         {"stat"},
         ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ScriptedServer server;
        server.on(row.code, {row.answer});
        const Outcome outcome = runProgram(strict, row.command, serverAt(server.port));
        EXPECT_EQ(outcome.status, row.status) << outcome.out;
        EXPECT_EQ(notesIn(outcome.err), row.note);
    }
}

TEST(Strict, FindsACopyThatIsShort) {
    ScriptedServer server(INADDR_ANY);
    Volume source, dest;
    source.files["a.rep"] = repository(100000);
    serveFiles(server, source);
    serveFiles(server, dest, ScriptedServer::DEST);
    server.on(REQUEST_16GB_FILE_READ, {reply(0, std::string(4096, 'x'))});
    const Outcome outcome = runProgram(
        strict, {"copy", "-p", "pw", "127.0.0.1:a.rep", "127.0.0.2:b.rep"}, serverAt(server.port));
    EXPECT_EQ(outcome.status, 3);
    EXPECT_EQ(outcome.err, "kxadmin-strict: 0:4096 of 0:100000 bytes were copied\n");
}

TEST(Strict, RefusedByTheServer) {
    ScriptedServer server;
    server.greetings[0] = {be32(0)};
    const Outcome outcome = runProgram(strict, {"stat"}, serverAt(server.port));
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.err, "kxadmin-strict: [localhost] refused the connection\n");
}

TEST(Strict, EndsByTheSignalThatEndsIt) {
    ScriptedServer server;
    TerminalRun prompt(strict, {"opts", "-s1"}, serverAt(server.port));
    ASSERT_TRUE(prompt.waitFor("KXSRV : ") && prompt.waitForEcho(false));
    prompt.type("\3");
    EXPECT_EQ(prompt.finish(), 128 + SIGINT);
    EXPECT_TRUE(prompt.echoes());
}

/// The lock outlives the command: what is passed on is waited for.
TEST(Strict, PassesASignalOnToTheCopyingCommand) {
    const struct {
        const char* name;
        std::string program;
        int signal, status;
    } rows[] = {
        {"kxadmin, SIGTERM", KXADMIN_PROGRAM, SIGTERM, 128 + SIGTERM},
        {"kxadmin, SIGINT", KXADMIN_PROGRAM, SIGINT, 0},
        {"kxadmin-strict, SIGHUP", strict, SIGHUP, 128 + SIGHUP},
        {"kxadmin-strict, SIGINT", strict, SIGINT, 128 + SIGINT},
    };
    // The shell is ended by the signal; what it has started ends a little later.
    Scratch scratch;
    scratch.write("wait", "trap 'echo ended; exit' TERM HUP INT; echo started;"
                          "while :; do sleep .1; done");
    const std::string command = "sh " + scratch.directory + "/wait; :";
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ScriptedServer server;
        Volume volume;
        volume.files["a.rep"] = repository(2000);
        serveFiles(server, volume);
        server.on(REQUEST_16GB_LARGE_LOCK, {reply(0)});
        server.on(REQUEST_16GB_LARGE_UNLOCK, {reply(0)});
        TerminalRun copy(row.program, {"copy", "-p", "pw", "-f", command, "a.rep", "b.rep"},
                         serverAt(server.port));
        ASSERT_TRUE(copy.waitFor("started")) << copy.output;
        kill(copy.process, row.signal);
        EXPECT_EQ(copy.finish(), row.status) << copy.output;
        EXPECT_NE(copy.output.find("ended\r\n\r\nUnlocking source."), std::string::npos)
            << copy.output;
    }
}
