// kxadmin-strict: that its table knows every message of kxadmin, and the status of each ending.
#include "tests/run_program.h"
#include "tests/scratch.h"
#include "tests/scripted_server.h"

#include <gtest/gtest.h>

#include <numeric>
#include <regex>
#include <set>

static const std::string strict = KXADMIN_PROGRAM "-strict";

/// Said on the way to an ending, in front of the usage text, or in the report file of test.
static const char harmless[] = R"(
%d , %d | %s %s %s | %s (Y/N)? | %s: %s -- %c | Enter the password for the account used to start %s:
[%s] is out of range. | [%s] must be a positive number. | Destination volume has %d blocks available
A numeric value is required. | Are you sure you want to stop the server? | where 1 block = %d bytes
Bench test finished. | Bench test running, please wait. | Only one of -s or -l can be specified.
By the kxadmin authors | Connected to %s server | WARNING: Destination file exists - overwrite
Connecting to KXSRV at host [%s] | connection stats | Locked library of size %lu:%lu bytes.
Connection to [%s] port [%d] failed.  Retrying [%u] | Unrecognized command option [%s].
Duplicate parameter for password | duplicate parameter for password | Lock attempt failed - retrying
File size changed between check and lock - retrying | There are %d active connections. | stty -echo
invalid option | Invalid parameter [%s] | KXADMIN 7.0a | There is 1 active connection. | lock list
Locking entire source file. | open: %s | option requires an argument | Source file size %d blocks.
Please check path. | Repository path must be specified using -r for test command. | stty echo
Source and destination repositories must be specified. | Writing data to %s. | Locale: %.*s%s
Temporary file path must be specified using -f for test command.
Could not connect to an KXSRV on %s:%d. Ensure that you have the correct server address and port number and that KXSRV is running on that machine.)";

/// The lines that have a blank or are the frame, trimmed, in order and each once.
static std::string messagesIn(const std::string& text) {
    static const std::regex message("\\S.* .*\\S|==+");
    std::set<std::string> lines;
    for (std::sregex_iterator i(text.begin(), text.end(), message), end; i != end; ++i)
        lines.insert(i->str() + '\n');
    return std::accumulate(lines.begin(), lines.end(), std::string());
}

