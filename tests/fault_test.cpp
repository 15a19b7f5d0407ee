// One oracle, swept over every fault: whatever the server, the streams or a signal do, the program
// ends by itself, says which step failed, claims no copy that is not equal, leaves no lock on a
// link that works, no process, no file but its own and a terminal that echoes. KX_FAULTS=all tries
// every fault, otherwise a sample is tried.
#include "tests/file_server.h"
#include "tests/scratch.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <sys/prctl.h>
#include <sys/wait.h>

using namespace std::string_literals;

namespace {

/// One request of an undisturbed run, and what is said when its reply is lost or is an error.
struct Step {
    std::string code, lost, refused;
};

struct Command {
    Arguments arguments;
    std::vector<Step> steps;
    std::string input = "";
    std::string file = "";   // the one that it leaves behind
    std::string behind = ""; // what stands behind the server's text, of a command that shows one
    bool fPrompts = false;   // for the password, on a terminal
};

/// What a fault does harm to: its step and the link behind it, its step alone, all steps from there
/// on.
enum Reach { LINK, STEP, ALL_BEHIND };

using Disturb = std::function<Answer(std::size_t index, const Answer& answer)>;

/// What is done to a run.
struct Harm {
    Disturb disturb = nullptr;
    std::string streams = ""; // redirections of the shell
    int iSignal = 0;          // at the prompt
    Answer sourceGreeting{be32(1)}, destGreeting{be32(1)};
};

struct Ending {
    Outcome outcome;
    std::string said; // on the console, or in the report file
    std::string codes;
    bool fEqual;   // the copy is
    bool fCleared; // nothing is left behind
};

} // namespace

/// Steps from a text: they stand between '|', each a code, what is said when its reply is lost and
/// what when it is an error, "=" for the same.
static std::vector<Step> steps(const std::string& text) {
    std::vector<Step> all;
    std::istringstream stream(text);
    for (std::string step; std::getline(stream, step, '|');) {
        std::istringstream fields(step);
        Step next{"", "", ""};
        std::getline(fields, next.code, ';');
        std::getline(fields, next.lost, ';');
        std::getline(fields, next.refused);
        if (next.refused == "=")
            next.refused = next.lost;
        all.push_back(next);
    }
    return all;
}

static std::string times(int n, const std::string& text) {
    return n == 0 ? "" : text + times(n - 1, text);
}

static const std::string line = std::string(78, '=') + "\n";

// clang-format off
#define CONNECTED(s) s "12;Error querying server|" s "28;Error querying server;=|" s "9|"
static const Command commands[] = {
    {{"stat"}, steps(CONNECTED("s") "s13;Failed receiving statistics.;=|s10"), "", "", line},
    {{"test", "-r", "a.rep"}, steps(CONNECTED("s") "s1;Unexpected error rc=-242 opening;open|s3;too small;rea|s3;too small;rea|s2|s10")},
    {{"copy", "-p", "secret", "a.rep", "127.0.0.2:b.rep"}, steps(CONNECTED("s") "s25|" CONNECTED("d") "d25|d10|"
        "s1;Source path invalid or inaccessible.;=|s3;Error reading source repository.;=|s2;Password is invalid.|s11;Password is invalid.;=|"
        "s1;Source path invalid or inaccessible.;=|d12;Destination path invalid or inaccessible.|d1;Destination path invalid or inaccessible.|"
        "d7;Destination path invalid or inaccessible.;=|d2;Destination path invalid or inaccessible.;=|"
        "d1;Destination path invalid or inaccessible \n\n;=|s32;Failed checking repository file size.;=|d26;Failed checking volume space.;=|"
        "s32;Failed checking repository EOF.;=|s47;Failed getting lock.;=|s32;Failed checking repository EOF.;=|"
        "s36; reading source repository.  Attempted to read 1000 bytes at [0:0].;=|d39;Error writing destination repository.;=|"
        "s36; reading source repository.  Attempted to read 1000 bytes at [0:1000].;=|d39;Error writing destination repository.;=|"
        "s48;Attempt to unlock repository failed.;=|s2|d2|d10|s10")},
    {{"copy", "-p", "secret", "-f", "true", "a.rep", "127.0.0.2:b.rep"}, steps(CONNECTED("s") "s25|" CONNECTED("d") "d25|d10|"
        "s1;Source path invalid or inaccessible.;=|s3;Error reading source repository.;=|s2;Password is invalid.|s11;Password is invalid.;=|"
        "s1;Source path invalid or inaccessible.;=|s32;Failed checking repository EOF.;=|s47;system copy aborted.;=|"
        "s32;system copy aborted.;=|s48;Error unlocking source repository.;=|s2|s10")},
    {{"list"}, steps(CONNECTED("s") "s14;Could not get connection list on localhost.|s10"), "", "", line},
    {{"list", "-s1"}, steps(CONNECTED("s") "s15;Connection 1 is not active, could not get connection stats.;=|s10"), "", "", "\n"},
    {{"list", "-l1"}, steps(CONNECTED("s") "s21;Connection 1 is not active, could not get lock list.;=|s10"), "", "", "\n"},
    {{"opts"}, steps(CONNECTED("s") "s24;Error retrieving KXSRV options.;=|s10"), "", "", line},
    {{"opts", "-s1", "-p"}, steps(CONNECTED("s") "s11;Change logging level cancelled.;=|s20|s10")},
    {{"stop", "-p"}, steps(CONNECTED("s") "s11;Password is invalid.;=|s14|s17"), "y\n"},
    {{"stop", "-p", "-k3"}, steps(CONNECTED("s") "s11;Password is invalid.;=|s16;Connection 3 is not active on host localhost.;=")},
    {{"bench", "-c1024"}, steps(CONNECTED("s") "s7;Error creating repository.;=|s2;Error creating repository.;=|"
        "s1;Error opening repository.;=|" + times(100, "s4;Error opening repository.|") + "s2;Error opening repository.|"
        "s1;Error opening repository.;=|" + times(32, "s3;Error reading source repository.;=|") + "s2|s10"), "", "kxbench.log"},
    // The report is silent on a server that cannot be asked.
    {{"test", "-r", "a.rep", "-f", "report"}, steps("s12|s28|s9|s1;8\n;open|s3;5\n;rea|s3;5\n;rea|s2|s10"), "", "report"},
    {{"opts", "-s1"}, steps(CONNECTED("s") "s11;Change logging level cancelled.;=|s20|s10"), "secret\n", "", "", true},
    {{"stop"}, steps(CONNECTED("s") "s11;Password is invalid.;=|s14|s17"), "secret\ny\n", "", "", true}};
