// The sandbox's guards: what it refuses, and what it leaves alone. It is asked by bare messages.
#include "tests/sandbox.h"

#include "sandbox/files.h"
#include "sandbox/reports.h"
#include "sandbox/requests.h"
#include "tests/expect.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <future>
#include <sys/fsuid.h>
#include <sys/stat.h>

using namespace std::literals;

TEST(Sandbox, KeepsEveryRequestWithinItsBounds) {
    const string zero = be32(0), most = be32(32768), beyond = be32(32769);
    const string x1023(1023, 'x'), x50(50, 'x'), x30(30, 'x'), x32768(32768, 'x');
    // clang-format off
    const struct {
        Name name;
        U32 code;
        string parameters;
        I32 result = -201;
    } rows[] = {
        {"a read of the most", 3, zero + most, 0},
        {"a read of more", 3, zero + beyond, -204},
        {"a write of the most", 4, zero + most + x32768, 0},
        {"a 16 GB write of nothing", 39, zero + zero + zero, 0},
        {"a write of less than it has", 4, zero + be32(1) + "xx"},
        {"space at a long name", 26, "x" + x1023 + '\0', 0},
        {"space at a short name", 26, "x\0"s, 0},
        {"space in a directory that there is not", 26, "none/x\0"s, 2},
        {"space at a longer name", 26, "xx" + x1023 + '\0'},
        {"a long user and password", 11, x50 + '\0' + x30 + '\0', -202},
        {"a longer user", 11, x50 + "x\0\0"s},
        {"a longer password", 11, '\0' + x30 + "x\0"s},
        {"a password without its NUL", 11, "\0pw"s},
        {"neither ends in a NUL", 11, "pw"},
    };
    // clang-format on
    const Sandbox sandbox;
    sandbox.write("a.rep", string(40000, 'a'));
    forEachRow(rows, [&](const auto& row) {
        Peer peer(sandbox);
        EXPECT_EQ(peer.open("a.rep"), 0);
        EXPECT_EQ(peer.ask(row.code, row.parameters), row.result);
        if (row.result == 0 && row.code == 3) {
            EXPECT_EQ(peer.data.size(), 32768U);
        }
        EXPECT_EQ(peer.ask(REQUEST_GET_MAX_DATA), 0) << "the connection is of no more use";
    });
    const struct {
        std::size_t least, limit; // parameter bytes
        std::vector<U32> codes;
        I32 refusal = 0; // without the file that they need, or with the one that they would open
    } sizes[] = {
        {0, 0, {9, 10, 12, 13, 14, 17, 24, 25, 28}},
        {0, 0, {2, 8, 32}, -205},
        {2, 82, {11}},
        {2, 1025, {26}},
        {4, 4, {15, 16, 20, 21}},
        {5, 1027, {1, 7}, -206},
        {8, 8, {3}, -205},
        {8, 32776, {4}, -205},
        {12, 12, {36}, -205},
        {12, 32780, {39}, -205},
        {16, 16, {47, 48}, -205},
    };
    Peer opener(sandbox), other(sandbox);
    opener.open("a.rep");
    for (const auto& [least, limit, codes, refusal] : sizes)
        for (const U32 code : codes) {
            SCOPED_TRACE("request " + std::to_string(code));
            Peer& peer = refusal == -206 ? opener : other;
            EXPECT_EQ(peer.ask(code, string(limit + 1, '\0')), -201);
            if (least > 0) {
                EXPECT_EQ(peer.ask(code, string(least - 1, '\0')), -201);
            }
            if (refusal != 0) {
                EXPECT_EQ(peer.ask(code, string(limit, '\0')), refusal);
            }
        }
}

