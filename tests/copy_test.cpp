// copy: what it says and asks on every way through, what it copies, the check for room and the lock
// on the source.
#include "tests/expect.h"
#include "tests/run_program.h"
#include "tests/scripted_server.h"

namespace {

/// "a.rep" on one host of a server and a volume for "b:1" on the other.
struct CopyScene {
    explicit CopyScene(const string& file = repository(2000)) {
        server.source.files["a.rep"] = file;
        server.source.dataLimit = 1024;
    }
    RunResult copy(const string& modifiers, const string& input = "") {
        return runKxadmin("copy -p secret 127.0.0.1:a.rep 127.0.0.2:b:1 " + modifiers, server.port,
                          input);
    }
    /// What is asked once the two servers are known, and said before the copy's own messages.
    string trace() {
        const string all = server.trace();
        expectText(connects, all.substr(0, connects.size()));
        return all.substr(std::min(all.size(), connects.size()));
    }
    const string connects = "source ADDRESS\nsource TYPE\nsource LIMIT\nsource VERSION\n"
                            "dest ADDRESS\ndest TYPE\ndest LIMIT\ndest VERSION\n"
                            "dest DISCONNECT\n";
    ScriptedServer server{INADDR_ANY};
};

} // namespace

static const string connected =
    "[banner]\n\nConnected to source server\n\nConnected to destination server\n\n";
static const string locked = "Locked library of size 0:2000 bytes.\n";
static const string bothLocks = "\nLocking entire source file.\n" + locked;
static const string unlocking = "\nUnlocking source.\n";
static const string whole =
    bothLocks + unlocking + "\nRepository 127.0.0.1:a.rep copied to 127.0.0.2:b:1.\n";

static const string opened = "source OPEN 66 a.rep\nsource READ 0 256\nsource CLOSE\n"
                             "source PASSWORD ~secret~\nsource OPEN 66 a.rep\n";
static const string bye = "source DISCONNECT\n";

TEST(Copy, AsksBothServers) {
    CopyScene scene;
    scene.copy("");
    expectText(opened +
                   "dest ADDRESS\ndest OPEN 66 b:1\ndest CREATE 0 b:1\ndest CLOSE\n"
                   "dest OPEN 18 b:1\nsource UNITS\ndest SPACE b:1~\nsource UNITS\n"
                   "source LOCK 0 0 0 2000\nsource UNITS\n"
                   "source READ 0 0 1024\ndest WRITE 0 0 1024\n"
                   "source READ 0 1024 1024\ndest WRITE 0 1024 976\n"
                   "source UNLOCK 0 0 0 2000\n"
                   "source CLOSE\ndest CLOSE\ndest DISCONNECT\n" +
                   bye,
               scene.trace());
}

TEST(Copy, CopiesThroughTheServers) {
    const string question = "WARNING: Destination file exists - overwrite (Y/N)?\n";
    const string noRoom = "\nWARNING\n\tSource file size 0 blocks.\n\tDestination volume "
                          "has 0 blocks available\n\twhere 1 block = 4096 bytes\n\n";
    const string goOn = "Do you wish to continue (Y/N)?\n";
    // clang-format off
    struct Setting {
        std::size_t old = 0; // bytes of the destination that is there
        U32 freeBlocks = 1;
        bool fCopied = true;
    };
    const struct {
        Name name;
        string modifiers, input, output;
        Setting with = {};
    } rows[] = {
        {"to a new file", "", "", whole},
        {"without a look at the room", "-b", "", whole, {.freeBlocks = 0}},
        {"the same by its number", "-Z99", "", whole, {.freeBlocks = 0}},
        {"over a file", "", "y\n", question + whole, {.old = 3000}},
        {"over a file, unasked", "-o", "", whole, {.old = 3000}},
        {"over a file, without a word", "-q", "x\ny\n", question + question + locked, {.old = 9}},
        {"not over a file", "", "N", question + "Copy cancelled.\n", {.old = 9, .fCopied = false}},
        {"without room", "", "y\n", noRoom + goOn + whole, {.freeBlocks = 0}},
        {"without room and a word", "-q", "", noRoom + locked, {.freeBlocks = 0}},
        {"not without room", "", "n\n", noRoom + goOn, {.freeBlocks = 0, .fCopied = false}},
    };
    // clang-format on
    forEachRow(rows, [](const auto& row) {
        CopyScene scene;
        scene.server.dest.freeBlocks = row.with.freeBlocks;
        const string old(row.with.old, 'o');
        string source = repository(2000), &copy = scene.server.dest.files["b:1"];
        copy = old;
        if (old.empty())
            scene.server.dest.files.clear();
        const RunResult run = scene.copy(row.modifiers, row.input);
        expectText(connected + "Copying 127.0.0.1:a.rep => 127.0.0.2:b:1\n" + row.output, run.out);
        expectText(row.with.fCopied && row.modifiers != "-q" ? "\r[0:2000]    " : "", run.err);
        source += old.substr(std::min(source.size(), old.size()));
        expectText(row.with.fCopied ? source : old, scene.server.dest.files["b:1"]);
    });
}