// clang-format on

/// On a terminal of its own, where the input is typed at the prompt, or the signal comes there.
static Outcome runOnTerminal(const Arguments& arguments, const Environment& environment,
                             const std::string& input, int iSignal, bool* pfEchoes) {
    TerminalRun run("/usr/bin/env", arguments, environment);
    if (run.waitForEcho(false) && iSignal != 0)
        kill(run.process, iSignal);
    else if (!run.echoes())
        run.type(input);
    Outcome outcome;
    outcome.status = run.finish();
    *pfEchoes = run.echoes();
    std::erase(run.output, '\r');
    outcome.out = run.output;
    return outcome;
}

/// No process, and no file but the command's own.
static bool isCleared(const Command& command, const Scratch& scratch) {
    const bool fAlone = waitpid(-1, nullptr, WNOHANG) < 0;
    for (const auto& entry : std::filesystem::directory_iterator(scratch.directory))
        if (entry.path().filename() != command.file)
            return false;
    return fAlone;
}

static Ending run(const Command& command, const Harm& harm = {}) {
    prctl(PR_SET_CHILD_SUBREAPER, 1); // the processes that a command leaves behind come to us
    const Scratch scratch;
    Volume from, to;
    from.files["a.rep"] = repository(2000);
    from.dataLimit = command.arguments[0] == "bench" ? 32768 : 1000;
    ScriptedServer source{"s"}, dest{"d", &source};
    serveFiles(source, from);
    serveFiles(dest, to);
    source.on(REQUEST_GET_CONNECTION_LIST, {reply(1, "one\n")});
    source.disturb = dest.disturb = harm.disturb;
    source.greeting = harm.sourceGreeting;
    dest.greeting = harm.destGreeting;
    // A run that would not end is ended with status 124.
    Arguments arguments{
        "-C",           scratch.directory, "timeout", "--foreground",
        "20",           "/bin/sh",         "-c",      "exec \"$0\" \"$@\" " + harm.streams,
        KXADMIN_PROGRAM};
    arguments.insert(arguments.end(), command.arguments.begin(), command.arguments.end());
    const Environment environment{{"KXSRV_CTRL_PORT", std::to_string(source.port)}};
    bool fEchoes = true;
    const Outcome outcome =
        command.fPrompts
            ? runOnTerminal(arguments, environment, command.input, harm.iSignal, &fEchoes)
            : runProgram("/usr/bin/env", arguments, environment, command.input);
    const bool fReport = command.file == "report";
    return {outcome, fReport ? banner + outcome.out + scratch.read("report") : outcome.out,
            source.codes(), to.files["b.rep"] == from.files["a.rep"],
            isCleared(command, scratch) && fEchoes};
}