TEST(Sandbox, TellsOfALargeFileWithALongName) {
    const Sandbox sandbox;
    const string name = "a.repository.of\x1bmany.bytes"; // not for a terminal
    sandbox.write(name, "");
    std::filesystem::resize_file(sandbox.path(name), (5ULL << 30) + 1);
    Peer peer(sandbox);
    EXPECT_EQ(peer.open(name), 0);
    EXPECT_EQ(peer.ask(REQUEST_FILE_GET_EOF), EFBIG);
    EXPECT_EQ(peer.ask(REQUEST_16GB_FILE_GET_EOF), 0);
    EXPECT_EQ(hex(peer.data), "14000001");
    EXPECT_EQ(peer.ask(REQUEST_GET_CONNECTION_LIST), 1);
    EXPECT_TRUE(peer.data.ends_with(" ...itory.of?many.bytes\n")) << peer.data;
}

TEST(Sandbox, EndsAConnectionThatItCannotUnderstand) {
    const string full(65536, 'x');
    const struct {
        Name name;
        string bytes;
        I32 result = Peer::ENDED;
    } rows[] = {
        {"as many pad bytes as fit", be32(13) + be32(65536) + be32(0) + full, 0},
        {"one more", be32(13) + be32(65537) + be32(0) + full + "x"},
        {"lengths whose sum wraps", be32(3) + be32(~0U) + be32(1)},
        {"a code that is none", requestBytes(CODE_LIMIT)},
        {"half of the parameters", be32(1) + be32(0) + be32(9) + "cut"},
    };
    const Sandbox sandbox;
    Peer other(sandbox);
    forEachRow(rows, [&](const auto& row) {
        Peer peer(sandbox);
        peer.send(row.bytes);
        shutdown(peer.s, SHUT_WR);
        EXPECT_EQ(peer.takeReply(), row.result);
        EXPECT_EQ(other.ask(13), 0);
    });
}

TEST(Sandbox, TakesThePasswordForWhatAnAdministratorDoes) {
    const Sandbox sandbox;
    Peer peer(sandbox);
    for (const char* const pszPassword : {"", "Secret", "secre", "secret", "secrets"}) {
        SCOPED_TRACE("the password " + string(pszPassword));
        const bool fRight = pszPassword == "secret"s;
        EXPECT_EQ(peer.prove(pszPassword), fRight ? 0 : -202);
        EXPECT_EQ(peer.ask(REQUEST_KILL_CONNECTION, be32(99)), fRight ? -203 : -202);
        EXPECT_EQ(peer.ask(REQUEST_SET_LOG_LEVEL, be32(4)), fRight ? -204 : -202);
        if (!fRight) {
            EXPECT_EQ(peer.ask(REQUEST_STOP_SERVER), -202);
        }
    }
    EXPECT_EQ(Peer(sandbox).ask(REQUEST_STOP_SERVER), -202) << "without any";
}

TEST(Sandbox, SharesAFileAsItsOpenersAllow) {
    const char* const accesses[] = {"to read", "to write", "to read and write"};
    const struct {
        Name name;
        U32 sharing;
        bool allowed[3]; // the others, to read, to write, both
    } rows[] = {
        {"shared by default", 0, {true, true, true}},
        {"exclusive", 1, {false, false, false}},
        {"without other writers", 2, {true, false, false}},
        {"without other readers", 3, {false, true, false}},
        {"shared", 4, {true, true, true}},
    };
    const Sandbox sandbox;
    sandbox.write("a.rep", "a");
    forEachRow(rows, [&](const auto& row) {
        for (U32 access = 0; access < 3; ++access)
            for (const bool fFirst : {false, true}) {
                SCOPED_TRACE("the other opens it "s + accesses[access] + (fFirst ? ", first" : ""));
                const U32 mode = row.sharing << 4, other = 4U << 4 | access;
                Peer opener(sandbox), next(sandbox);
                EXPECT_EQ(opener.open("a.rep", fFirst ? other : mode), 0);
                EXPECT_EQ(next.open("a.rep", fFirst ? mode : other), row.allowed[access] ? 0 : 5);
            }
    });
    Peer reader(sandbox);
    reader.open("a.rep", 0x40);
    EXPECT_EQ(Peer(sandbox).ask(REQUEST_FILE_CREATE, be32(0) + "a.rep"), 5) << "beside a reader";
    for (const U32 mode : {0x43U, 0x48U, 0x50U, 0x82U, 0x142U})
        EXPECT_EQ(Peer(sandbox).open("a.rep", mode), -201) << "mode " << mode;
}