TEST(Copy, RunsASystemCommandUnderTheLock) {
    const struct {
        Name name;
        string modifiers, output;
        string meanwhile = ""; // what is asked while the command runs
    } rows[] = {
        {"a command", "-f echo",
         "Copying a.rep => b:1 using system command 'echo'\n" + bothLocks + "a.rep b:1\n" +
             unlocking + "\nRepository a.rep copied to b:1 using system command 'echo'.\n"},
        {"a command that fails", "-f false",
         "Copying a.rep => b:1 using system command 'false'\n" + bothLocks + unlocking},
        {"while it is locked", "-qf '/proc/$PPID/exe stat 127.0.0.1 >/dev/null #'", locked,
         "source ADDRESS\nsource TYPE\nsource LIMIT\nsource STATISTICS\n" + bye},
        {"without our sockets", "-qf \"find /proc/self/fd -lname 'socket:*' #\"", locked},
        {"for a reader that goes away", "-qf 'yes | head -n 1 #'", locked + "y\n"},
    };
    forEachRow(rows, [](const auto& row) {
        CopyScene scene;
        const RunResult run = scene.copy(row.modifiers);
        expectText(connected + row.output, run.out + run.err);
        expectText(opened + "source UNITS\nsource LOCK 0 0 0 2000\nsource UNITS\n" + row.meanwhile +
                       "source UNLOCK 0 0 0 2000\nsource CLOSE\n" + bye,
                   scene.trace());
    });
}

/// The last lines of the text, as many as the other has.
static string lastLines(const string& text, const string& other) {
    std::size_t begin = text.size();
    for (auto left = std::count(other.begin(), other.end(), '\n') + 1;
         left > 0 && begin > 0 && begin != string::npos; --left)
        begin = text.rfind('\n', begin - 1);
    return text.substr(std::min(text.size(), begin + 1));
}

TEST(Copy, TellsWhichStepFailed) {
    const string invalid = "Source must be a valid repository file.\n";
    const string inaccessible = "Source path invalid or inaccessible.\n";
    const string noDest = "Destination path invalid or inaccessible";
    const string aborted = "Unable to lock source repository, system copy aborted.\n";
    const string notUnlocked = "Attempt to unlock repository failed.\n";
    // clang-format off
    const struct {
        Name name;      // the request that is refused
        string message; // the last that is said
        int nth = 1;    // of those requests
        string modifiers = "";
    } rows[] = {
        {"source LIMIT", "\nConnected to source server\n"},
        {"source VERSION", "\nConnected to source server\n"},
        {"source OPEN 66 a.rep", inaccessible + invalid},
        {"source READ 0 256", "Error reading source repository.\n" + invalid},
        {"source OPEN 66 a.rep", inaccessible, 2},
        {"dest CREATE 0 b:1", noDest + ".\n"},
        {"dest OPEN 18 b:1", noDest + " \n\n"},
        {"source UNITS", "Failed checking repository file size.\n"},
        {"dest SPACE b:1~", "Failed checking volume space.\n"},
        {"source UNITS", "Failed checking repository EOF.\n", 2},
        {"source UNITS", "Failed checking repository EOF.\n", 3},
        {"source READ 0 1024 1024", "Error -5 reading source repository.  Attempted to read 1024 "
         "bytes at [0:1024].\n" + unlocking},
        {"dest WRITE 0 1024 976", "Error writing destination repository.\n" + unlocking},
        {"source UNLOCK 0 0 0 2000", notUnlocked},
        {"source LOCK 0 0 0 2000", "Failed getting lock.\n"
         "Repository file is locked by another process.\n" + aborted, 1, "-f echo"},
        {"source UNLOCK 0 0 0 2000", notUnlocked + "Error unlocking source repository.\n\n"
         "Repository a.rep copied to b:1 using system command 'echo'.\n", 1, "-f echo"},
    };
    // clang-format on
    forEachRow(rows, [](const auto& row) {
        CopyScene undisturbed, scene;
        scene.server.disturb = [&, left = row.nth](const string& line,
                                                   const Answer& answer) mutable {
            return line == row.name.text + '\n' && --left == 0 ? reply(5, "no") : answer;
        };
        const string said = undisturbed.copy(row.modifiers).out;
        const string out = scene.copy(row.modifiers).out;
        expectText(row.message, lastLines(out, row.message));
        const std::size_t before = out.size() - std::min(out.size(), row.message.size());
        expectText(said.substr(0, before), out.substr(0, before));
    });
}

