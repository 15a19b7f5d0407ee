// One oracle, swept over every fault: whatever the server, the streams or a signal do, the program
// ends by itself, says which step failed, claims no copy that is not equal, leaves no lock on a
// link that works, no process, no file but its own and a terminal that echoes. Every step is
// refused once; of the other faults KX_FAULTS=all tries every one, and otherwise a sample is tried.
#include "client/exchange.h"
#include "tests/run_program.h"
#include "tests/scratch.h"
#include "tests/scripted_server.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <span>
#include <sys/prctl.h>
#include <sys/wait.h>

using namespace std::string_literals;

namespace {

/// One request of an undisturbed run, or a row of them; what is said when its reply is lost; what
/// is said and asked from there on when it is an error, where "=" stands for the same as when it is
/// lost, and "..." for all that an undisturbed run asks.
struct Step {
    std::string code, lost = "", refused = "", then = "...";
    int times = 1;
    std::string next = ""; // what is said when the connection is lost behind it
};

struct Command {
    Arguments arguments;
    std::vector<Step> steps;
    std::string input = "", file = ""; // the file that it leaves behind
    bool fPrompts = false;             // for the password, on a terminal
};

/// What a fault does harm to: its step and the link behind it, its step alone, all steps from there
/// on.
enum Reach { LINK, STEP, ALL_BEHIND };

/// What is done to a run.
struct Harm {
    std::function<Answer(std::size_t index, const Answer& answer)> disturb = nullptr;
    std::string streams = ""; // redirections of the shell
    int iSignal = 0;          // at the prompt
    Answer greetings[2] = {{be32(1)}, {be32(1)}};
};

struct Ending {
    Outcome outcome;
    std::string said, codes; // on the console, or in the report file
    bool fEqual = false;     // the copy is
    bool fCleared = true;    // no process is left, no file but the command's; the terminal echoes
};

// clang-format off
#define CONNECTED(s) {s "12", "Error querying server"}, {s "28", "Error querying server", "=", ""}, {s "9", "", "", ""}
#define BAD_SOURCE "\nSource must be a valid repository file."
#define COPY_BEGINS CONNECTED("s"), {"s25", "", "", ""}, CONNECTED("d"), {"d25", "", "", ""}, {"d10"}, \
        {"s1", "Source path invalid or inaccessible." BAD_SOURCE, "=", "s2 s10"}, \
        {"s3", "Error reading source repository." BAD_SOURCE, "=", "s2 s10"}, {"s2", "Password is invalid."}, \
        {"s11", "Password is invalid.", "=", "s10"}, {"s1", "Source path invalid or inaccessible.", "=", "s10"}
#define NOT_READ(at) " reading source repository.  Attempted to read 1000 bytes at [0:" at "]."
#define NO_DEST "Destination path invalid or inaccessible"
#define NO_SIZE "Failed checking repository EOF."
#define NO_LOCK "Failed getting lock.\nRepository file is locked by another process."
#define ABORTED "\nUnable to lock source repository, system copy aborted."
#define DENIED " repository localhost:a.rep. Access was denied - another process may have the repository opened in an exclusive mode."
#define NO_LEVEL "Password is invalid.\nChange logging level cancelled."
#define STOPS "\nServer has been scheduled to stop."

const Command commands[] = {
    {{"stat"}, {CONNECTED("s"), {"s13", "Failed receiving statistics.", "=", "s10"}, {"s10"}}},
    {{"test", "-r", "a.rep"}, {CONNECTED("s"), {"s1", " opening repository localhost:a.rep.\n", "Could not open" DENIED "\n", "s10"},
        {"s3", "too small", "Could not read from the" DENIED "\n", "s2 s10", 2}, {"s2"}, {"s10"}}},
    {{"copy", "-p", "secret", "a.rep", "127.0.0.2:b.rep"}, {COPY_BEGINS,
        {"d12", NO_DEST "."}, {"d1", NO_DEST "."}, {"d7", NO_DEST ".", "=", "s2 d10 s10"}, {"d2", NO_DEST ".", "=", "s2 d10 s10"},
        {"d1", NO_DEST " \n", "=", "s2 d10 s10"}, {"s32", "Failed checking repository file size.", "=", "s2 d10 s10"},
        {"d26", "Failed checking volume space.", "=", "s2 d10 s10"}, {"s32", NO_SIZE, "=", "s2 d2 d10 s10"},
        {"s47", NO_LOCK, "=", "s2 d2 d10 s10"}, {"s32", NO_SIZE, "=", "s2 d2 d10 s10"},
        {"s36", NOT_READ("0"), "Error -5" NOT_READ("0") "\n\nUnlocking source.", "s48 s2 d2 d10 s10"},
        {"d39", "Error writing destination repository.\n\nUnlocking source.", "=", "s48 s2 d2 d10 s10"},
        {"s36", NOT_READ("1000"), "Error -5" NOT_READ("1000") "\n\nUnlocking source.", "s48 s2 d2 d10 s10"},
        {"d39", "Error writing destination repository.\n\nUnlocking source.", "=", "s48 s2 d2 d10 s10"},
        {"s48", "Attempt to unlock repository failed.", "="}, {"s2"}, {"d2"}, {"d10"}, {"s10"}}},
    {{"copy", "-p", "secret", "-f", "true", "a.rep", "127.0.0.2:b.rep"}, {COPY_BEGINS,
        {"s32", NO_SIZE ABORTED, "=", "s10"}, {"s47", NO_LOCK ABORTED, "=", "s10"}, {"s32", NO_SIZE ABORTED, "=", "s10"},
        {"s48", "Attempt to unlock repository failed.\nError unlocking source repository.\n\n"
         "Repository a.rep copied to b.rep using system command 'true'.", "="}, {"s2"}, {"s10"}}},
    {{"list"}, {CONNECTED("s"), {"s14", "Could not get connection list on localhost.", "=", "s10"}, {"s10"}}},
    {{"list", "-s1"}, {CONNECTED("s"), {"s15", "Connection 1 is not active, could not get connection stats.", "=", "s10"}, {"s10"}}},
    {{"list", "-l1"}, {CONNECTED("s"), {"s21", "Connection 1 is not active, could not get lock list.", "=", "s10"}, {"s10"}}},
    {{"opts"}, {CONNECTED("s"), {"s24", "Error retrieving KXSRV options.", "=", "s10"}, {"s10"}}},
    {{"opts", "-s1", "-p"}, {CONNECTED("s"), {"s11", NO_LEVEL, "=", "s10"}, {"s20"}, {"s10"}}},
    {{"stop", "-p"}, {CONNECTED("s"), {"s11", "Password is invalid.", "=", ""}, {"s14", "", STOPS}, {"s17"}}, "y\n"},
    {{"stop", "-p", "-k3"}, {CONNECTED("s"), {"s11", "Password is invalid.", "=", ""}, {"s16", "Connection 3 is not active on host localhost.", "="}}},
    {{"bench", "-c1024"}, {CONNECTED("s"), {"s7", "Error creating repository.", "=", "s10"}, {"s2", "Error creating repository.", "=", "s10"},
        {"s1", "Error opening repository.", "=", "s10"}, {"s4", "Error opening repository.", "", "...", 100}, {"s2", "Error opening repository."},
        {"s1", "Error opening repository.", "=", "s10"}, {"s3", "Error reading source repository.", "=", "s10", 32}, {"s2"}, {"s10"}}, "", "kxbench.log"},
    // The report is silent on a server that cannot be asked.
    {{"test", "-r", "a.rep", "-f", "report"}, {{"s12"}, {"s28", "", "", ""}, {"s9", "", "", ""}, {"s1", "8\n", "3\nCould not open" DENIED, "s10"},
        {"s3", "5\n", "4\nCould not read from the" DENIED, "s2 s10", 2}, {"s2"}, {"s10"}}, "", "report"},
    {{"opts", "-s1"}, {CONNECTED("s"), {"s11", NO_LEVEL, "=", "s10"}, {"s20"}, {"s10"}}, "secret\n", "", true},
    {{"stop"}, {CONNECTED("s"), {"s11", "Password is invalid.", "=", ""}, {"s14", "", STOPS}, {"s17"}}, "secret\ny\n", "", true}};
// clang-format on

/// The faults of one row of the sweep, of which a sample is tried unless all are asked for.
struct Row {
    ~Row() {
        std::printf("%-24s %6d tried %6d survived\n", name.c_str(), iTried, iSurvived);
    }
    /// Whether to try the next fault.
    bool next() {
        const char* pszAll = std::getenv("KX_FAULTS");
        return iNext++ % (pszAll != nullptr && pszAll == "all"s ? 1 : iEvery) == 0;
    }
    void judge(bool fSurvived, const Ending& run, const std::string& fault) {
        ++iTried;
        iSurvived += fSurvived;
        EXPECT_TRUE(fSurvived) << name << ": " << fault << " of " << run.codes << "\nstatus "
                               << run.outcome.status << "\n"
                               << run.said << run.outcome.err;
    }
    std::string name;
    int iEvery = 1, iNext = 0, iTried = 0, iSurvived = 0;
};

} // namespace

