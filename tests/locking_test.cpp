// The lock on the source of a copy, and the check for room at its destination.
#include "tests/file_server.h"

#include <gtest/gtest.h>
#include <regex>

/// Replies to the end-of-file request, in units of 16 bytes.
template<class... Counts> static std::vector<Answer> units(Counts... counts) {
    return {reply(0, be32(counts))...};
}

TEST(Space, IsCountedInBlocksOfTheDestination) {
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
        scene.source.on(REQUEST_16GB_FILE_GET_EOF, units(size, 1U));
        scene.source.on(REQUEST_16GB_LARGE_LOCK, {reply(5)});
        const std::string output = scene.copy({}, "n\n").out.substr(42); // behind "Copying ..."
        EXPECT_EQ(std::regex_replace(output, std::regex("[^-\\d]+"), " "), warning)
            << size << " units, " << freeBlocks << " free of " << bytesPerBlock;
    }
}

TEST(Lock, EveryWay) {
    const std::string locked = "Locked library of size ",
                      retry = "Lock attempt failed - retrying\n";
    const std::string changed = "File size changed between check and lock - retrying\n";
    const std::string stuck = "Attempt to unlock repository failed.\n";
    const std::string aborted = "Unable to lock source repository, system copy aborted.\n";
    // The requests: 47 locks and 48 unlocks, an offset and a length, each in halves.
    const std::tuple<std::vector<Answer>, std::vector<Fault>, std::string, std::string> rows[] = {
        // clang-format off
        {units(0U), {}, locked + "0:0 bytes.\n", "47 0 0 0 0 48 0 0 0 0 "},
        {units(0xfffffffU), {}, locked + "0:4294967280 bytes.\n", "47 0 0 0 4294967280 48 0 0 0 4294967280 "},
        {units(0x40000000U), {}, locked + "4:0 bytes.\n", "47 0 0 4 0 48 0 0 4 0 "},
        {units(0x40000001U), {}, "Repository greater than 16 GB.\n" + aborted, ""},
        {units(1U, 2U, 3U), {{47, 1, 33}, {47, 1, 33}}, retry + retry + locked + "0:48 bytes.\n",
         "47 0 0 0 16 47 0 0 0 32 47 0 0 0 48 48 0 0 0 48 "},
        {units(1U), {{47, 1, 5}}, "Failed getting lock.\nRepository file is locked by another process.\n" + aborted, "47 0 0 0 16 "},
        {{reply(0, be32(1)), reply(5)}, {}, "Failed checking repository EOF.\n" + aborted, "47 0 0 0 16 "},
        {units(1U, 2U), {}, changed + locked + "0:32 bytes.\n", "47 0 0 0 16 48 0 0 0 16 47 0 0 0 32 48 0 0 0 32 "},
        {units(1U, 2U), {{48, 1, 5}}, stuck + aborted, "47 0 0 0 16 48 0 0 0 16 "},
        {units(1U), {{48, 1, 5}}, locked + "0:16 bytes.\n" + stuck + "Error unlocking source repository.\n", "47 0 0 0 16 48 0 0 0 16 "},
        // clang-format on
    };
    for (const auto& [sizes, faults, output, requests] : rows) {
        CopyScene scene;
        scene.source.on(REQUEST_16GB_FILE_GET_EOF, sizes);
        scene.from.faults = faults;
        EXPECT_EQ(scene.copy({"-q", "-f", "true"}).out, output);
        EXPECT_EQ(sent(scene.source, {47, 48}, 4), requests) << output;
    }
}