/// The oracle. `message` has to be told, if it is one; `cServer` is the server whose link is
/// broken.
static bool survives(const Ending& run, const std::string& message = "", char cServer = '-') {
    const std::string all = run.outcome.out + run.outcome.err;
    const std::size_t lock = run.codes.find("s47");
    const bool fReleased = cServer == 's' || lock == std::string::npos ||
                           run.codes.find("s48", lock) != std::string::npos ||
                           run.codes.find("s2", lock) != std::string::npos ||
                           run.codes.find("s10", lock) != std::string::npos; // with the connection
    const bool fClaimed = run.said.find(" copied to 127.0.0.2") != std::string::npos;
    return run.outcome.status == 0 && run.said.starts_with(banner) && fReleased && run.fCleared &&
           all.find("Sanitizer") == std::string::npos &&
           all.find("runtime error") == std::string::npos &&
           run.said.find(message) != std::string::npos &&
           (!fClaimed || (run.fEqual && message.empty()));
}

/// The faults of one row of the sweep, of which a sample is tried unless all are asked for.
struct Row {
    explicit Row(std::string row, int iEvery) : name(std::move(row)) {
        const char* pszAll = std::getenv("KX_FAULTS");
        iSample = pszAll != nullptr && pszAll == "all"s ? 1 : iEvery;
    }
    ~Row() {
        std::printf("%-24s %6d tried %6d survived\n", name.c_str(), iTried, iSurvived);
    }
    /// Whether to try the next fault.
    bool next() {
        return iNext++ % iSample == 0;
    }
    void judge(bool fSurvived, const Ending& run, const Step& step, const std::string& fault) {
        ++iTried;
        iSurvived += fSurvived;
        EXPECT_TRUE(fSurvived) << name << ": " << fault << " at " << step.code << " of "
                               << run.codes << "\nstatus " << run.outcome.status << "\n"
                               << run.outcome.out << run.outcome.err;
    }
    std::string name;
    int iSample = 1, iNext = 0, iTried = 0, iSurvived = 0;
};

/// Of a run of equal requests only the first and the last one are worth a fault.
static bool isRepeated(const std::vector<Step>& steps, std::size_t i) {
    return i > 0 && i + 1 < steps.size() && steps[i - 1].code == steps[i].code &&
           steps[i + 1].code == steps[i].code;
}

/// Tries change(answer), in each of its variants, on every step of the commands.
template<class Commands, class Change>
static void sweep(Row row, const Commands& scenes, std::size_t variants, Reach reach,
                  const Change& change) {
    for (const Command& command : scenes)
        for (std::size_t i = 0; i < command.steps.size(); ++i)
            for (std::size_t v = 0; v < variants; ++v) {
                if (isRepeated(command.steps, i) || !row.next())
                    continue;
                std::string message;
                const Step& step = command.steps[i];
                const auto disturb = [&](std::size_t index, const Answer& answer) {
                    const bool fHere = index == i || (reach == ALL_BEHIND && index > i);
                    return fHere ? change(step, v, answer, &message) : answer;
                };
                const Ending result = run(command, {.disturb = disturb});
                const char cBroken = reach == LINK ? step.code[0] : '-';
                row.judge(survives(result, message, cBroken), result, step,
                          "variant " + std::to_string(v));
            }
}

TEST(Faults, UndisturbedRunsAreAsDescribed) {
    for (const Command& command : commands) {
        std::string codes;
        for (const Step& step : command.steps)
            codes += (codes.empty() ? "" : " ") + step.code;
        const Ending result = run(command);
        EXPECT_EQ(result.codes, codes);
        EXPECT_TRUE(survives(result)) << result.said;
        EXPECT_EQ(result.fEqual, codes.find("d39") != std::string::npos);
    }
}

TEST(Faults, LosesTheConnection) {
    // At every byte of the header, at the edges and the middle of the body, and behind the reply,
    // where the next request finds out.
    sweep(Row("connection lost", 31), commands, 32, LINK,
          [](const Step& step, std::size_t v, const Answer& answer, std::string* pMessage) {
              const std::size_t size = answer.bytes.size();
              const std::size_t edges[] = {13, (12 + size) / 2, size - 1, size};
              const std::size_t cut = std::min(size, v / 2 < 12 ? v / 2 : edges[v / 2 - 12]);
              *pMessage = cut < size ? step.lost : "";
              return Answer{answer.bytes.substr(0, cut), v % 2 ? Answer::RESET : Answer::CLOSE};
          });
}

TEST(Faults, LosesTheGreeting) {
    Row row("greeting lost", 5);
    for (const Command& command : commands)
        for (std::size_t i = 0; i < command.steps.size(); ++i) // the first requests of connections
            for (std::size_t v = 0; v < 8 && command.steps[i].code.ends_with("12"); ++v) {
                const Answer cut{be32(1).substr(0, v / 2), v % 2 ? Answer::RESET : Answer::CLOSE};
                const bool fDest = command.steps[i].code[0] == 'd';
                if (!row.next())
                    continue;
                const Ending result = run(command, {.sourceGreeting = fDest ? Answer{be32(1)} : cut,
                                                    .destGreeting = fDest ? cut : Answer{be32(1)}});
                const std::string message = command.steps[fDest ? 4 : 0].lost;
                row.judge(survives(result, message), result, command.steps[i], hex(cut.bytes));
            }
}