TEST(Copy, CopiesEverySizeAtEveryLimit) {
    const struct {
        Name name;
        U32 size, limit;
        string progress; // before the last
    } rows[] = {
        {"nothing", 0, 272, "\r[0:0]    "},
        {"what one write takes", 272, 272, ""},
        {"enough to tell of it", 16384, 32768, "\r[0:16384]    "},
        {"enough for two to be told of", 65552, 32768, "\r[0:32768]    \r[0:65536]    "},
    };
    forEachRow(rows, [](const auto& row) {
        CopyScene scene(repository(row.size));
        scene.server.source.dataLimit = 32768;
        scene.server.dest.dataLimit = row.limit;
        // A header of its own for the check, which some sizes are too small to pass.
        scene.server.on(REQUEST_FILE_READ, {reply(0, repository(256))});
        expectText(row.progress + "\r[0:" + std::to_string(row.size) + "]    ",
                   scene.copy("-b").err);
        expectText(repository(row.size), scene.server.dest.files["b:1"]);
        const long chunks = std::max(1U, (row.size + row.limit - 1) / row.limit);
        const string trace = scene.trace();
        EXPECT_EQ(std::count(trace.begin(), trace.end(), '\n'), 18 + 2 * chunks) << trace;
    });
}

/// What the source says of its size, in units of 16 bytes, one after the other.
static std::vector<Answer> units(const std::vector<U32>& counts) {
    std::vector<Answer> answers;
    for (const U32 count : counts)
        answers.push_back(reply(0, be32(count)));
    return answers;
}

TEST(Copy, CountsRoomInBlocksOfTheDestination) {
    const string size = "Source file size ";
    const struct {
        Name name;
        U32 units, freeBlocks, bytesPerBlock;
        string warning = "";
    } rows[] = {
        {"as many blocks as are free", 512, 2, 4096, size + "2 blocks"},
        {"a block less", 767, 3, 4096},
        {"smaller blocks than a unit", 64, 79, 15, size + "4 blocks"},
        {"the same, one more", 64, 80, 15},
        {"more than a sign leaves", 0xC0000000, 5, 16, size + "-1073741824 blocks"},
    };
    forEachRow(rows, [&](const auto& row) {
        CopyScene scene;
        scene.server.dest.freeBlocks = row.freeBlocks;
        scene.server.dest.bytesPerBlock = row.bytesPerBlock;
        scene.server.on(REQUEST_16GB_FILE_GET_EOF, units({row.units, 1}));
        scene.server.on(REQUEST_16GB_LARGE_LOCK, {reply(5)}); // the end, where there is room
        const string out = scene.copy("", "n\n").out;
        const std::size_t at = std::min(out.find(size), out.size());
        expectText(row.warning, out.substr(at, std::min(out.find('.', at), out.size()) - at));
    });
}

TEST(Copy, LocksTheSourceAtTheSizeItHas) {
    const string size = "Locked library of size ", retry = "Lock attempt failed - retrying\n";
    const string aborted = "Unable to lock source repository, system copy aborted.\n";
    const string lock = "source UNITS\nsource LOCK 0 0 ";
    const string unlock = "source UNITS\nsource UNLOCK 0 0 ", close = "source CLOSE\n" + bye;
    // clang-format off
    const struct {
        Name name;
        std::vector<U32> units;
        string output, trace;
        std::vector<Answer> lock = {reply(0)};
    } rows[] = {
        {"16 GB", {0x40000000}, size + "4:0 bytes.\n", lock + "4 0\n" + unlock + "4 0\n" + close},
        {"more", {0x40000001}, "Repository greater than 16 GB.\n" + aborted,
         "source UNITS\n" + bye},
        {"locked by others at first", {1, 2, 3}, retry + retry + size + "0:48 bytes.\n",
         lock + "0 16\n" + lock + "0 32\n" + lock + "0 48\n" + unlock + "0 48\n" + close,
         {reply(33), reply(33), reply(0)}},
        {"growing at first", {1, 2},
         "File size changed between check and lock - retrying\n" + size + "0:32 bytes.\n",
         lock + "0 16\n" + unlock + "0 16\n" + lock + "0 32\n" + unlock + "0 32\n" + close},
    };
    // clang-format on
    forEachRow(rows, [](const auto& row) {
        CopyScene scene;
        scene.server.on(REQUEST_16GB_FILE_GET_EOF, units(row.units));
        scene.server.on(REQUEST_16GB_LARGE_LOCK, row.lock);
        expectText(connected + row.output, scene.copy("-qf true").out);
        expectText(opened + row.trace, scene.trace());
    });
}
