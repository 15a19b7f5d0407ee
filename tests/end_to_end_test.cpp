// kxadmin and the sandbox together, as an administrator has them.
#include "tests/run_program.h"
#include "tests/scratch.h"
#include "tests/scripted_server.h"

#include "client/kxclient.h"
#include "net/socket.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <regex>
#include <sys/stat.h>

using namespace std::string_literals;

namespace {

/// A sandbox that serves its directory at a port of its own, with the password "secret".
struct Sandbox : Scratch {
    explicit Sandbox(const Arguments& more = {"-P0", "-m16384"})
        : run(KXSANDBOX_PROGRAM, {"-d", directory, "-psecret", more[0], more[1]}, {}) {
        EXPECT_TRUE(run.waitFor("\n"));
        port = static_cast<U16>(std::stoul(run.output.substr(run.output.find("port ") + 5)));
    }

    /// A connection of this process.
    I32 connect() const {
        CONNECT_PARAMS record{};
        record.host = "127.0.0.1";
        EXPECT_EQ(managerConnectToPort(&record, port), 0);
        return record.s;
    }

    TerminalRun run;
    U16 port;
};

} // namespace

/// The ways: to its end, by two signals, and by the administrator.
TEST(EndToEnd, ACopyThatIsEndedLeavesNoLock) {
    for (const int iEnd : {0, SIGINT, SIGKILL, -1}) {
        SCOPED_TRACE(iEnd);
        const Sandbox source;
        source.write("a.rep", "4321\6" + std::string(32 << 20, '.') + "end");
        const Sandbox dest({"-A127.0.0.2", "-P" + std::to_string(source.port)});
        TerminalRun copy(KXADMIN_PROGRAM,
                         {"copy", "-p", "secret", "127.0.0.1:a.rep", "127.0.0.2:b.rep"},
                         serverAt(source.port));
        // Its progress fills the terminal, of which nothing is read: it stops half way.
        ASSERT_TRUE(copy.waitFor("Locked library of size 0:33554448 bytes."));
        const I32 s = source.connect();
        managerFileOpen("a.rep", 0x42, s);
        char c = 'x';
        for (const U32 offset : {0U, 16U << 20, (32U << 20) + 7}) {
            EXPECT_EQ(managerFileWrite(s, offset, &c, 1, 0), -33);
            EXPECT_EQ(managerFileRead(s, offset, &c, 1, 0), -33);
        }
        EXPECT_EQ(managerFile16GbLargeLock(s, 0, 9, 0, 1), -33);
        int status = 0;
        if (iEnd > 0)
            kill(copy.process, iEnd);
        if (iEnd < 0) // its lock is gone when the reply comes
            EXPECT_EQ(runKxadmin({"stop", "-k1", "-p", "secret"}, source.port).out,
                      banner + "Connection 1 on host localhost killed.\n");
        else
            status = copy.finish();
        I32 rc;
        do
            rc = managerFile16GbLargeLock(s, 0, 0, 0, 1);
        while (rc == -33 && iEnd > 0); // until the sandbox notices
        EXPECT_EQ(rc, 0);
        EXPECT_EQ(managerFileWrite(s, 9, ".", 1, 0), 1);
        managerDisconnect(s);
        EXPECT_EQ(iEnd < 0 ? copy.finish() : status, iEnd > 0 ? 128 + iEnd : 0);
        EXPECT_EQ(dest.read("b.rep") == source.read("a.rep"), iEnd == 0);
        const std::string copied = "\r\nRepository 127.0.0.1:a.rep copied to 127.0.0.2:b.rep.\r\n";
        EXPECT_EQ(copy.output.ends_with(copied), iEnd == 0);
    }
}

TEST(EndToEnd, ManyClientsLeaveNothingBehind) {
    Sandbox sandbox;
    const I32 s = sandbox.connect();
    const std::string open = "/proc/" + std::to_string(sandbox.run.process) + "/fd";
    const auto descriptors = [&] {
        using Iterator = std::filesystem::directory_iterator;
        return std::distance(Iterator(open), Iterator());
    };
    const auto before = descriptors();
    for (int i = 1; i <= 1000; ++i) {
        socketClose(socketConnectToHost("127.0.0.1", sandbox.port));
        if (i % 100 != 0)
            continue;
        managerDisconnect(sandbox.connect()); // which is accepted behind all of them
        while (descriptors() > before)        // until all have left
            usleep(1000);
    }
    EXPECT_EQ(descriptors(), before);
    EXPECT_EQ(managerVerifyPassword(s, "", 0, "wrong", 5), -202);
    EXPECT_EQ(managerKillConnection(s, 99), -202);
    EXPECT_EQ(managerVerifyPassword(s, "", 0, "secret", 6), 0);
    managerStopServer(s);
    EXPECT_EQ(sandbox.run.finish(), 0) << "leaks"; // as the leak sanitizer sees it
    managerAbandon(s);
}

