// kxadmin-strict: that its table knows every message of kxadmin, and the status of each ending.
#include "tests/run_program.h"
#include "tests/scratch.h"
#include "tests/scripted_server.h"

#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <sstream>

using namespace std::string_literals;

static const std::string strict = KXADMIN_PROGRAM "-strict";

/// Said on the way to an ending, in front of the usage text, or in the report file of test.
static const char harmless[] = R"(
%s (Y/N)?
%d , %d
%s %s %s
%s: %s -- %c
(MBCS)
A numeric value is required.
Are you sure you want to stop the server?
Bench test finished.
Bench test running, please wait.
By the kxadmin authors
Connected to %s server
Connecting to KXSRV at host [%s]
Connection to [%s] port [%d] failed.  Retrying [%u]
Copying %s => %s using system command '%s'
Copying %s:%s => %s:%s
Could not connect to an KXSRV on %s:%d. Ensure that you have the correct server address and port number and that KXSRV is running on that machine.
Destination volume has %d blocks available
Duplicate parameter for password
Enter the password for the account used to start %s:
File size changed between check and lock - retrying
Invalid parameter [%s]
KXADMIN 7.0a
Locale: %s
Lock attempt failed - retrying
Only one of -s or -l can be specified.
Please check path.
Repository path must be specified using -r for test command.
Source and destination repositories must be specified.
Source file size %d blocks.
Temporary file path must be specified using -f for test command.
There are %d active connections.
There is 1 active connection.
Unrecognized command option [%s].
WARNING: Destination file exists - overwrite
Writing data to %s.
[%s] is out of range.
[%s] must be a positive number.
connection stats
duplicate parameter for password
invalid option
lock list
option requires an argument
stty -echo
stty echo
where 1 block = %d bytes
)";

static std::string slurp(const std::filesystem::path& path) {
    std::ifstream stream(path);
    return {std::istreambuf_iterator(stream), {}};
}

/// Adds the lines of `text` that have a blank within, trimmed.
static void addLines(const std::string& text, std::set<std::string>* pLines) {
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        line = std::regex_replace(line, std::regex(R"(^[\s]+|[\s]+$)"), "");
        if (line.find(' ') != std::string::npos || line.find("===") == 0)
            pLines->insert(line);
    }
}