static Ending run(const Command& command, const Harm& harm = {}) {
    prctl(PR_SET_CHILD_SUBREAPER, 1); // the processes that a command leaves behind come to us
    const Scratch scratch;
    Volume from{.files = {{"a.rep", repository(2000)}}}, to;
    from.dataLimit = command.arguments[0] == "bench" ? 32768 : 1000;
    ScriptedServer server{INADDR_ANY};
    serveFiles(server, from, server.SOURCE);
    serveFiles(server, to, server.DEST);
    server.on(REQUEST_GET_CONNECTION_LIST, {reply(1, "one\n")});
    server.disturb = harm.disturb;
    std::copy_n(harm.greetings, 2, server.greetings);
    // A run that would not end is ended with status 124.
    const std::string script =
        "cd " + scratch.directory + "; exec timeout --foreground 10 \"$0\" \"$@\" " + harm.streams;
    Arguments words{"-o", "pipefail", "-c", script, KXADMIN_PROGRAM};
    words.insert(words.end(), command.arguments.begin(), command.arguments.end());
    Environment environment = serverAt(server.port);
    environment["HOME"] = environment["TMPDIR"] = scratch.directory;
    Ending ending;
    if (command.fPrompts) { // the input is typed at the prompt, or the signal comes there
        TerminalRun onTerminal("/bin/bash", words, environment);
        if (onTerminal.waitForEcho(false) && harm.iSignal != 0)
            kill(onTerminal.process, harm.iSignal);
        else if (!onTerminal.echoes())
            onTerminal.type(command.input);
        ending.outcome.status = onTerminal.finish();
        ending.fCleared = onTerminal.echoes();
        std::erase(onTerminal.output, '\r');
        ending.outcome.out = onTerminal.output;
    } else {
        ending.outcome = runProgram("/bin/bash", words, environment, command.input);
    }
    ending.fCleared = ending.fCleared && waitpid(-1, nullptr, WNOHANG) < 0;
    for (const auto& entry : std::filesystem::directory_iterator(scratch.directory))
        ending.fCleared = ending.fCleared && entry.path().filename() == command.file;
    ending.said = ending.outcome.out;
    if (command.file == "report")
        ending.said = banner + ending.said + scratch.read("report");
    ending.codes = server.codes();
    ending.fEqual = to.files["b.rep"] == from.files["a.rep"];
    return ending;
}