TEST(EndToEnd, NothingOutsideTheDirectoryIsReached) {
    const Scratch outside;
    const Sandbox sandbox;
    outside.write("secret", "s");
    sandbox.write("a.rep", "a");
    mkdir(sandbox.path("sub").c_str(), 0700);
    mkfifo(sandbox.path("fifo").c_str(), 0600);
    const std::string secret = outside.path("secret"), up = ".." + secret.substr(4); // in /tmp both
    // clang-format off
    const std::pair<std::string, std::string> links[] = {
        {"sub/in", "../a.rep"}, {"out", secret}, {"sub/relative", "../" + up}, {"door", outside.directory}, {"loop", "loop"}};
    const std::pair<std::string, I32> rows[] = {
        {"a.rep", 0}, {"//sub/../a.rep", 0}, {"sub/in", 0}, {up, -13}, {"/" + up, -13}, {"sub/../" + up, -13}, {"out", -13},
        {"sub/relative", -13}, {"door/secret", -13}, {"door/new", -13}, {secret, -2}, {"/proc/self/root" + secret, -2},
        {"loop", -13}, {"sub", -13}, {"fifo", -13}, {"", -201}};
    // clang-format on
    for (const auto& [name, target] : links)
        std::filesystem::create_symlink(target, sandbox.path(name));
    const I32 s = sandbox.connect();
    for (const auto& [path, result] : rows) {
        EXPECT_EQ(std::min(managerFileOpen(path.c_str(), 0x42, s), 0), result) << path;
        managerFileClose(s);
        EXPECT_EQ(managerFileCreate(path.c_str(), s), result) << path;
    }
    // A link that leads now in and now out while it is opened.
    std::atomic<bool> fDone = false;
    std::thread swapper([&] {
        for (int i = 0; !fDone; ++i) {
            std::filesystem::create_symlink(i % 2 ? secret : "a.rep", sandbox.path("next"));
            std::filesystem::rename(sandbox.path("next"), sandbox.path("swapped"));
        }
    });
    for (int i = 0; i < 2000; ++i) {
        char c = '-';
        if (managerFileOpen("swapped", 0x42, s) >= 0) {
            managerFileRead(s, 0, &c, 1, 0);
            managerFileClose(s);
        }
        EXPECT_NE(c, 's');
    }
    fDone = true;
    swapper.join();
    managerDisconnect(s);
    EXPECT_EQ(outside.read("secret") + outside.read("new"), "s(none)");
}

TEST(EndToEnd, RubbishEndsItsConnectionAndNoOther) {
    const Sandbox sandbox;
    const I32 s = sandbox.connect(), silent = sandbox.connect();
    const std::string slow = requestBytes(REQUEST_GET_KXSRV_STATS); // all the while half sent
    socketSendBuffer(silent, slow.data(), 6);
    for (const std::string& rubbish :
         {"GET / HTTP/1.0\r\n\r\n"s, requestBytes(49), be32(3) + be32(0xffffffff) + be32(1),
          be32(3) + be32(0) + be32(65537), be32(1) + be32(0) + be32(9) + "cut", ""s}) {
        const I32 other = socketConnectToHost("127.0.0.1", sandbox.port);
        socketSendBuffer(other, rubbish.data(), static_cast<I32>(rubbish.size()));
        shutdown(other, SHUT_WR);
        char bytes[5];
        EXPECT_LE(socketReceiveBuffer(other, bytes, 5), 4); // the identifier, and the end
        socketClose(other);
    }
    EXPECT_EQ(managerFileCreate("a.rep", s), 0);
    managerDisconnect(s);
    char header[12];
    socketSendBuffer(silent, slow.data() + 6, 6);
    EXPECT_EQ(socketReceiveBuffer(silent, header, 12), 12);
    socketClose(silent);
}

TEST(EndToEnd, ASandboxRunsOneCommand) {
    const Scratch inTheWay;
    inTheWay.write("kxadmin", "may not be run");
    const Environment path{{"PATH", inTheWay.directory + ":" + std::getenv("PATH")}};
    // clang-format off
    const struct {
        Arguments arguments;
        int status;
        std::string line; // with its blanks run together
    } rows[] = {
        {{"-t2", "--", KXADMIN_PROGRAM, "stat"}, 0, "\nServer type 2 (unnamed) \n"},
        {{"--", "kxadmin", "list"}, 0, " 4 - \n"}, // found beside the sandbox
        {{"-p", "x", "-m", "4096", "--", KXADMIN_PROGRAM, "opts"}, 0, "\nAdministrator's password set \nServer type 0 (KXSRV) \nData limit 4096 \n"},
        {{"-p", "x", "--", "sh", "-c", KXADMIN_PROGRAM " opts -s3 -p x; " KXADMIN_PROGRAM " opts"}, 0, "\nLogging level 3 (Debug) \n"},
        {{"--", "sh", "-c", "exit 7"}, 7, ""}, {{"--", "sh", "-c", "kill -9 $$"}, 137, ""},
        {{"--", "/no/such"}, 127, "kxsandbox: cannot run /no/such: No such file or directory\n"},
        {{"-V"}, 0, "kxsandbox (sandbox 7.0)\n"},
        {{"-a", "10.0.0.1"}, 2, "kxsandbox: -a: '10.0.0.1' is not a loopback address; the sandbox listens below 127.0.0.0/8 only\n"},
        {{"-P", "12x"}, 2, "kxsandbox: -P: the port '12x' is not a number from 0 to 65535\nTry 'kxsandbox --help'\n"}};
    // clang-format on
    for (const auto& row : rows) {
        const Outcome outcome = runProgram(KXSANDBOX_PROGRAM, row.arguments, path);
        const std::string all =
            std::regex_replace(outcome.out + outcome.err, std::regex(" +|\r"), " ");
        EXPECT_EQ(outcome.status, row.status) << row.line;
        EXPECT_NE(all.find(row.line), all.npos) << all;
    }
}