TEST(Sandbox, LocksAgainstReadsWritesAndLocks) {
    const struct {
        Name name;
        U32 offset, length;
        I32 result;
    } rows[] = {
        {"up to it", 90, 10, 0},       {"into it", 90, 11, 33},  {"around it", 0, 200, 33},
        {"its last byte", 109, 1, 33}, {"behind it", 110, 1, 0}, {"nothing in it", 105, 0, 0},
    };
    const Sandbox sandbox;
    sandbox.write("a.rep", string(200, 'a'));
    Peer owner(sandbox);
    owner.open("a.rep");
    EXPECT_EQ(owner.lock(100, 10), 0);
    forEachRow(rows, [&](const auto& row) {
        Peer peer(sandbox);
        peer.open("a.rep");
        const string range = be32(row.offset) + be32(row.length);
        EXPECT_EQ(peer.ask(REQUEST_FILE_READ, range), row.result);
        EXPECT_EQ(peer.ask(REQUEST_FILE_WRITE, range + string(row.length, 'b')), row.result);
        EXPECT_EQ(peer.lock(row.offset, row.length), row.result);
        EXPECT_EQ(owner.ask(REQUEST_FILE_READ, be32(100) + be32(10)), 0);
    });
    Peer killer(sandbox);
    killer.open("a.rep");
    killer.prove();
    EXPECT_EQ(killer.ask(REQUEST_KILL_CONNECTION, owner.greeting), 0);
    EXPECT_EQ(killer.lock(100, 10), 0) << "its owner is killed";
    for (const I32 result : {0, EINVAL}) // released, and gone
        EXPECT_EQ(killer.ask(REQUEST_16GB_LARGE_UNLOCK, be32(0) + be32(100) + be32(0) + be32(10)),
                  result);
}

TEST(Sandbox, LimitsLocksAndConnections) {
    const Sandbox sandbox("-c2");
    sandbox.write("a.rep", "a");
    Peer first(sandbox);
    first.open("a.rep");
    for (U32 i = 0; i < 4096; ++i)
        ASSERT_EQ(first.lock(i, 1), 0);
    EXPECT_EQ(first.lock(0, 1), ENOLCK);
    EXPECT_EQ(first.ask(REQUEST_GET_LOCK_LIST, be32(1)), 0);
    EXPECT_TRUE(first.data.ends_with(" more)\n")) << "a list of more than a reply holds";
    {
        Peer second(sandbox), third(sandbox);
        EXPECT_EQ(hex(second.greeting), "00000002");
        EXPECT_EQ(hex(third.greeting), "00000000");
        EXPECT_EQ(third.receive(1), "");
    }
    EXPECT_EQ(hex(Peer(sandbox).greeting), "00000002");
}

namespace {

/// The sandbox's files in this process, with "a.rep" among them.
struct Files : Scratch {
    Files() {
        write("a.rep", "a");
        chmod(directory.c_str(), 0755);
        server.directory = Descriptor(::open(directory.c_str(), O_PATH | O_DIRECTORY));
    }
    I32 ask(U32 code, const string& parameters) {
        const auto* const pb = reinterpret_cast<const U8*>(parameters.data());
        const U32 length = static_cast<U32>(parameters.size());
        Exchange x{server, connection, code, pb, length, connection.buffers->reply};
        return carryOut(x);
    }
    I32 open(U32 mode) {
        return ask(REQUEST_FILE_OPEN, be32(mode) + "a.rep");
    }
    Options options;
    Server server{options};
    Connection connection;
};

} // namespace