/// The steps one by one.
static std::vector<Step> stepsOf(const Command& command) {
    std::vector<Step> all;
    for (Step step : command.steps) {
        step.refused = step.refused == "=" ? step.lost : step.refused;
        all.insert(all.end(), static_cast<std::size_t>(step.times), step);
    }
    for (auto step = all.begin(); step != all.end(); ++step) {
        const auto next = std::find_if(
            step + 1, all.end(), [&](const Step& other) { return other.code[0] == step->code[0]; });
        if (next != all.end() && !step->code.ends_with("10")) // which ends its connection
            step->next = next->lost;
    }
    return all;
}

/// The codes of the first `count` steps.
static std::string codesOf(const std::vector<Step>& steps, std::size_t count) {
    std::string codes;
    for (std::size_t i = 0; i < count; ++i)
        codes += (i > 0 ? " " : "") + steps[i].code;
    return codes;
}

/// The oracle. `message` has to be told, if it is one, and nothing claimed beside it; `cServer` is
/// the server whose link is broken.
static bool survives(const Ending& run, const std::string& message = "", char cServer = '-') {
    const auto has = [](const std::string& text, const char* part) {
        return text.find(part) != std::string::npos;
    };
    const std::string all = run.outcome.out + run.outcome.err;
    const std::string behindLock =
        run.codes.substr(std::min(run.codes.find("s47"), run.codes.size()));
    const bool fReleased = cServer == 's' || behindLock.empty() || has(behindLock, "s48") ||
                           (!has(behindLock, "s36") && has(behindLock, "s10"));
    for (const char* claim : {" copied to ", " appears to be a valid", " finished.", " killed."})
        if (!message.empty() && has(run.said, claim) && !has(message, claim))
            return false;
    return run.outcome.status == 0 && run.said.starts_with(banner) && fReleased && run.fCleared &&
           !has(all, "Sanitizer") && !has(all, "runtime error") && has(run.said, message.c_str()) &&
           (!has(run.said, " copied to 127.0.0.2") || run.fEqual);
}

