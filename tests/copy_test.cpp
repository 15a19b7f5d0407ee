// copy: what it says on every way through, the requests to both servers, and what it copies.
#include "tests/file_server.h"

#include <gtest/gtest.h>

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
static const std::string noDest = copying + "Destination path invalid or inaccessible";
static const std::string noSource = "Source path invalid or inaccessible.\n";
static const std::string invalid = "Source must be a valid repository file.\n";

// The requests of the steps; 2000 bytes move in two chunks.
static const std::string checked = "s1 s3 s2 s11 ", begun = checked + "s1 d12 ";
static const std::string created = begun + "d1 d7 d2 d1 ", room = created + "s32 d26 ";
static const std::string locks = "s32 s47 s32 ", ended = "s48 s2 d2 d10 s10";
static const std::string moved = locks + "s36 d39 s36 d39 " + ended, fresh = room + moved;
static const std::string over = begun + "d1 d2 d1 s32 d26 " + moved;
static const std::string toRead = room + locks + "s36 d39 s36 ";
static const std::string byCommand = checked + "s1 " + locks + "s48 s2 s10";

static const std::string byEcho =
    "Copying a.rep => b.rep using system command 'echo'\n" + bothLocks + "a.rep b.rep\n" +
    unlocking + "\nRepository a.rep copied to b.rep using system command 'echo'.\n";

