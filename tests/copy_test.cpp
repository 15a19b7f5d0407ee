// copy: what it says on every way through, the requests to both servers, what it copies, the check
// for room and the lock on the source. fault_test.cpp has the requests that fail.
#include "tests/run_program.h"
#include "tests/scripted_server.h"

#include <gtest/gtest.h>
#include <regex>

namespace {

/// "a.rep" on one host of a server and a volume for "b.rep" on the other.
struct CopyScene {
    explicit CopyScene(const std::string& file = repository(2000)) {
        from.files["a.rep"] = file;
        serveFiles(server, from, server.SOURCE);
        serveFiles(server, to, server.DEST);
    }
    Outcome copy(const Arguments& modifiers, const std::string& input = "") {
        Arguments arguments{"copy", "-p", "secret", "127.0.0.1:a.rep", "127.0.0.2:b.rep"};
        arguments.insert(arguments.begin() + 1, modifiers.begin(), modifiers.end());
        return runKxadmin(arguments, server.port, input);
    }

    Volume from, to;
    ScriptedServer server{INADDR_ANY};
};

/// Replies to the end-of-file request, in units of 16 bytes.
template<class... Counts> std::vector<Answer> units(Counts... counts) {
    return {reply(0, be32(counts))...};
}

} // namespace

// What is said, and asked, until the two servers are known.
static const std::string connected =
    banner + "\nConnected to source server\n\nConnected to destination server\n\n";
static const std::string connects = "s12 s28 s9 s25 d12 d28 d9 d25 d10 ";

static const std::string copying = "Copying 127.0.0.1:a.rep => 127.0.0.2:b.rep\n";
static const std::string question = "WARNING: Destination file exists - overwrite (Y/N)?\n";
static const std::string noRoom = "\nWARNING\n\tSource file size 0 blocks.\n\tDestination volume "
                                  "has 0 blocks available\n\twhere 1 block = 4096 bytes\n\n";
static const std::string goOn = "Do you wish to continue (Y/N)?\n";
static const std::string locking = "\nLocking entire source file.\n";
static const std::string locked = "Locked library of size 0:2000 bytes.\n";
static const std::string unlocking = "\nUnlocking source.\n", bothLocks = locking + locked;
static const std::string whole =
    bothLocks + unlocking + "\nRepository 127.0.0.1:a.rep copied to 127.0.0.2:b.rep.\n";
static const std::string invalid = "Source must be a valid repository file.\n";

// The requests of the steps; 2000 bytes move in two chunks.
static const std::string checked = "s1 s3 s2 s11 ", begun = checked + "s1 d12 ";
static const std::string created = begun + "d1 d7 d2 d1 ", room = created + "s32 d26 ";
static const std::string locks = "s32 s47 s32 ", ended = "s48 s2 d2 d10 s10";
static const std::string moved = locks + "s36 d39 s36 d39 " + ended, fresh = room + moved;
static const std::string over = begun + "d1 d2 d1 s32 d26 " + moved;
static const std::string byCommand = checked + "s1 " + locks + "s48 s2 s10";

static const std::string byEcho =
    "Copying a.rep => b.rep using system command 'echo'\n" + bothLocks + "a.rep b.rep\n" +
    unlocking + "\nRepository a.rep copied to b.rep using system command 'echo'.\n";