/// Whether the run said and asked what the whole one does up to step `i`, and from there on what an
/// error reply to it leads to.
static bool isRefused(const Ending& run, const Ending& whole, const std::vector<Step>& steps,
                      std::size_t i) {
    const Step& step = steps[i];
    const bool fGoesOn = step.then == "...";
    const std::string end = step.refused.empty() ? "" : step.refused + "\n";
    const std::string begin = run.said.substr(0, run.said.size() - end.size());
    const std::string codes = codesOf(steps, i + 1) + (step.then.empty() ? "" : " ") + step.then;
    return run.said.ends_with(end) && run.codes == (fGoesOn ? whole.codes : codes) &&
           (fGoesOn && end.empty() ? begin == whole.said : whole.said.starts_with(begin));
}

/// Tries each variant on every command.
template<class Try> static void sweep(Row row, std::size_t variants, const Try& attempt) {
    for (const Command& command : commands)
        for (std::size_t v = 0; v < variants; ++v)
            if (row.next())
                attempt(row, command, v);
}

/// Tries change(answer), in each of its variants, on every step of the commands.
template<class Change>
static void sweepSteps(Row row, std::span<const Command> scenes, std::size_t variants, Reach reach,
                       const Change& change) {
    for (const Command& command : scenes) {
        const Ending whole = run(command);
        const std::vector<Step> steps = stepsOf(command);
        for (std::size_t i = 0; i < steps.size(); ++i) {
            // Of a row of equal requests only the first and the last one are worth a fault.
            if (i > 0 && i + 1 < steps.size() && steps[i - 1].code == steps[i].code &&
                steps[i + 1].code == steps[i].code)
                continue;
            for (std::size_t v = 0; v < variants; ++v) {
                if (!row.next())
                    continue;
                std::string message;
                const auto disturb = [&](std::size_t index, const Answer& answer) {
                    const bool fHere = index == i || (reach == ALL_BEHIND && index > i);
                    return fHere ? change(steps[i], v, answer, &message) : answer;
                };
                const Ending result = run(command, {.disturb = disturb});
                const char cServer = reach == LINK ? steps[i].code[0] : '-';
                row.judge(survives(result, message, cServer) &&
                              (reach != STEP || isRefused(result, whole, steps, i)),
                          result, "variant " + std::to_string(v) + " at " + steps[i].code);
            }
        }
    }
}

TEST(Faults, LosesTheConnection) {
    // At every byte of the header, at the edges and the middle of the body, and behind the reply,
    // where the next request finds out.
    sweepSteps(
        {"connection lost", 31}, commands, 32, LINK,
        [](const Step& step, std::size_t v, const Answer& answer, std::string* pMessage) {
            const std::size_t size = answer.bytes.size();
            const std::size_t edges[] = {13, (12 + size) / 2, size - 1, size};
            const std::size_t cut = std::min(size, v / 2 < 12 ? v / 2 : edges[v / 2 - 12]);
            *pMessage = cut < size ? step.lost : step.next;
            return Answer{answer.bytes.substr(0, cut), v % 2 ? Answer::RESET : Answer::CLOSE};
        });
}

TEST(Faults, LosesTheGreeting) {
    // Each of its bytes, or it refuses; at either host of a copy.
    sweep({"greeting lost", 5}, 18, [](Row& row, const Command& command, std::size_t v) {
        if (v >= 9 && command.arguments[0] != "copy")
            return;
        Harm harm;
        Answer& greeting = harm.greetings[v / 9];
        if (v % 9 < 8)
            greeting.bytes = greeting.bytes.substr(0, v % 9 / 2);
        else
            greeting.bytes = be32(0);
        greeting.after = v % 2 ? Answer::RESET : Answer::CLOSE;
        const Ending result = run(command, harm);
        row.judge(survives(result, command.steps[0].lost), result, hex(greeting.bytes));
    });
}

TEST(Faults, IsRefused) {
    const auto refuse = [](const Step& step, std::size_t v, const Answer&, std::string* pMessage) {
        const bool fCounts = v % 2 && step.code == "s14"; // connections, and is no error
        if (pMessage->empty() && !fCounts)
            *pMessage = step.refused;
        return reply(v % 2 ? 5 : -5, "no");
    };
    sweepSteps({"error reply"}, commands, 1, STEP, refuse);
    sweepSteps({"errors from there on", 3}, commands, 2, ALL_BEHIND, refuse);
}