TEST(Copy, EveryWay) {
    setenv("KXADMIN", KXADMIN_PROGRAM, 1);
    // By default 2000 bytes are copied to a server without "b.rep".
    const struct {
        std::string file = repository(2000);
        Arguments modifiers{};
        const char* input = "";
        std::size_t old = 0; // size of the destination that exists
        U32 freeBlocks = 1;
        Fault source{}, dest{};
        std::string output{}, codes{};
        std::size_t written = 0; // bytes that arrive
    } rows[] = {
        // clang-format off
        {.output = copying + whole, .codes = fresh, .written = 2000},
        {.modifiers = {"-b"}, .freeBlocks = 0, .output = copying + whole, .codes = created + moved, .written = 2000},
        {.modifiers = {"-q"}, .output = copying + locked, .codes = fresh, .written = 2000},
        {.input = "y\n", .old = 3000, .output = copying + question + whole, .codes = over, .written = 2000},
        {.input = "N", .old = 3000, .output = copying + question + "Copy cancelled.\n", .codes = begun + "d1 s2 d2 d10 s10"},
        {.modifiers = {"-o"}, .old = 3000, .output = copying + whole, .codes = over, .written = 2000},
        {.modifiers = {"-q"}, .input = "x\ny\n", .old = 9, .output = copying + question + question + locked, .codes = over,
         .written = 2000},
        {.input = "y\n", .freeBlocks = 0, .output = copying + noRoom + goOn + whole, .codes = fresh, .written = 2000},
        {.input = "n\n", .freeBlocks = 0, .output = copying + noRoom + goOn, .codes = room + "s2 d10 s10"},
        {.modifiers = {"-q"}, .freeBlocks = 0, .output = copying + noRoom + locked, .codes = fresh, .written = 2000},
        // A source that is none.
        {.file = repository(255), .output = "Error reading source repository.\n" + invalid, .codes = "s1 s3 s2 s10"},
        {.file = "4320" + repository(2000), .output = "Source file not a valid repository.\n" + invalid, .codes = "s1 s3 s2 s10"},
        {.source = {1, 1, 2}, .output = noSource + invalid, .codes = "s1 s2 s10"},
        // Requests that fail; a destination that cannot be probed counts as missing.
        {.source = {11, 1, -1}, .output = "Password is invalid.\n", .codes = checked + "s10"},
        {.source = {1, 2, 5}, .output = copying + noSource, .codes = checked + "s1 s10"},
        {.dest = {1, 1, 5}, .output = copying + whole, .codes = fresh, .written = 2000},
        {.dest = {7, 1, 13}, .output = noDest + ".\n", .codes = begun + "d1 d7 s2 d10 s10"},
        {.dest = {2, 1, 5}, .output = noDest + ".\n", .codes = begun + "d1 d7 d2 s2 d10 s10"},
        {.dest = {1, 2, 13}, .output = noDest + " \n\n", .codes = created + "s2 d10 s10"},
        {.source = {32, 1, 5}, .output = copying + "Failed checking repository file size.\n", .codes = created + "s32 s2 d10 s10"},
        {.dest = {26, 1, 5}, .output = copying + "Failed checking volume space.\n", .codes = room + "s2 d10 s10"},
        {.modifiers = {"-q"}, .source = {47, 1, 33}, .output = copying + "Lock attempt failed - retrying\n" + locked,
         .codes = room + "s32 s47 " + moved, .written = 2000},
        {.source = {47, 1, 5}, .output = copying + locking + "Failed getting lock.\nRepository file is locked by another process.\n",
         .codes = room + "s32 s47 s2 d2 d10 s10"},
        {.source = {32, 3, 5}, .output = copying + locking + "Failed checking repository EOF.\n", .codes = room + locks + "s2 d2 d10 s10"},
        {.source = {36, 2, 33}, .output = copying + bothLocks + "Error -33 reading source repository.  "
         "Attempted to read 1024 bytes at [0:1024].\n" + unlocking, .codes = toRead + ended, .written = 1024},
        {.dest = {39, 2, 28}, .output = copying + bothLocks + "Error writing destination repository.\n" + unlocking,
         .codes = toRead + "d39 " + ended, .written = 1024},
        {.source = {48, 1, 5}, .output = copying + bothLocks + unlocking + "Attempt to unlock repository failed.\n",
         .codes = fresh, .written = 2000},
        // By system commands.
        {.modifiers = {"-f", "echo"}, .output = byEcho, .codes = byCommand},
        {.modifiers = {"-q", "-f", "$KXADMIN stat 127.0.0.1 >/dev/null; echo"}, .output = locked + "a.rep b.rep\n",
         .codes = checked + "s1 " + locks + "s12 s28 s9 s13 s10 s48 s2 s10"},
        {.modifiers = {"-q", "-f", "kill $$;"}, .output = locked, .codes = byCommand},
        {.modifiers = {"-f", "false"}, .output = "Copying a.rep => b.rep using system command 'false'\n" + bothLocks + unlocking,
         .codes = byCommand},
        // None of the sockets is the command's. A reader that goes away ends one without a complaint.
        {.modifiers = {"-q", "-f", "find /proc/self/fd -lname 'socket:*' #"}, .output = locked, .codes = byCommand},
        {.modifiers = {"-q", "-f", "yes | head -n 1 #"}, .output = locked + "y\n", .codes = byCommand},
        // clang-format on
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.output + row.codes);
        CopyScene scene;
        scene.from.files["a.rep"] = row.file;
        scene.from.dataLimit = 1024;
        scene.from.faults = {row.source};
        scene.to.faults = {row.dest};
        scene.to.freeBlocks = row.freeBlocks;
        const std::string old(row.old, 'o');
        if (row.old != 0)
            scene.to.files["b.rep"] = old;
        const Outcome outcome = scene.copy(row.modifiers, row.input);
        EXPECT_EQ(outcome.out, row.output);
        const bool fShown = row.written == 2000 && row.modifiers != Arguments{"-q"};
        EXPECT_EQ(outcome.err, fShown ? "\r[0:2000]    " : "");
        EXPECT_EQ(scene.codes(), row.codes);
        EXPECT_EQ(scene.to.files["b.rep"],
                  row.file.substr(0, row.written) + old.substr(std::min(row.written, row.old)));
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
            CopyScene scene(size);
            scene.to.dataLimit = limit;
            // A header of its own for the check, which some sizes are too small to pass.
            scene.source.on(REQUEST_FILE_READ, {reply(0, repository(256))});
            EXPECT_EQ(scene.copy({"-b"}).err, progress + "\r[0:" + std::to_string(size) + "]    ");
            EXPECT_TRUE(scene.to.files["b.rep"] == repository(size)) << size;
            std::string chunks = "s36 d39 ";
            for (U32 position = limit; position < size; position += limit)
                chunks += "s36 d39 ";
            EXPECT_EQ(scene.codes(), created + locks + chunks + ended) << size;
            EXPECT_EQ(sent(scene.source, {REQUEST_FILE_OPEN}, 1), "1 66 1 66 1 66 1 18 ");
        }
}
