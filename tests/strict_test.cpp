// kxadmin-strict: its long options, what it says besides kxadmin, and its end by a signal. The
// status of each ending is told by program_test.cpp and fault_test.cpp too.
#include "tests/expect.h"
#include "tests/run_program.h"
#include "tests/scratch.h"
#include "tests/scripted_server.h"

#include <csignal>

static const string strict = KXADMIN_PROGRAM "-strict";

/// The lines of standard error that are kxadmin-strict's own.
static string notesIn(const string& err) {
    const string begin = "kxadmin-strict: ";
    const auto at = err.find(begin);
    return at == err.npos ? "" : err.substr(at + begin.size());
}

TEST(Strict, JudgesWhatKxadminDoesNotLookAt) {
    const string source = repository(2000), other = source.substr(0, 1999) + "x";
    const Answer u125 = reply(0, be32(125));
    // clang-format off
    const struct {
        Name name; // the command line
        U32 code;
        std::vector<Answer> answers;
        string note;
    } rows[] = {
        {"opts -s1 -p", 20, {reply(5)}, "[localhost] did not set its logging level (-5)\n"},
        {"stop -p", 17, {reply(-9)}, "[localhost] refused to stop (-9)\n"},
        {"stop -pZ100", 17, {{"", Answer::CLOSE}},
         "[localhost] did not answer the request to stop\n"},
        {"bench -c1024 -l /dev/null", 4, {reply(28), reply(0)},
         "the data could not be written (-28)\n"},
        {"copy -p pw a.rep 127.0.0.2:b.rep # a unit short", 36, {reply(0, source.substr(16))},
         "0:1984 of 0:2000 bytes were copied\n"},
        {"--verify copy -p pw a.rep 127.0.0.2:b.rep # another byte", 36,
         {reply(0, source), reply(0, other)}, "the copy differs from the source at [0:1999]\n"},
        {"--verify copy -p pw a.rep 127.0.0.2:b.rep # another length", 32,
         {u125, u125, u125, reply(0, be32(124))},
         "the source has 124 units of 16 bytes, the copy 125\n"},
    };
    // clang-format on
    forEachRow(rows, [&](const auto& row) {
        ScriptedServer server(INADDR_ANY);
        server.source.files["a.rep"] = source;
        server.on(row.code, row.answers);
        const string script = strict + " " + row.name.text;
        const RunResult run = runProgram("/bin/sh", {"-c", script}, serverAt(server.port), "y\n");
        EXPECT_EQ(run.status, 3);
        expectText(row.note, notesIn(run.err));
    });
}

TEST(Strict, TellsAServerThatDoesNotTakeItFromOneThatFails) {
    const struct {
        Name name; // what it says of the server
        Answer greeting;
    } rows[] = {
        {"refused the connection", {be32(0)}},
        {"did not greet the connection", {"", Answer::CLOSE}},
    };
    forEachRow(rows, [](const auto& row) {
        ScriptedServer server;
        server.source.greeting = row.greeting;
        const RunResult run = runProgram(strict, {"stat"}, serverAt(server.port));
        EXPECT_EQ(run.status, 2);
        expectText("[localhost] " + row.name.text + "\n", notesIn(run.err));
    });
}

TEST(Strict, EndsByTheSignalThatEndsIt) {
    for (const string& program : {string(KXADMIN_PROGRAM), strict})
        for (const int iSignal : {SIGQUIT, SIGHUP, SIGTERM, SIGINT}) {
            SCOPED_TRACE(program + " at the prompt, signal " + std::to_string(iSignal));
            ScriptedServer server;
            TerminalRun run(program, {"opts", "-s1"}, serverAt(server.port));
            ASSERT_TRUE(run.waitFor("KXSRV : ") && run.waitForEcho(false));
            kill(run.process, iSignal);
            EXPECT_EQ(run.finish(), program == strict ? 128 + iSignal : 1);
            EXPECT_TRUE(run.echoes());
            expectText(hello, server.trace());
        }
}

/// The lock outlives the command: what is passed on is waited for.
TEST(Strict, PassesASignalOnToTheCopyingCommand) {
    const Scratch scratch;
    const struct {
        Name name;
        string program;
        int iSignal, status;
        string shell = ""; // what the shell does that becomes the program
    } rows[] = {
        {"kxadmin, SIGTERM", KXADMIN_PROGRAM, SIGTERM, 128 + SIGTERM},
        {"kxadmin, SIGINT", KXADMIN_PROGRAM, SIGINT, 0},
        {"kxadmin-strict, SIGHUP", strict, SIGHUP, 128 + SIGHUP},
        {"kxadmin-strict, SIGINT", strict, SIGINT, 128 + SIGINT},
        {"kxadmin, beside another job", KXADMIN_PROGRAM, SIGTERM, 128 + SIGTERM,
         "trap '' HUP; sh " + scratch.path("job") + " >/dev/null 2>&1 & "},
        {"kxadmin, its terminal gone", KXADMIN_PROGRAM, 0, 128 + SIGHUP},
    };
    for (const string file : {"wait", "job"})
        scratch.write(file, "trap 'echo ended; cp $0 $0.ended; exit' TERM HUP INT; echo started;"
                            "while [ -e $0 ]; do sleep .1; done");
    forEachRow(rows, [&](const auto& row) {
        ScriptedServer server;
        server.source.files["a.rep"] = repository(2000);
        // A shell that waits for another, but beside another job, where it alone is waited for.
        const string command =
            (row.shell.empty() ? "sh " : "exec sh ") + scratch.path("wait") + "; :";
        std::filesystem::remove(scratch.path("wait.ended"));
        TerminalRun copy("/bin/sh",
                         {"-c", row.shell + "exec \"$0\" copy -p pw -f \"$1\" a.rep b.rep",
                          row.program, command},
                         serverAt(server.port));
        ASSERT_TRUE(copy.waitFor("started")) << copy.output;
        if (row.iSignal == 0) {
            EXPECT_EQ(copy.hangUp(), row.status);
        } else {
            kill(copy.process, row.iSignal);
            EXPECT_EQ(copy.finish(), row.status);
            EXPECT_NE(copy.output.find("ended\n\nUnlocking source."), string::npos) << copy.output;
        }
        EXPECT_NE(scratch.read("wait.ended"), "(none)") << "the command was not told";
        EXPECT_TRUE(server.trace().ends_with("UNLOCK 0 0 0 2000\nCLOSE\nDISCONNECT\n"))
            << server.trace();
        EXPECT_EQ(scratch.read("job.ended"), "(none)") << "the other job was told too";
    });
}