TEST(Faults, IsRefused) {
    const auto refuse = [](const Step& step, std::size_t v, const Answer&, std::string* pMessage) {
        if (pMessage->empty())
            *pMessage = step.refused;
        return reply(v % 2 ? 5 : -5, "no");
    };
    sweep(Row("error reply", 3), commands, 2, STEP, refuse);
    sweep(Row("errors from there on", 3), commands, 2, ALL_BEHIND, refuse);
}

TEST(Faults, ComesInPieces) {
    Row row("short and slow", 1);
    for (const Command& command : commands)
        for (const std::size_t piece : {1U, 7U}) {
            const auto disturb = [=](std::size_t, const Answer& answer) {
                return Answer{answer.bytes, answer.after, piece};
            };
            const Ending whole = run(command), slow = run(command, {.disturb = disturb});
            row.judge(survives(slow) && slow.said == whole.said && slow.codes == whole.codes, slow,
                      command.steps[0], "pieces of " + std::to_string(piece));
        }
}

TEST(Faults, IsLiedTo) {
    static const U32 lengths[] = {0,     1,          32767,      32768,     32769,
                                  65535, 0x7FFFFFFF, 0x80000000, UINT32_MAX};
    sweep(Row("lying lengths", 31), commands, 3 * std::size(lengths), LINK,
          [](const Step&, std::size_t v, const Answer& answer, std::string*) {
              std::string lie = answer.bytes;
              for (const std::size_t field : {1U, 2U})
                  if (v % 3 == 2 || v % 3 == field - 1)
                      lie.replace(4 * field, 4, be32(lengths[v / 3]));
              return Answer{lie, Answer::CLOSE};
          });
    sweep(Row("flipped header bits", 97), std::vector(commands, commands + 3), 96, LINK,
          [](const Step&, std::size_t v, const Answer& answer, std::string*) {
              std::string flipped = answer.bytes;
              flipped[v / 8] = static_cast<char>(flipped[v / 8] ^ 1 << v % 8);
              return Answer{flipped, Answer::CLOSE};
          });
}

TEST(Faults, PrintsHostileTexts) {
    Row row("hostile text", 1);
    std::string all;
    for (int c = 1; c < 256; ++c)
        all += static_cast<char>(c);
    for (const Command& command : commands)
        for (const std::string& text :
             {all, "%n%s%1000000d"s, "no line feed"s, "a\0hidden"s, std::string(32768, '%')}) {
            if (command.behind.empty())
                continue;
            std::string shown;
            for (const char c : text.substr(0, text.find('\0')))
                shown += c == '\n' ? "\r\n" : std::string(1, c);
            const auto disturb = [&](std::size_t index, const Answer& answer) {
                return index == 3 ? reply(0, text) : answer;
            };
            const Ending result = run(command, {.disturb = disturb});
            const std::string expected = banner + ("\n" + line) + shown + command.behind;
            row.judge(survives(result) && result.said == expected, result, command.steps[3],
                      text.substr(0, 12));
        }
}

TEST(Faults, DoesWithoutItsStreams) {
    Row row("broken streams", 3);
    for (const Command& command : commands) {
        const Ending whole = run(command);
        for (const char* pszStreams :
             {">&-", "<&-", "2>&-", "<&- >&- 2>&-", ">/dev/full", "2>/dev/full", "| true"}) {
            if (!row.next())
                continue;
            const Ending result = run(command, {.streams = pszStreams});
            // A stop that cannot be confirmed is not one; all else is done to the end.
            const bool fDeclined = command.input.ends_with("y\n") && pszStreams[0] == '<';
            const std::string codes =
                fDeclined ? whole.codes.substr(0, whole.codes.rfind(' ')) : whole.codes;
            const bool fReported = command.file != "report" || result.said == whole.said;
            row.judge(result.outcome.status == 0 && result.fCleared && result.codes == codes &&
                          result.fEqual == whole.fEqual && fReported,
                      result, command.steps[0], pszStreams);
        }
    }
}

TEST(Faults, IsSignalledAtThePrompt) {
    Row row("signals at the prompt", 1);
    for (const Command& command : commands)
        for (const int iSignal : {SIGQUIT, SIGHUP, SIGTERM, SIGINT}) {
            if (!command.fPrompts)
                continue;
            const Ending result = run(command, {.iSignal = iSignal});
            row.judge(result.outcome.status == 1 && result.fCleared &&
                          result.codes == "s12 s28 s9" &&
                          result.said ==
                              banner + "Enter the password for the account used to start KXSRV : "s,
                      result, command.steps[3], strsignal(iSignal));
        }
}