/// All string literals of kxadmin's sources, each on lines of its own.
static std::string literalsOfSources() {
    static const std::regex noCode("//.*|#include.*|\"\\s*\""), escape(R"(\\[nrt])"),
        literal(R"re("((\\.|[^"\\])*)")re");
    const char sources[] = "cd '" KX_SOURCE_DIR "' && cat front/* net/* client/* ops/*";
    const std::string text = runProgram("/bin/sh", {"-c", sources}).out;
    const std::string code = std::regex_replace(text, noCode, "");
    std::string literals;
    for (std::sregex_iterator i(code.begin(), code.end(), literal), end; i != end; ++i)
        literals += std::regex_replace((*i)[1].str(), escape, "\n") + '\n';
    return literals;
}

TEST(Strict, KnowsEveryMessage) {
    std::string usage = runProgram(KXADMIN_PROGRAM, {}).out;
    std::string table = runProgram("/bin/cat", {strict}).out;
    usage.erase(0, usage.find("\nUsage"));
    table.erase(0, table.find("<<'END'\n") + 7).erase(table.find("\nEND\n"));
    const std::regex separator("\n[0-5-] | [|] ");
    EXPECT_EQ(messagesIn(std::regex_replace(table + harmless, separator, "\n") + usage),
              messagesIn(literalsOfSources()));
}

TEST(Strict, TellsHowACommandEnded) {
    Scratch scratch;
    scratch.write("a.rep", "4321\5" + std::string(2000, '\0'));
    scratch.write("stty", "printf 'No terminal ' >&2"); // not a whole line
    // clang-format off
    const struct { int status; std::string command, input{}; } rows[] = {
        {0, "stat"}, {0, "list -s 1"}, {0, "opts"}, {0, "opts -s2", "pw\n"}, {0, "stop -p pw", "y\n"},
        {0, "test -ra.rep"}, {0, "test -r a.rep -q -f old"}, {0, "test -ra.rep -p x -fnew"},
        {0, "bench -t x -c1024 -l log"}, {0, "copy -p pw a.rep b.rep"}, {0, "copy -qop pw a.rep b.rep"},
        {0, "copy -p pw -f 'echo Copy cancelled.;echo Path [] is too long.>&2;cp' a.rep b.rep"}, {0, "copy -p pw a.rep b.rep", "y\n"},
        {1, ""}, {1, "stat -x"}, {1, "copy -p pw a.rep"}, {1, "bench -c1"}, {1, "test -f new"}, {1, "opts -s4 -p pw"},
        {2, "test -ra.rep -P1 -f old"}, {3, "list -s 77"}, {3, "opts -s1 -p no"}, {3, "test -r none"},
        {3, "test -r none -f old"}, {3, "test -f old -r " + std::string(1100, 'x')}, {3, "bench -c1024 -l /dev/full"},
        {3, "copy -p pw -f 'echo Repository 1:2 copied to 3:4.;false' a.rep b.rep"}, {3, "copy -qp pw -f cp a.rep b.rep"},
        {4, "copy -p pw a.rep b.rep", "n\n"}, {4, "copy -p pw a.rep b.rep"},
    };
    // clang-format on
    const std::string start =
        "cd " + scratch.directory + "; chmod +x stty; rm -f new; PATH=.:$PATH exec " + strict + " ";
    Arguments arguments = {"-d", scratch.directory, "-p", "pw", "--", "sh", "-c", ""};
    for (const auto& row : rows) {
        scratch.write("old", "0\n");
        arguments.back() = start + row.command;
        const Outcome outcome = runProgram(KXSANDBOX_PROGRAM, arguments, {}, row.input);
        EXPECT_EQ(outcome.status, row.status) << row.command << outcome.out << outcome.err;
    }
}

TEST(Strict, PassesOnEveryByte) {
    const std::string failure = "Failed receiving statistics.\n\xFF";
    // clang-format off
    const struct { int status; Arguments arguments; U32 code; Answer answer; } rows[] = {
        {0, {"stat"}, 13, reply(0, failure + "\r" + failure)}, // the server's text says nothing
        {3, {"stat"}, 13, reply(1)},
        {3, {"stat"}, 9, reply(0, be32(0))}, // without a word
        {3, {"stop", "-p", "it's\n'"}, 11, reply(1)},
        {1, {"stat", "-x\xFF"}, 0, {}},
    };
    // clang-format on
    for (const auto& row : rows) {
        Outcome outcomes[2];
        for (Outcome& outcome : outcomes) {
            ScriptedServer server;
            server.on(row.code, {row.answer});
            outcome = runProgram(&outcome == outcomes ? KXADMIN_PROGRAM : strict, row.arguments,
                                 serverAt(server.port));
        }
        EXPECT_EQ(outcomes[1].out + outcomes[1].err, outcomes[0].out + outcomes[0].err);
        EXPECT_EQ(outcomes[1].status, row.status) << outcomes[1].out;
    }
}

TEST(Strict, LeavesTheTerminalToKxadmin) {
    ScriptedServer server;
    server.on(14, {reply(2)});
    TerminalRun prompt(strict, {"opts", "-s1"}, serverAt(server.port));
    ASSERT_TRUE(prompt.waitFor("KXSRV : ") && prompt.waitForEcho(false));
    prompt.type("\3");
    EXPECT_EQ(prompt.finish(), 4);
    EXPECT_TRUE(prompt.echoes());

    TerminalRun question(strict, {"stop", "-p", "secret"}, serverAt(server.port));
    ASSERT_TRUE(question.waitFor("(Y/N)?"));
    const Arguments shown = {"/proc/" + std::to_string(question.process) + "/cmdline"};
    EXPECT_EQ(runProgram("/bin/cat", shown).out.find("secret"), std::string::npos);
    question.type("\3");
    EXPECT_EQ(question.finish(), 128 + SIGINT);
}
