// kxadmin and the sandbox together, as an administrator has them.
#include "tests/expect.h"
#include "tests/sandbox.h"

#include <csignal>

TEST(EndToEnd, ACopyThatIsEndedLeavesNoLock) {
    const struct {
        Name name;
        int iSignal;
        U32 size;
    } rows[] = {
        {"to its end", 0, 16 << 20},
        {"by ^C", SIGINT, 160 << 20},
        {"by SIGKILL", SIGKILL, 160 << 20},
    };
    forEachRow(rows, [](const auto& row) {
        const Sandbox sandbox("-m8192 -a127.0.0.2"); // two servers to kxadmin, one directory
        sandbox.write("a.rep", "4321\6");
        std::filesystem::resize_file(sandbox.path("a.rep"), row.size);
        TerminalRun copy(KXADMIN_PROGRAM,
                         {"copy", "-p", "secret", "127.0.0.1:a.rep", "127.0.0.2:b.rep"},
                         serverAt(sandbox.port));
        const string locked = "Locked library of size 0:" + std::to_string(row.size) + " bytes.";
        ASSERT_TRUE(copy.waitFor(locked)) << copy.output;
        Peer peer(sandbox);
        peer.open("a.rep");
        if (row.iSignal != 0) {
            // Of 180 KB of progress nothing is read: they do not fit the terminal, and it waits.
            for (const U32 offset : {0U, 16U << 20, (32U << 20) + 7})
                EXPECT_EQ(peer.ask(REQUEST_FILE_WRITE, be32(offset) + be32(1) + "x"), 33);
            kill(copy.process, row.iSignal);
        }
        EXPECT_EQ(copy.finish(), row.iSignal == 0 ? 0 : 128 + row.iSignal);
        eventually([&] { return peer.lock(0, 1) == 0; }, "a library without the copy's lock");
        const bool fCopied = row.iSignal == 0;
        EXPECT_EQ(sandbox.read("b.rep") == sandbox.read("a.rep"), fCopied);
        const string copied = "\nRepository 127.0.0.1:a.rep copied to 127.0.0.2:b.rep.\n";
        EXPECT_EQ(copy.output.ends_with(copied), fCopied);
    });
}