TEST(Faults, ComesInPieces) {
    sweep({"short and slow"}, 2, [](Row& row, const Command& command, std::size_t v) {
        const auto disturb = [=](std::size_t, const Answer& answer) {
            return Answer{answer.bytes, answer.after, v == 0 ? 1U : 7U};
        };
        const std::vector<Step> steps = stepsOf(command);
        const std::string codes = codesOf(steps, steps.size());
        const Ending whole = run(command), slow = run(command, {.disturb = disturb});
        row.judge(survives(slow) && slow.said == whole.said && slow.codes == codes &&
                      whole.codes == codes &&
                      slow.fEqual == (codes.find("d39") != std::string::npos),
                  slow, "variant " + std::to_string(v));
    });
}

TEST(Faults, IsLiedTo) {
    static const U32 lengths[] = {0,     1,          32767,      32768,     32769,
                                  65535, 0x7FFFFFFF, 0x80000000, UINT32_MAX};
    sweepSteps({"lying lengths", 31}, commands, 3 * std::size(lengths), LINK,
               [](const Step& step, std::size_t v, const Answer& answer, std::string* pMessage) {
                   std::string lie = answer.bytes;
                   for (const std::size_t field : {1U, 2U})
                       if (v % 3 == 2 || v % 3 == field - 1)
                           lie.replace(4 * field, 4, be32(lengths[v / 3]));
                   // All comes that is announced, as far as it is small; too much is too much all
                   // the same.
                   const U64 announced = U64{getNumber(&lie[4])} + getNumber(&lie[8]);
                   lie.resize(12 + std::min<U64>(announced, 140000), 'x');
                   *pMessage = announced > 32768 ? step.lost : "";
                   return Answer{lie, Answer::CLOSE};
               });
}

TEST(Faults, HasBitsFlipped) {
    sweepSteps({"flipped header bits", 97}, std::span(commands, 3), 96, LINK,
               [](const Step&, std::size_t v, Answer answer, std::string*) {
                   char& byte = answer.bytes[v / 8];
                   byte = static_cast<char>(byte ^ 1 << v % 8);
                   return Answer{answer.bytes, Answer::CLOSE};
               });
}

TEST(Faults, PrintsHostileTexts) {
    static const std::set<std::string> codes{"s13", "s14", "s15", "s21", "s24"};
    const std::string line(78, '='), full(32768, '%');
    std::string all;
    for (int c = 1; c < 256; ++c)
        all += static_cast<char>(c);
    // What the server sends, and what is to be seen of it.
    const std::pair<std::string, std::string> texts[] = {
        {all, std::string(all).insert(9, "\r")}, {"a\0hidden"s, "a"}, {full, full}};
    sweep({"hostile text"}, std::size(texts), [&](Row& row, const Command& command, std::size_t v) {
        if (!codes.contains(command.steps[3].code))
            return;
        const auto disturb = [&](std::size_t index, const Answer& answer) {
            return index == 3 ? reply(0, texts[v].first) : answer;
        };
        const Ending result = run(command, {.disturb = disturb});
        const std::string end = command.arguments.size() == 1 ? line : "";
        const std::string shown = "\n" + line + "\n" + texts[v].second + end + "\n";
        row.judge(survives(result) && result.said == banner + shown, result, shown);
    });
}

TEST(Faults, DoesWithoutItsStreams) {
    static const char* const streams[] = {">&-",        "<&-",         "2>&-",  "<&- >&- 2>&-",
                                          ">/dev/full", "2>/dev/full", "| true"};
    sweep({"broken streams", 3}, 7, [](Row& row, const Command& command, std::size_t v) {
        const Ending whole = run(command), result = run(command, {.streams = streams[v]});
        // A stop that cannot be confirmed is not one; all else is done to the end.
        const bool fDeclined = command.input.ends_with("y\n") && streams[v][0] == '<';
        const std::string codes =
            fDeclined ? whole.codes.substr(0, whole.codes.rfind(' ')) : whole.codes;
        const bool fReported = command.file != "report" || result.said == whole.said;
        row.judge(result.outcome.status == 0 && result.fCleared && result.codes == codes &&
                      result.fEqual == whole.fEqual && fReported,
                  result, streams[v]);
    });
}

TEST(Faults, IsSignalledAtThePrompt) {
    static const int signals[] = {SIGQUIT, SIGHUP, SIGTERM, SIGINT};
    sweep({"signals at the prompt"}, 4, [](Row& row, const Command& command, std::size_t v) {
        if (!command.fPrompts)
            return;
        const Ending result = run(command, {.iSignal = signals[v]});
        const std::string prompt = "Enter the password for the account used to start KXSRV : ";
        row.judge(result.outcome.status == 1 && result.fCleared && result.codes == "s12 s28 s9" &&
                      result.said == banner + prompt,
                  result, strsignal(signals[v]));
    });
}
