// One oracle, swept over every fault: whatever the server does, the program ends by itself and
// tells the truth by its status: with 0 its work is done, with another it says what it does not say
// undisturbed. It leaves no lock on a link that works, no process, no file but its own, and a
// terminal that echoes. Every step is refused once; of the other faults KX_FAULTS=all tries every
// one, and otherwise a sample is tried.
#include "client/exchange.h"
#include "tests/expect.h"
#include "tests/run_program.h"
#include "tests/scratch.h"
#include "tests/scripted_server.h"

#include <algorithm>
#include <sys/prctl.h>
#include <sys/wait.h>

namespace {

/// A command, the request that does its work, what it says then, with * for the text of the answer,
/// and its file.
struct Scene {
    const char *pszLine, *pszGranted, *pszSaid = "", *pszFile = "";
};

struct Ending {
    string said, trace; // in its file too, and behind the banner
    bool fSurvived = false;
};

/// One kind of fault, of which a sample is tried unless all are asked for.
struct Kind {
    ~Kind() {
        std::printf("%-24s %6d tried %6d survived\n", pszName, iTried, iSurvived);
    }
    /// Whether to try the next one.
    bool next() {
        const bool fTry = std::getenv("KX_FAULTS") != nullptr || iNext++ % iEvery == 0;
        iTried += fTry;
        return fTry;
    }
    const char* pszName;
    int iEvery = 1, iNext = 0, iTried = 0, iSurvived = 0;
};

/// Does harm to an answer and tells which, or leaves it.
using Change = std::function<string(const string& line, Answer& answer)>;

} // namespace

static const Scene scenes[] = {
    {"stat", "source STATISTICS\n", "=\n*="},
    {"list", "source CONNECTIONS\n", "=\n*="},
    {"list -s1", "source CONNECTION 1\n", "=\n*\n"},
    {"list -l1", "source LOCKS 1\n", "=\n*\n"},
    {"opts", "source OPTIONS\n", "=\n*="},
    {"opts -s1 </dev/tty", "source LEVEL 1\n"}, // asks for the password
    {"stop -p", "source STOP\n"},
    {"stop -p -k3", "source KILL 3\n"},
    {"test -r a.rep", "source READ 0 1280\n", "a valid repository"},
    {"test -r a.rep -f report", "source READ 0 1280\n", "report: 0\nlocalhost:a.rep app", "report"},
    {"bench -c1024", "source READ", "kxbench.log: 1024", "kxbench.log"},
    {"copy -p secret -f 'echo ran >done;echo' a.rep b.rep", "source UNLOCK", "done: ran\n", "done"},
    {"copy -p secret a.rep 127.0.0.2:b.rep", "[equal]"},
};

static bool has(const string& text, const string& part) {
    return text.find(part) != string::npos;
}