/// Expects `request`, once it `hasBegun`, to wait until it is let go on.
template<class Request, class HasBegun, class LetGoOn>
static void expectToWait(Server& server, const Request& request, const HasBegun& hasBegun,
                         const LetGoOn& letGoOn) {
    const auto answer = std::async(std::launch::async, request);
    const auto isWaiting = [&] {
        const std::lock_guard guard(server.mutex);
        return hasBegun();
    };
    eventually(isWaiting, "a request that waits");
    EXPECT_EQ(answer.wait_for(20ms), std::future_status::timeout) << "it has not waited";
    {
        const std::lock_guard guard(server.mutex);
        letGoOn();
        server.left.notify_all();
    }
    if (answer.wait_for(1min) != std::future_status::ready) {
        ADD_FAILURE() << "it still waits";
        std::abort(); // its thread cannot be joined
    }
}

TEST(Sandbox, GrantsALockWhenTheTransfersThatBeganBeforeHaveEnded) {
    Files files;
    ASSERT_EQ(files.open(0x42), 0);
    OpenFile& file = *files.connection.file;
    std::shared_mutex& transfers = file.pShared->transfers;
    const auto isHeld = [&] { return !std::unique_lock(transfers, std::try_to_lock); };
    for (const string data : {"", "b"}) {             // read, written
        std::unique_lock looking(files.server.mutex); // for locks, before which the transfer begins
        const auto transfer = std::async(
            std::launch::async, [&] { files.ask(data.empty() ? 3 : 4, be32(0) + be32(1) + data); });
        eventually(isHeld, data.empty() ? "a read that has begun" : "a write that has begun");
        looking.unlock();
    }
    std::shared_lock transferring(transfers);
    const auto lock = [&] { lockRange(files.server, file, {0, 1}); };
    const auto isLocked = [&] { return !file.locks.empty(); };
    expectToWait(files.server, lock, isLocked, [&] { transferring.unlock(); });
}

TEST(Sandbox, AnswersAKillWhenTheOtherHasLeft) {
    for (const bool fMutual : {false, true}) {
        Files files;
        files.connection.fProved = true;
        auto& connections = files.server.connections;
        connections[1] = std::make_unique<Connection>();
        const auto kill = [&] { EXPECT_EQ(files.ask(REQUEST_KILL_CONNECTION, be32(1)), 0); };
        const auto isKilled = [&] { return connections[1]->fKilled; };
        expectToWait(files.server, kill, isKilled, [&] {
            if (fMutual) {
                files.connection.fKilled = true;
            } else { // and somebody else has its number
                connections[1] = std::make_unique<Connection>();
                connections[1]->u64Serial = 1;
            }
        });
    }
}

TEST(Sandbox, OpensForReadingWhatMayOnlyBeRead) {
    Files files;
    chmod(files.path("a.rep").c_str(), 0444);
    if (geteuid() == 0)
        setfsuid(65534);
    if (setfsuid(~0U) == 0) // which tells who we are
        GTEST_SKIP() << "root may write all, and can be nobody else here";
    const I32 toCreate = files.ask(REQUEST_FILE_CREATE, be32(0) + "a.rep");
    const I32 toWrite = files.open(0x41), toDoBoth = files.open(0x42);
    setfsuid(geteuid());
    EXPECT_EQ(toCreate, EACCES);
    EXPECT_EQ(toWrite, EACCES);
    ASSERT_EQ(toDoBoth, 0);
    EXPECT_EQ(files.ask(REQUEST_FILE_WRITE, be32(0) + be32(1) + "b"), EBADF);
}