/// The lines of all string literals of kxadmin's sources.
static std::set<std::string> messagesOfSources() {
    static const std::regex noCode("//.*|#include.*"), adjacent(R"("\s*")"),
        literal(R"re("((\\.|[^"\\])*)")re"), escape(R"(\\[nrt])");
    std::set<std::string> messages;
    for (const char* pszFolder : {"front", "net", "client", "ops"})
        for (const auto& entry :
             std::filesystem::directory_iterator(KX_SOURCE_DIR "/"s + pszFolder)) {
            std::string text = std::regex_replace(slurp(entry.path()), noCode, "");
            text = std::regex_replace(text, adjacent, "");
            for (std::sregex_iterator i(text.begin(), text.end(), literal), end; i != end; ++i)
                addLines(std::regex_replace((*i)[1].str(), escape, "\n"), &messages);
        }
    return messages;
}

static std::set<std::string> without(std::set<std::string> lines,
                                     const std::set<std::string>& others) {
    for (const std::string& line : others)
        lines.erase(line);
    return lines;
}

TEST(Strict, KnowsEveryMessage) {
    const std::string script = slurp(strict);
    const std::size_t start = script.find("<<'END'\n") + 8;
    const std::string table = script.substr(start, script.find("\nEND\n") - start);
    std::set<std::string> rows, known;
    addLines(std::regex_replace(table, std::regex("(^|\n)\\S+ +\\S+ +"), "\n"), &rows);
    addLines(harmless + runProgram(KXADMIN_PROGRAM, {}).out, &known);
    const std::set<std::string> messages = messagesOfSources();
    EXPECT_EQ(without(rows, messages), std::set<std::string>()) << "are no messages";
    known.insert(rows.begin(), rows.end());
    EXPECT_EQ(without(messages, known), std::set<std::string>())
        << "are neither in the table nor harmless";
}

TEST(Strict, TellsHowACommandEnded) {
    Scratch scratch;
    scratch.write("a.rep", "4321\5" + std::string(2000, '\0'));
    scratch.write("old", "0\n");
    const std::string tooLong(1100, 'x');
    const struct {
        std::string command, input;
        int status;
    } rows[] = {
        {"stat", "", 0},
        {"list -s 1", "", 0},
        {"opts", "", 0},
        {"opts -s2", "pw\n", 0},
        {"stop -p pw", "y\n", 0},
        {"test -ra.rep", "", 0},
        {"test -r a.rep -qf old", "", 0},
        {"test -ra.rep -p x -fnew", "", 0},
        {"bench -t x -c1024 -l log", "", 0},
        {"copy -p pw a.rep b.rep", "", 0},
        {"copy -qop pw a.rep b.rep", "", 0},
        {"copy -p pw -f 'echo Copy cancelled.;cp' a.rep b.rep", "", 0},
        {"", "", 1},
        {"stat -x", "", 1},
        {"copy -p pw a.rep", "", 1},
        {"bench -c1", "", 1},
        {"test -f new", "", 1},
        {"opts -s4 -p pw", "", 1},
        {"test -ra.rep -P1 -f old", "", 2},
        {"list -s 77", "", 3},
        {"opts -s1 -p no", "", 3},
        {"test -r none", "", 3},
        {"test -r none -f old", "", 3},
        {"test -f old -r " + tooLong, "", 3},
        {"bench -c1024 -l /dev/full", "", 3},
        {"copy -p pw -f 'echo Repository 1 copied to 2:3.;false' a.rep b.rep", "", 3},
        {"copy -qp pw -f cp a.rep b.rep", "", 3},
        {"copy -p pw a.rep b.rep", "n\n", 4},
        {"copy -p pw a.rep b.rep", "", 4},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.command);
        scratch.write("old", "0\n");
        const std::string script = "cd " + scratch.directory + "; rm -f new; exec " + strict + " ";
        const Outcome outcome = runProgram(
            KXSANDBOX_PROGRAM,
            {"-d", scratch.directory, "-p", "pw", "--", "sh", "-c", script + row.command},
            {{"TMPDIR", scratch.directory}}, row.input);
        EXPECT_EQ(outcome.status, row.status) << outcome.out << outcome.err;
    }
    for (const auto& entry : std::filesystem::directory_iterator(scratch.directory))
        EXPECT_FALSE(entry.is_directory()) << entry.path() << " is left";
}

TEST(Strict, PassesOnWhatItDoesNotTrust) {
    const std::string inactive = "Connection 1 is not active, could not get connection stats.";
    const struct {
        Arguments arguments;
        std::map<U32, Answer> answers;
        int status;
    } rows[] = {
        {{"stat"}, {{13, reply(0, "Failed receiving statistics.\n\xFF")}}, 0},
        {{"list", "-s1"}, {{15, reply(0, "x\n" + inactive)}}, 0},
        {{"list", "-s1"}, {{15, reply(0, inactive + "\nx")}}, 0},
        {{"list", "-s1"}, {{15, reply(1)}}, 3},
        {{"stat"}, {{13, reply(1)}}, 3},
        {{"stat"}, {{9, reply(0, be32(0))}}, 3}, // without a word
        {{"stop", "-p", "it's\n'"}, {{11, reply(1)}}, 3},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.arguments));
        Outcome outcomes[2];
        for (int i = 0; i < 2; ++i) {
            ScriptedServer server;
            for (const auto& [code, answer] : row.answers)
                server.on(code, {answer});
            outcomes[i] = runProgram(i == 0 ? KXADMIN_PROGRAM : strict, row.arguments,
                                     {{"KXSRV_CTRL_PORT", std::to_string(server.port)}});
        }
        EXPECT_EQ(outcomes[1].out + outcomes[1].err, outcomes[0].out + outcomes[0].err);
        EXPECT_EQ(outcomes[1].status, row.status);
    }
}

TEST(Strict, GivesTheTerminalBackAtASignal) {
    ScriptedServer server;
    TerminalRun run(strict, {"opts", "-s1"}, {{"KXSRV_CTRL_PORT", std::to_string(server.port)}});
    ASSERT_TRUE(run.waitFor("KXSRV : ") && run.waitForEcho(false));
    run.type("\3");
    EXPECT_EQ(run.finish(), 128 + SIGINT);
    EXPECT_TRUE(run.echoes());
}