static std::vector<string> linesOf(const string& text) {
    std::vector<string> lines;
    std::istringstream stream(text);
    for (string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

/// Whether the client can take the answer for a success. A positive result, an error elsewhere, is
/// the number of the connections in their list.
static bool isSuccess(const string& line, const string& bytes) {
    if (bytes.size() < 12)
        return false;
    const U32 result = getNumber(&bytes[0]);
    const U64 behind = U64{getNumber(&bytes[4])} + getNumber(&bytes[8]);
    return (result == 0 || (has(line, "CONNECTIONS") && result <= INT32_MAX)) && behind <= 32768 &&
           bytes.size() >= 12 + behind;
}

/// Runs the command and judges how it ends. What it says of a failure is not `usual`; with nothing
/// usual it may not fail. Greetings are changed too, on the line GREETING.
static Ending run(const Scene& scene, const Change& change, const string& usual = "") {
    prctl(PR_SET_CHILD_SUBREAPER, 1); // the processes that a command leaves behind come to us
    const Scratch scratch;
    ScriptedServer server{INADDR_ANY};
    server.source.files["a.rep"] = repository(2000);
    server.source.dataLimit = has(scene.pszLine, "copy") ? 1000 : 32768;
    // A text that no turned bit makes empty.
    for (const U32 code : {13U, 15U, 21U, 24U})
        server.on(code, {reply(0, "a text")});
    server.on(REQUEST_GET_CONNECTION_LIST, {reply(1, "a text")});
    string fault, granted, text, complaint;
    const auto disturb = [&](const string& line, Answer& answer) {
        const string harm = change(line, answer);
        if (fault.empty() && !harm.empty())
            fault = harm + ": the reply to " + line;
    };
    disturb("source GREETING\n", server.source.greeting);
    disturb("dest GREETING\n", server.dest.greeting);
    bool fLocked = false, fRead = false;
    server.disturb = [&](const string& line, Answer given) {
        disturb(line, given);
        if (isSuccess(line, given.bytes)) {
            granted += line;
            if (line == scene.pszGranted)
                text = given.bytes.substr(12, getNumber(&given.bytes[8]));
            fLocked = fLocked || has(line, "source LOCK ");
        }
        // Where nothing has been read yet, the end of the connection is enough.
        fRead = fLocked && (fRead || has(line, "READ"));
        if (has(line, "UNLOCK") || (has(line, "source DISCONNECT") && !fRead) ||
            (line[0] == 's' && given.after != Answer::GO_ON))
            fLocked = false;
        return given;
    };
    // A run that would not end is ended with status 124.
    const string script =
        "cd " + scratch.directory + "; echo y | timeout --foreground 60 \"$0\" " + scene.pszLine;
    TerminalRun run("/bin/sh", {"-c", script, KXADMIN_PROGRAM "-strict"}, serverAt(server.port));
    if (run.waitFor("KXSRV : ") && run.waitForEcho(false))
        run.type("secret\n");
    const int status = run.finish();
    string said = abridged(run.output);
    const string trace = server.trace();

    if (waitpid(-1, nullptr, WNOHANG) >= 0)
        complaint += "a process is left; ";
    prctl(PR_SET_CHILD_SUBREAPER, 0);
    if (!run.echoes())
        complaint += "the terminal does not echo; ";
    if (fLocked)
        complaint += "the source is still locked; ";
    for (const auto& entry : std::filesystem::directory_iterator(scratch.directory))
        if (const string name = entry.path().filename(); name != scene.pszFile)
            complaint += name + " is left; ";
        else if (const string bytes = scratch.read(name); !bytes.empty()) // but for bench's time
            said += name + ": " + bytes.substr(0, bytes.find(" , ")) + "\n";
    if (server.dest.files["b.rep"] == server.source.files["a.rep"])
        granted += "[equal]";
    string sign = scene.pszSaid;
    if (const auto at = sign.find('*'); at != string::npos)
        sign.replace(at, 1, text);
    if (status == 0 && !(has(said, sign) && has(granted, scene.pszGranted)))
        complaint += "status 0, but its work is not done; ";
    if (status != 0 && (usual.empty() || status < 2 || status > 4))
        complaint += "status " + std::to_string(status) + "; ";
    bool fTold = status == 0;
    for (const string& line : linesOf(said))
        fTold = fTold || (!line.empty() && !has("\n" + usual, "\n" + line + "\n"));
    if (!fTold)
        complaint += "not a word of the failure; ";
    if (!complaint.empty())
        ADD_FAILURE() << complaint << "\nkxadmin-strict " << scene.pszLine
                      << "\nfault: " << (fault.empty() ? "none\n" : fault) << "--- said:\n"
                      << said << "--- asked:\n"
                      << trace;
    return {said, trace, complaint.empty()};
}

/// The run that nothing disturbs; a failed one is empty, since it would prove nothing.
static const Ending& undisturbed(const Scene& scene) {
    static std::map<const Scene*, Ending> runs;
    const auto [entry, fNew] = runs.try_emplace(&scene);
    const auto none = [](const string&, Answer&) { return ""; };
    if (Ending ending; fNew && (ending = run(scene, none)).fSurvived)
        entry->second = ending;
    return entry->second;
}

/// Has change(answer, v) harm the reply to every step of every command, for each variant v, and
/// with `fAll` to all steps behind it too.
template<class Change>
static void sweepSteps(Kind kind, int variants, bool fAll, const Change& change) {
    for (const Scene& scene : scenes) {
        const std::vector<string> lines = linesOf(undisturbed(scene).trace);
        for (std::size_t i = 0; i < lines.size(); ++i)
            for (int v = 0; v < variants; ++v) {
                // Of a row of equal requests only the first is worth a fault.
                if ((i > 0 && lines[i].substr(0, 11) == lines[i - 1].substr(0, 11)) || !kind.next())
                    continue;
                std::size_t step = 0;
                const auto harm = [&](const string& line, Answer& answer) {
                    if (has(line, "GREETING"))
                        return string();
                    const std::size_t here = step++;
                    if (here < i || (here > i && !fAll))
                        return string();
                    return change(answer, v) + (fAll ? " from there on" : "");
                };
                kind.iSurvived += run(scene, harm, undisturbed(scene).said).fSurvived;
            }
    }
}

/// Cuts the answer and ends the connection, by a reset where v is odd.
static string cut(Answer& answer, std::size_t size, int v) {
    answer = {answer.bytes.substr(0, size), v % 2 ? Answer::RESET : Answer::CLOSE};
    return "cut after " + std::to_string(size) + " bytes, then " + (v % 2 ? "reset" : "closed");
}

TEST(Faults, LosesTheConnection) {
    // At every byte of the header, near the body's end, and behind it, where the next request finds
    // out.
    sweepSteps({"connection lost", 31}, 32, false, [](Answer& answer, int v) {
        const std::size_t size = answer.bytes.size(), place = static_cast<std::size_t>(v / 2);
        return cut(answer, std::min(size, place < 13 ? place : size + place - 15), v);
    });
}

TEST(Faults, IsRefused) {
    const auto refuse = [](Answer& answer, int v) {
        answer = reply(v == 0 ? -5 : 5, "no");
        return string(v == 0 ? "made result -5" : "made result 5");
    };
    sweepSteps({"error reply"}, 1, false, refuse);
    sweepSteps({"errors from there on", 3}, 2, true, refuse);
}

TEST(Faults, IsLiedTo) {
    // A bit of the header is turned, and all comes that it then announces, as far as it is small.
    sweepSteps({"lying headers", 97}, 96, false, [](Answer& answer, int v) {
        string& lie = answer.bytes;
        char& byte = lie[static_cast<unsigned>(v / 8)];
        byte = static_cast<char>(byte ^ 1 << v % 8);
        const U64 announced = U64{getNumber(&lie[4])} + getNumber(&lie[8]);
        lie.resize(12 + std::min<U64>(announced, 140000), 'x');
        answer.after = announced > 140000 ? Answer::STALL : Answer::CLOSE;
        const auto number = [&](unsigned at) { return std::to_string(getNumber(&lie[at])); };
        return "made result " + number(0) + ", " + number(4) + " pad bytes and " + number(8) +
               " of data";
    });
}

TEST(Faults, IsNotGreeted) {
    // Each byte of the greeting is lost, or it refuses; at either host of a copy.
    Kind kind{"greeting lost", 4};
    for (const Scene& scene : scenes)
        for (int v = 0; v < (has(scene.pszLine, "127.0.0.2") ? 18 : 9); ++v) {
            if (!kind.next() || undisturbed(scene).said.empty())
                continue;
            const auto harm = [v](const string& line, Answer& greeting) {
                if (line != (v < 9 ? "source GREETING\n" : "dest GREETING\n"))
                    return string();
                greeting.bytes = be32(v % 9 < 8); // 0 refuses
                return cut(greeting, static_cast<unsigned>(v % 9 / 2), v);
            };
            kind.iSurvived += run(scene, harm, undisturbed(scene).said).fSurvived;
        }
}

TEST(Faults, IsAnsweredInPieces) {
    Kind kind{"short and slow"};
    for (const Scene& scene : scenes)
        for (const std::size_t piece : {1U, 7U}) {
            kind.next();
            const auto harm = [&](const string&, Answer& answer) {
                answer.piece = piece;
                return "in pieces of " + std::to_string(piece) + " from there on";
            };
            kind.iSurvived += run(scene, harm).fSurvived;
        }
}