TEST(Copy, EveryWay) {
    // By default 2000 bytes are copied to a server without "b.rep".
    const struct {
        std::string file = repository(2000);
        Arguments modifiers{};
        const char* input = "";
        std::size_t old = 0; // size of the destination that exists
        U32 freeBlocks = 1;
        std::string output{}, codes{};
    } rows[] = {
        // clang-format off
        {.output = copying + whole, .codes = fresh},
        {.modifiers = {"-b"}, .freeBlocks = 0, .output = copying + whole, .codes = created + moved},
        {.modifiers = {"-q"}, .output = copying + locked, .codes = fresh},
        {.input = "y\n", .old = 3000, .output = copying + question + whole, .codes = over},
        {.input = "N", .old = 3000, .output = copying + question + "Copy cancelled.\n", .codes = begun + "d1 s2 d2 d10 s10"},
        {.modifiers = {"-o"}, .old = 3000, .output = copying + whole, .codes = over},
        {.modifiers = {"-q"}, .input = "x\ny\n", .old = 9, .output = copying + question + question + locked, .codes = over},
        {.input = "y\n", .freeBlocks = 0, .output = copying + noRoom + goOn + whole, .codes = fresh},
        {.input = "n\n", .freeBlocks = 0, .output = copying + noRoom + goOn, .codes = room + "s2 d10 s10"},
        {.modifiers = {"-q"}, .freeBlocks = 0, .output = copying + noRoom + locked, .codes = fresh},
        // A source that is none.
        {.file = repository(255), .output = "Error reading source repository.\n" + invalid, .codes = "s1 s3 s2 s10"},
        {.file = "4320" + repository(2000), .output = "Source file not a valid repository.\n" + invalid, .codes = "s1 s3 s2 s10"},
        // By system commands.
        {.modifiers = {"-f", "echo"}, .output = byEcho, .codes = byCommand},
        {.modifiers = {"-q", "-f", "/proc/$PPID/exe stat 127.0.0.1 >/dev/null; echo"}, .output = locked + "a.rep b.rep\n",
         .codes = checked + "s1 " + locks + "s12 s28 s9 s13 s10 s48 s2 s10"},
        {.modifiers = {"-f", "false"}, .output = "Copying a.rep => b.rep using system command 'false'\n" + bothLocks + unlocking,
         .codes = byCommand},
        // None of the sockets is the command's. A reader that goes away ends one without a complaint.
        {.modifiers = {"-q", "-f", "find /proc/self/fd -lname 'socket:*' #"}, .output = locked, .codes = byCommand},
        {.modifiers = {"-q", "-f", "yes | head -n 1 #"}, .output = locked + "y\n", .codes = byCommand},
        // clang-format on
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.output + row.codes);
        CopyScene scene(row.file);
        scene.from.dataLimit = 1024;
        scene.to.freeBlocks = row.freeBlocks;
        const std::string old(row.old, 'o');
        if (row.old != 0)
            scene.to.files["b.rep"] = old;
        const Outcome outcome = scene.copy(row.modifiers, row.input);
        const bool fCopied = row.codes.ends_with(moved), fShown = row.modifiers != Arguments{"-q"};
        EXPECT_EQ(outcome.out, connected + row.output);
        EXPECT_EQ(outcome.err, fCopied && fShown ? "\r[0:2000]    " : "");
        EXPECT_EQ(scene.server.codes(), connects + row.codes);
        EXPECT_EQ(scene.to.files["b.rep"],
                  fCopied ? row.file + old.substr(std::min<std::size_t>(2000, row.old)) : old);
    }
}

TEST(Copy, EverySizeAtEveryLimit) {
    const std::string at32 = "\r[0:32768]    ";
    const std::tuple<U32, std::vector<U32>, std::string> rows[] = {
        // clang-format off
        {272, {0}, "\r[0:0]    "}, {272, {15, 16, 256, 271, 272, 273, 544, 560}, ""}, {4096, {4095, 4096, 4097, 8192, 8208}, ""}, {32768, {16383, 32767}, ""},
        {32768, {16384}, "\r[0:16384]    "}, {32768, {32768, 32769}, at32}, {32768, {65536, 65552}, at32 + "\r[0:65536]    "},
        // clang-format on
    };
    for (const auto& [limit, sizes, progress] : rows)
        for (const U32 size : sizes) {
            CopyScene scene(repository(size));
            scene.to.dataLimit = limit;
            // A header of its own for the check, which some sizes are too small to pass.
            scene.server.on(REQUEST_FILE_READ, {reply(0, repository(256))});
            EXPECT_EQ(scene.copy({"-b"}).err, progress + "\r[0:" + std::to_string(size) + "]    ");
            EXPECT_TRUE(scene.to.files["b.rep"] == repository(size)) << size;
            std::string chunks = "s36 d39 ";
            for (U32 position = limit; position < size; position += limit)
                chunks += "s36 d39 ";
            EXPECT_EQ(scene.server.codes(), connects + created + locks + chunks + ended) << size;
            EXPECT_EQ(sent(scene.server, {REQUEST_FILE_OPEN}, 1), "1 66 1 66 1 66 1 18 ");
        }
}

