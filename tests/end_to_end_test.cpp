// kxadmin and the sandbox together, as an administrator has them.
#include "tests/expect.h"
#include "tests/sandbox.h"

#include <csignal>

/// The connection that has a.rep open. It need not be the first: a client of another test, which
/// retries at a port that has since become ours, may have been there before it.
static string numberOfCopy(unsigned port) {
    const string list = runKxadmin("list", port).out;
    const auto line = list.rfind('\n', list.find("a.rep")) + 1;
    return std::to_string(std::strtol(&list[line], nullptr, 10));
}

TEST(EndToEnd, ACopyThatIsEndedLeavesNoLock) {
    enum End { BY_ITSELF, BY_SIGNAL, BY_KILL };
    const struct {
        Name name;
        End end;
        int iSignal = 0;
    } rows[] = {{"to its end", BY_ITSELF},
                {"by ^C", BY_SIGNAL, SIGINT},
                {"by SIGKILL", BY_SIGNAL, SIGKILL},
                {"by the administrator", BY_KILL}};
    forEachRow(rows, [](const auto& row) {
        const Sandbox sandbox("-m8192 -a127.0.0.2"); // two servers to kxadmin, one directory
        sandbox.write("a.rep", "4321\6" + string(64 << 20, '.') + "end");
        TerminalRun copy(KXADMIN_PROGRAM,
                         {"copy", "-p", "secret", "127.0.0.1:a.rep", "127.0.0.2:b.rep"},
                         serverAt(sandbox.port));
        // Its progress, 70 KB, fills the terminal, of which nothing is read: it stops half way.
        ASSERT_TRUE(copy.waitFor("Locked library of size 0:67108880 bytes.")) << copy.output;
        const string number = numberOfCopy(sandbox.port);
        Peer peer(sandbox);
        peer.open("a.rep");
        for (const U32 offset : {0U, 16U << 20, (32U << 20) + 7})
            EXPECT_EQ(peer.ask(REQUEST_FILE_WRITE, be32(offset) + be32(1) + "x"), 33);
        int status = 0;
        if (row.end == BY_SIGNAL)
            kill(copy.process, row.iSignal);
        if (row.end == BY_KILL) // its lock is gone when the reply comes
            EXPECT_EQ(runKxadmin("stop -k" + number + " -p secret", sandbox.port).out,
                      "[banner]\nConnection " + number + " on host localhost killed.\n");
        else
            status = copy.finish();
        I32 result;
        do
            result = peer.lock(0, 1);
        while (result == 33 && row.end == BY_SIGNAL); // until the sandbox notices
        EXPECT_EQ(result, 0);
        if (row.end == BY_KILL)
            status = copy.finish();
        EXPECT_EQ(status, row.end == BY_SIGNAL ? 128 + row.iSignal : 0);
        const bool fCopied = row.end == BY_ITSELF;
        EXPECT_EQ(sandbox.read("b.rep") == sandbox.read("a.rep"), fCopied);
        const string copied = "\nRepository 127.0.0.1:a.rep copied to 127.0.0.2:b.rep.\n";
        EXPECT_EQ(copy.output.ends_with(copied), fCopied);
    });
}
