// kxadmin-strict: its long options, what it says besides kxadmin, and its end by a signal. The
// status of each ending is told by program_test.cpp and fault_test.cpp too.
#include "tests/expect.h"
#include "tests/run_program.h"
#include "tests/scratch.h"
#include "tests/scripted_server.h"

#include <csignal>

static const std::string strict = KXADMIN_PROGRAM "-strict";

namespace {

struct StrictRow {
    Name name; // the command line
    int status;
    std::string note = ""; // what kxadmin-strict says of it
    std::string input = "";
};

} // namespace

/// The lines of standard error that are kxadmin-strict's own.
static std::string notesIn(const std::string& err) {
    const std::string begin = "kxadmin-strict: ";
    const auto at = err.find(begin);
    return at == err.npos ? "" : err.substr(at + begin.size());
}

TEST(Strict, TellsHowACommandEnded) {
    const std::string own = "-p and --password-file exclude each other\n", file = "password file ";
    // clang-format off
    const StrictRow rows[] = {
        {"opts -s2 # typed", 0, "", "pw\n"},
        {"opts -s2 # not typed", 4, "no password was given\n"},
        {"stat >/dev/full", 3, "standard output was lost\n"},
        {"test -ra.rep -P1 -f report", 2},
        {"test -ra.rep -f /dev/full", 3},
        {"copy -p pw a.rep \"$(printf 'b\\nc')\"", 0},
        {"copy -p pw a.rep b.rep", 4, "", "n\n"},
        {"copy -qp pw -f 'echo Copy cancelled.; cp' a.rep c.rep", 0},
        {"copy -qp pw -f 'exit 5;' a.rep b.rep", 3, "the system command failed with status 5\n"},
        {"--verify copy -p pw a.rep d.rep", 0},
        {"--verify copy -op pw a.rep long.rep", 3,
         "the copy goes on where the source ends, at [0:2005]\n"},
        {"--verify stat", 1, "--verify goes with a copy through the servers only\n"},
        {"--tries 31 stat", 1, "--tries takes a number from 1 to 30\n"},
        {"--help", 0},
        {"--password-file password opts -s1", 0},
        {"--password-file - stop", 0, "", "pw\ny\n"},
        {"--password-file password opts -s1 -p pw", 1, own},
        {"--password-file a.rep stat", 1, file + "a.rep: others may read or change it\n"},
        {"--password-file x31 stat", 1, file + "x31: its first line is too long for a password\n"},
    };
    // clang-format on
    forEachRow(rows, [](const auto& row) {
        const Scratch scratch;
        scratch.write("a.rep", "4321\5" + std::string(2000, '\0'));
        scratch.write("b.rep", "");
        scratch.write("long.rep", std::string(3000, '\0'));
        scratch.write("password", "pw\n");
        scratch.write("empty", "\n");
        scratch.write("x31", std::string(31, 'x'));
        const std::string script = "cd " + scratch.directory + "; chmod 600 password empty x31; " +
                                   strict + " --tries=1 " + row.name.text;
        const Arguments words{"-p", "pw", "-d", scratch.directory, "--", "sh", "-c", script};
        const RunResult run = runProgram(KXSANDBOX_PROGRAM, words, {}, row.input);
        EXPECT_EQ(run.status, row.status) << run.out << run.err;
        expectText(row.note, notesIn(run.err));
    });
}

TEST(Strict, JudgesWhatKxadminDoesNotLookAt) {
    // clang-format off
    const struct {
        Name name; // the command line
        U32 code;
        Answer answer;
        std::string note;
    } rows[] = {
        {"opts -s1 -p", 20, reply(5), "[localhost] did not set its logging level (-5)\n"},
        {"stop -p", 17, reply(-9), "[localhost] refused to stop (-9)\n"},
        {"stop -pZ100", 17, {"", Answer::CLOSE},
         "[localhost] did not answer the request to stop\n"},
        {"copy -p pw a.rep 127.0.0.2:b.rep", 36, reply(0, "short"),
         "0:5 of 0:2000 bytes were copied\n"},
    };
    // clang-format on
    forEachRow(rows, [](const auto& row) {
        ScriptedServer server(INADDR_ANY);
        server.source.files["a.rep"] = repository(2000);
        server.on(row.code, {row.answer});
        const std::string script = strict + " " + row.name.text;
        const RunResult run = runProgram("/bin/sh", {"-c", script}, serverAt(server.port), "y\n");
        EXPECT_EQ(run.status, 3);
        expectText(row.note, notesIn(run.err));
    });
}

TEST(Strict, EndsByTheSignalThatEndsIt) {
    for (const std::string& program : {std::string(KXADMIN_PROGRAM), strict})
        for (const int iSignal : {SIGQUIT, SIGHUP, SIGTERM, SIGINT}) {
            SCOPED_TRACE(program + " at the prompt, signal " + std::to_string(iSignal));
            ScriptedServer server;
            TerminalRun run(program, {"opts", "-s1"}, serverAt(server.port));
            ASSERT_TRUE(run.waitFor("KXSRV : ") && run.waitForEcho(false));
            kill(run.process, iSignal);
            EXPECT_EQ(run.finish(), program == strict ? 128 + iSignal : 1);
            EXPECT_TRUE(run.echoes());
            EXPECT_EQ(server.trace(), hello);
        }
}

/// The lock outlives the command: what is passed on is waited for.
TEST(Strict, PassesASignalOnToTheCopyingCommand) {
    const struct {
        Name name;
        std::string program;
        int iSignal, status;
    } rows[] = {
        {"kxadmin, SIGTERM", KXADMIN_PROGRAM, SIGTERM, 128 + SIGTERM},
        {"kxadmin, SIGINT", KXADMIN_PROGRAM, SIGINT, 0},
        {"kxadmin-strict, SIGHUP", strict, SIGHUP, 128 + SIGHUP},
        {"kxadmin-strict, SIGINT", strict, SIGINT, 128 + SIGINT},
    };
    const Scratch scratch;
    scratch.write("wait", "trap 'echo ended; exit' TERM HUP INT; echo started;"
                          "while :; do sleep .1; done");
    forEachRow(rows, [&](const auto& row) {
        ScriptedServer server;
        server.source.files["a.rep"] = repository(2000);
        const std::string command = "sh " + scratch.path("wait") + "; :";
        TerminalRun copy(row.program, {"copy", "-p", "pw", "-f", command, "a.rep", "b.rep"},
                         serverAt(server.port));
        ASSERT_TRUE(copy.waitFor("started")) << copy.output;
        kill(copy.process, row.iSignal);
        EXPECT_EQ(copy.finish(), row.status);
        EXPECT_NE(copy.output.find("ended\n\nUnlocking source."), std::string::npos) << copy.output;
    });
}
