// One oracle, swept over every fault: whatever the server does, the program ends by
// itself and tells the truth by its status, 0 only when its work is done. It leaves no lock on a
// link that works, no process and no file but its own. Every step is refused once; of the other
// faults KX_FAULTS=all tries every one, and otherwise a sample is tried.
#include "client/exchange.h"
#include "tests/expect.h"
#include "tests/run_program.h"
#include "tests/scratch.h"
#include "tests/scripted_server.h"

#include <sys/prctl.h>
#include <sys/wait.h>

namespace {

/// A command, the sign that its work is done and the file that it leaves behind.
struct Scene {
    const char *pszLine, *pszDone, *pszFile = "";
};

struct Ending {
    int status;
    string said, trace; // in its file too, and behind the banner
    string granted;     // the requests that were answered with success; "copied" where it is
    string left;        // what is left behind and should not be
};

/// One kind of fault, of which a sample is tried unless all are asked for.
struct Kind {
    ~Kind() {
        std::printf("%-24s %6d tried %6d survived\n", pszName, iTried, iSurvived);
    }
    /// Whether to try the next one.
    bool next() {
        return iNext++ % (std::getenv("KX_FAULTS") != nullptr ? 1 : iEvery) == 0;
    }
    const char* pszName;
    int iEvery = 1, iNext = 0, iTried = 0, iSurvived = 0;
};

using Harm = std::function<void(ScriptedServer& server)>;

} // namespace

static const Scene scenes[] = {
    {"stat", "zz"},
    {"list", "zz"},
    {"list -s1", "zz"},
    {"list -l1", "zz"},
    {"opts", "zz"},
    {"opts -s1 -p", "source LEVEL 1\n"},
    {"stop -p", "source STOP\n"},
    {"stop -p -k3", "source KILL 3\n"},
    {"test -r a.rep", "a valid repository"},
    {"test -r a.rep -f report", "a valid repository", "report"},
    {"bench -c1024", "1024 , ", "kxbench.log"},
    {"copy -p secret -f 'touch done;echo' a.rep b.rep", "source UNLOCK", "done"},
    {"copy -p secret a.rep 127.0.0.2:b.rep", "copied"},
};

static bool has(const string& text, const string& part) {
    return text.find(part) != string::npos;
}

/// Whether the client can take the answer for a success.
static bool isSuccess(const string& bytes) {
    if (bytes.size() < 12)
        return false;
    const U64 behind = U64{getNumber(&bytes[4])} + getNumber(&bytes[8]);
    return getNumber(&bytes[0]) == 0 && behind <= 32768 && bytes.size() >= 12 + behind;
}

static Ending run(const Scene& scene, const Harm& harm) {
    prctl(PR_SET_CHILD_SUBREAPER, 1); // the processes that a command leaves behind come to us
    const Scratch scratch;
    ScriptedServer server{INADDR_ANY};
    server.source.files["a.rep"] = repository(2000);
    server.source.dataLimit = has(scene.pszLine, "copy") ? 1000 : 32768;
    // A text that no turned bit makes empty.
    for (const U32 code : {13U, 15U, 21U, 24U})
        server.on(code, {reply(0, "zzzzzz")});
    server.on(REQUEST_GET_CONNECTION_LIST, {reply(1, "zzzzzz")});
    harm(server);
    string granted;
    server.disturb = [&, disturb = server.disturb](const string& line, const Answer& answer) {
        const Answer given = disturb != nullptr ? disturb(line, answer) : answer;
        granted += isSuccess(given.bytes) ? line : "";
        return given;
    };
    // A run that would not end is ended with status 124.
    const string script =
        "cd " + scratch.directory + "; exec timeout --foreground 60 \"$0\" " + scene.pszLine;
    const RunResult result = runProgram("/bin/sh", {"-c", script, KXADMIN_PROGRAM "-strict"},
                                        serverAt(server.port), "y\n");
    const string said = abridged(result.out) + result.err + scratch.read(scene.pszFile);
    if (server.dest.files["b.rep"] == server.source.files["a.rep"])
        granted += "copied";
    string left = waitpid(-1, nullptr, WNOHANG) >= 0 ? "a process " : "";
    for (const auto& entry : std::filesystem::directory_iterator(scratch.directory))
        left += entry.path().filename() != scene.pszFile ? entry.path() : "";
    return {result.status, said, server.trace(), granted, left};
}

/// The oracle. The link to the source is broken by some faults.
static void judge(Kind& kind, const Scene& scene, const Ending& ending, const string& fault,
                  bool fLinkBroken = false) {
    const auto& [status, said, trace, granted, left] = ending;
    string complaint = left.empty() ? "" : "left behind: " + left + "; ";
    if (status != 0 && (status < 2 || status > 4))
        complaint += "status " + std::to_string(status) + "; ";
    if (status == 0 && !has(said, scene.pszDone) && !has(granted, scene.pszDone))
        complaint += "status 0, but its work is not done; ";
    if (status != 0 && (said.empty() || said == "[banner]\n"))
        complaint += "not a word of the failure; ";
    // Where nothing has been read yet, the end of the connection is enough.
    const string behind = trace.substr(std::min(trace.size(), trace.find("source LOCK ")));
    if (!fLinkBroken && has(granted, "source LOCK ") && !has(behind, "source UNLOCK") &&
        (has(behind, "source READ") || !has(behind, "source DISCONNECT")))
        complaint += "the source is still locked; ";
    ++kind.iTried;
    kind.iSurvived += complaint.empty();
    EXPECT_EQ(complaint, "") << scene.pszLine << ", " << kind.pszName << ": " << fault << "\n"
                             << said << trace;
}