TEST(Sandbox, ReachesNothingOutsideItsDirectory) {
    const Scratch outside;
    const Sandbox sandbox;
    sandbox.write("a.rep", "a");
    mkdir(sandbox.path("sub").c_str(), 0700);
    mkfifo(sandbox.path("fifo").c_str(), 0600);
    outside.write("secret", "s");
    const string secret = outside.path("secret"), up = ".." + secret.substr(4); // in /tmp both
    for (const auto& [link, target] : {std::pair("sub/in"s, "../a.rep"s),
                                       {"out", secret},
                                       {"sub/relative", "../" + up},
                                       {"door", outside.directory},
                                       {"loop", "loop"}})
        std::filesystem::create_symlink(target, sandbox.path(link));
    const std::pair<I32, std::vector<string>> rows[] = {
        {0, {"a.rep", "//sub/../a.rep", "sub/in"}},
        {13, {up, "/" + up, "sub/../" + up, "out", "sub/relative", "door/secret", "door/new"}},
        {13, {"loop", "sub", "fifo"}},
        {2, {secret, "/proc/self/root" + secret}},
        {-201, {"a.rep\0x"s}},
    };
    Peer peer(sandbox);
    for (const auto& [result, names] : rows)
        for (const string& name : names) {
            SCOPED_TRACE("the name " + name);
            EXPECT_EQ(peer.open(name), result);
            peer.ask(REQUEST_FILE_CLOSE);
            EXPECT_EQ(peer.ask(REQUEST_FILE_CREATE, be32(0) + name), result);
            peer.ask(REQUEST_FILE_CLOSE);
        }
    EXPECT_EQ(peer.open("fifo", 0x40), 13) << "to read what nobody writes";
    EXPECT_EQ(outside.read("secret") + outside.read("new"), "s(none)");
    EXPECT_EQ(sandbox.read("a.rep"), "") << "which has been created anew";
}

TEST(Sandbox, TellsAnAge) {
    EXPECT_EQ(ageText(60min - 1ms), "0:59:59");
    EXPECT_EQ(ageText(100h + 1min), "100:01:00");
}

TEST(Sandbox, KeepsNothingOfClientsThatHaveLeft) {
    Sandbox sandbox;
    Peer peer(sandbox);
    const auto descriptors = [&] {
        using Iterator = std::filesystem::directory_iterator;
        std::error_code error; // when it has ended
        const string directory = "/proc/" + std::to_string(sandbox.run.process) + "/fd";
        return std::distance(Iterator(directory, error), {});
    };
    const auto before = descriptors();
    for (int i = 0; i < 90; ++i) {
        socketClose(socketConnectToHost("127.0.0.1", sandbox.port)); // not even greeted
        ASSERT_EQ(Peer(sandbox).ask(REQUEST_GET_MAX_DATA), 0);
    }
    eventually([&] { return descriptors() <= before; }, "no more descriptors than before");
    EXPECT_EQ(peer.prove(), 0);
    EXPECT_EQ(peer.ask(REQUEST_STOP_SERVER), 0);
    EXPECT_EQ(sandbox.run.finish(), 0) << "leaks"; // as the leak sanitizer sees it
}

TEST(Sandbox, LogsWhatItsLevelAsksFor) {
    // Where it is noon now, in hours and minutes to the west.
    const auto west = (time(nullptr) / 60 + 12 * 60) % (24 * 60);
    const string zone = std::to_string(west / 60) + ":" + std::to_string(west % 60);
    Sandbox sandbox("", "TZ=ANY" + zone + " exec kxsandbox -P0 -psecret");
    Peer peer(sandbox);
    for (const U32 level : {2U, 3U, 1U, 0U}) {
        peer.prove("wrong");
        peer.prove();
        peer.ask(REQUEST_SET_LOG_LEVEL, be32(level));
    }
    kill(sandbox.run.process, SIGTERM);
    sandbox.run.finish();
    string log; // without the line that it is ready, and the times
    std::istringstream lines(sandbox.run.output.substr(sandbox.run.output.find('\n') + 1));
    for (string line; std::getline(lines, line);) {
        EXPECT_TRUE(line.starts_with("12:0")) << line;
        log += line.substr(line.find(' ') + 1) + '\n';
    }
    const string wrong = "Warning: connection 1 gave a wrong password\n";
    const string set = "Information: connection 1 set the logging level to ";
    const string debug = "Debug: connection 1: ", none = ", 0 bytes\n";
    const string verify = debug + "verify password, ";
    expectText(wrong + set + "Debug\n" + debug + "set logging level, 4 parameter bytes: result 0" +
                   none + wrong + verify + "7 parameter bytes: result -202" + none + verify +
                   "8 parameter bytes: result 0" + none + wrong + set +
                   "Information\nInformation: stopped by signal 15\n"
                   "Information: connection 1 ends\n",
               log);
}