TEST(Copy, CountsRoomInBlocksOfTheDestination) {
    // The warning's numbers: blocks of the source, blocks available, bytes in 1 block.
    const std::tuple<U32, U32, U32, const char*> rows[] = {
        // clang-format off
        {0, 0, 4096, " 0 0 1 4096 "},   {0, 1, 4096, " "},   {512, 2, 4096, " 2 2 1 4096 "}, {512, 3, 4096, " "},
        {768, 3, 4096, " 3 3 1 4096 "}, {767, 3, 4096, " "}, {64, 64, 31, " 64 64 1 31 "},   {64, 33, 32, " "},
        {64, 64, 16, " 64 64 1 16 "},   {64, 65, 16, " "},   {64, 79, 15, " 4 4 1 15 "},     {64, 80, 15, " "},
        {64, 1039, 1, " 64 64 1 1 "},   {64, 1040, 1, " "},  {5, 0x80000000, 16, " "},
        {0xC0000000, 5, 16, " -1073741824 5 1 16 "},         {64, 0, 0x80000000, " 0 0 1 -2147483648 "},
        // clang-format on
    };
    for (const auto& [size, freeBlocks, bytesPerBlock, warning] : rows) {
        CopyScene scene;
        scene.to.freeBlocks = freeBlocks;
        scene.to.bytesPerBlock = bytesPerBlock;
        scene.server.on(REQUEST_16GB_FILE_GET_EOF, units(size, 1U));
        scene.server.on(REQUEST_16GB_LARGE_LOCK, {reply(5)});
        const std::string output =
            scene.copy({}, "n\n").out.substr((connected + copying).size() - 1);
        EXPECT_EQ(std::regex_replace(output, std::regex("[^-\\d]+"), " "), warning)
            << size << " units, " << freeBlocks << " free of " << bytesPerBlock;
    }
}

TEST(Copy, LocksTheSourceAtTheSizeItHas) {
    const std::string size = "Locked library of size ", retry = "Lock attempt failed - retrying\n";
    const std::string changed = "File size changed between check and lock - retrying\n";
    const std::string aborted = "Unable to lock source repository, system copy aborted.\n";
    const struct {
        std::vector<Answer> sizes;
        std::string output;
        std::string requests; // 47 locks and 48 unlocks, an offset and a length, each in halves
        std::vector<Answer> lock = {reply(0)}, unlock = {reply(0)};
    } rows[] = {
        // clang-format off
        {units(0U), size + "0:0 bytes.\n", "47 0 0 0 0 48 0 0 0 0 "},
        {units(0xfffffffU), size + "0:4294967280 bytes.\n", "47 0 0 0 4294967280 48 0 0 0 4294967280 "},
        {units(0x40000000U), size + "4:0 bytes.\n", "47 0 0 4 0 48 0 0 4 0 "},
        {units(0x40000001U), "Repository greater than 16 GB.\n" + aborted, ""},
        {units(1U, 2U, 3U), retry + retry + size + "0:48 bytes.\n",
         "47 0 0 0 16 47 0 0 0 32 47 0 0 0 48 48 0 0 0 48 ", {reply(33), reply(33), reply(0)}},
        {units(1U, 2U), changed + size + "0:32 bytes.\n", "47 0 0 0 16 48 0 0 0 16 47 0 0 0 32 48 0 0 0 32 "},
        {units(1U, 2U), "Attempt to unlock repository failed.\n" + aborted, "47 0 0 0 16 48 0 0 0 16 ", {reply(0)}, {reply(5)}},
        // clang-format on
    };
    for (const auto& row : rows) {
        CopyScene scene;
        scene.server.on(REQUEST_16GB_FILE_GET_EOF, row.sizes);
        scene.server.on(REQUEST_16GB_LARGE_LOCK, row.lock);
        scene.server.on(REQUEST_16GB_LARGE_UNLOCK, row.unlock);
        EXPECT_EQ(scene.copy({"-q", "-f", "true"}).out, connected + row.output);
        EXPECT_EQ(sent(scene.server, {47, 48}, 4), row.requests) << row.output;
    }
}