/// Tries change(answer, v), for each variant v, on every step of every command, and with `fAll` on
/// all steps behind it too.
template<class Change>
static void sweepSteps(Kind kind, int variants, bool fAll, const Change& change) {
    for (const Scene& scene : scenes) {
        std::vector<string> lines;
        const Ending undisturbed = run(scene, [&](ScriptedServer& server) {
            server.disturb = [&](const string& line, const Answer& answer) {
                lines.push_back(line);
                return answer;
            };
        });
        ASSERT_EQ(undisturbed.status, 0) << scene.pszLine << ", undisturbed:\n" << undisturbed.said;
        for (std::size_t i = 0; i < lines.size(); ++i)
            for (int v = 0; v < variants; ++v) {
                // Of a row of equal requests only the first is worth a fault.
                if ((i > 0 && lines[i].substr(0, 11) == lines[i - 1].substr(0, 11)) || !kind.next())
                    continue;
                std::size_t step = 0;
                bool fLinkBroken = false;
                const Ending ending = run(scene, [&](ScriptedServer& server) {
                    server.disturb = [&](const string& line, const Answer& answer) {
                        const std::size_t here = step++;
                        if (here != i && !(fAll && here > i))
                            return answer;
                        const Answer changed = change(answer, v);
                        fLinkBroken = changed.after != Answer::GO_ON && line[0] == 's';
                        return changed;
                    };
                });
                judge(kind, scene, ending,
                      "variant " + std::to_string(v) + " of the reply to " + lines[i], fLinkBroken);
            }
    }
}

TEST(Faults, LosesTheConnection) {
    // At every byte of the header, at the edges and the middle of the body, and behind the reply,
    // where the next request finds out.
    sweepSteps({"connection lost", 31}, 32, false, [](const Answer& answer, int v) {
        const std::size_t size = answer.bytes.size(), place = static_cast<std::size_t>(v / 2);
        const std::size_t edges[] = {13, (12 + size) / 2, size - 1, size};
        const std::size_t cut = std::min(size, place < 12 ? place : edges[place - 12]);
        return Answer{answer.bytes.substr(0, cut), v % 2 ? Answer::RESET : Answer::CLOSE};
    });
}

TEST(Faults, IsRefused) {
    // A positive result is no error of the connection list, whose text is shown.
    const auto refuse = [](const Answer&, int v) { return reply(v == 0 ? -5 : 5, "zz"); };
    sweepSteps({"error reply"}, 1, false, refuse);
    sweepSteps({"errors from there on", 3}, 2, true, refuse);
}

TEST(Faults, IsLiedTo) {
    // A bit of the header is turned, and all comes that it then announces, as far as it is small.
    sweepSteps({"lying headers", 97}, 96, false, [](const Answer& answer, int v) {
        string lie = answer.bytes;
        char& byte = lie[static_cast<unsigned>(v / 8)];
        byte = static_cast<char>(byte ^ 1 << v % 8);
        const U64 announced = U64{getNumber(&lie[4])} + getNumber(&lie[8]);
        lie.resize(12 + std::min<U64>(announced, 140000), 'x');
        return Answer{lie, announced > 140000 ? Answer::STALL : Answer::CLOSE};
    });
}

/// Tries each variant on every command.
template<class Try> static void sweep(Kind kind, int variants, const Try& attempt) {
    for (const Scene& scene : scenes)
        for (int v = 0; v < variants; ++v)
            if (kind.next())
                attempt(kind, scene, v);
}

TEST(Faults, IsNotGreeted) {
    // Each byte of the greeting is lost, or it refuses; at either host of a copy.
    sweep({"greeting lost", 5}, 18, [](Kind& kind, const Scene& scene, int v) {
        const string bytes =
            v % 9 < 8 ? be32(1).substr(0, static_cast<unsigned>(v % 9 / 2)) : be32(0);
        const Answer greeting{bytes, v % 2 ? Answer::RESET : Answer::CLOSE};
        const bool fDest = v >= 9 && has(scene.pszLine, "127.0.0.2");
        const Ending ending = run(scene, [&](ScriptedServer& server) {
            (fDest ? server.dest : server.source).greeting = greeting;
        });
        judge(kind, scene, ending, "all of it is " + hex(bytes));
        EXPECT_NE(ending.status, 0) << scene.pszLine;
    });
}

TEST(Faults, IsAnsweredInPieces) {
    sweep({"short and slow"}, 2, [](Kind& kind, const Scene& scene, int v) {
        const Ending whole = run(scene, [](ScriptedServer&) {});
        const Ending slow = run(scene, [&](ScriptedServer& server) {
            server.disturb = [&](const string&, const Answer& answer) {
                return Answer{answer.bytes, answer.after, v == 0 ? 1U : 7U};
            };
        });
        judge(kind, scene, slow, "variant " + std::to_string(v));
        expectText(whole.trace, slow.trace);
    });
}
