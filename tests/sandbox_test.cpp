// The sandbox's guards: what it refuses, and what it leaves alone. It is asked by bare messages.
#include "tests/sandbox.h"

#include "sandbox/files.h"
#include "sandbox/reports.h"
#include "sandbox/requests.h"
#include "tests/expect.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/fsuid.h>
#include <sys/stat.h>

using std::chrono::system_clock;
using namespace std::string_literals;

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
        {"a 16 GB read of the most", 36, zero + zero + most, 0},
        {"a 16 GB read of more", 36, zero + zero + beyond, -204},
        {"a write of the most", 4, zero + most + x32768, 0},
        {"a write of more", 4, zero + beyond + x32768 + "x"},
        {"a 16 GB write of the most", 39, zero + zero + most + x32768, 0},
        {"a 16 GB write of nothing", 39, zero + zero + zero, 0},
        {"a write of less than it has", 4, zero + be32(1) + "xx"},
        {"an open of a long name", 1, be32(66) + x1023, -206}, // a file is open already
        {"an open of a longer name", 1, be32(66) + x1023 + "x"},
        {"a create without a name", 7, zero},
        {"space at a long name", 26, "x" + x1023 + '\0', 0},
        {"space in a directory that there is not", 26, "none/x\0"s, 2},
        {"space at a longer name", 26, "xx" + x1023 + '\0'},
        {"a long user and password", 11, x50 + '\0' + x30 + '\0', -202},
        {"a longer password", 11, '\0' + x30 + "x\0"s},
        {"a password without its NUL", 11, "\0pw"s},
    };
    // clang-format on
    const Sandbox sandbox;
    sandbox.write("a.rep", string(40000, 'a'));
    forEachRow(rows, [&](const auto& row) {
        Peer peer(sandbox);
        EXPECT_EQ(peer.open("a.rep"), 0);
        EXPECT_EQ(peer.ask(row.code, row.parameters), row.result);
        if (row.result == 0 && (row.code == 3 || row.code == 36)) {
            EXPECT_EQ(peer.data.size(), 32768U);
        }
        EXPECT_EQ(peer.ask(REQUEST_GET_MAX_DATA), 0) << "the connection is of no more use";
    });
    const std::pair<std::size_t, std::vector<U32>> sizes[] = {
        {0, {2, 8, 9, 10, 12, 13, 14, 17, 24, 25, 28, 32}},
        {4, {15, 16, 20, 21}},
        {8, {3}},
        {12, {36}},
        {16, {47, 48}},
    };
    Peer peer(sandbox);
    for (const auto& [size, codes] : sizes)
        for (const U32 code : codes) {
            SCOPED_TRACE("request " + std::to_string(code));
            EXPECT_EQ(peer.ask(code, string(size + 1, 'x')), -201);
            EXPECT_EQ(size == 0 ? -201 : peer.ask(code, string(size - 1, 'x')), -201);
        }
}

TEST(Sandbox, TellsOfALargeFileWithALongName) {
    const Sandbox sandbox;
    const string name = "a.repository.of.many.bytes";
    sandbox.write(name, "");
    std::filesystem::resize_file(sandbox.path(name), (5ULL << 30) + 1);
    Peer peer(sandbox);
    EXPECT_EQ(peer.open(name), 0);
    EXPECT_EQ(peer.ask(REQUEST_FILE_GET_EOF), EFBIG);
    EXPECT_EQ(peer.ask(REQUEST_16GB_FILE_GET_EOF), 0);
    EXPECT_EQ(hex(peer.data), "14000001");
    EXPECT_EQ(peer.ask(REQUEST_GET_CONNECTION_LIST), 1);
    EXPECT_EQ(peer.data.substr(peer.data.find("...")), "...itory.of.many.bytes\n");
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
        {"a code that is none", requestBytes(49)},
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
        EXPECT_EQ(fRight ? -202 : peer.ask(REQUEST_STOP_SERVER), -202);
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
        for (U32 access = 0; access < 3; ++access) {
            SCOPED_TRACE(string("the other opens it ") + accesses[access]);
            const U32 mode = row.sharing << 4, other = 4U << 4 | access;
            for (const auto& [first, second] : {std::pair(mode, other), {other, mode}}) {
                Peer opener(sandbox), next(sandbox);
                EXPECT_EQ(opener.open("a.rep", first), 0);
                EXPECT_EQ(next.open("a.rep", second), row.allowed[access] ? 0 : 5);
            }
        }
    });
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
    for (const I32 result : {0, EINVAL}) // released, and gone
        EXPECT_EQ(owner.ask(REQUEST_16GB_LARGE_UNLOCK, be32(0) + be32(100) + be32(0) + be32(10)),
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
    I32 open(U32 mode) {
        return openFile(server, connection, "a.rep", mode).iResult;
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
    std::atomic<bool> fAnswered = false;
    std::thread thread([&] {
        request();
        fAnswered = true;
    });
    for (bool fBegun = false; !fBegun; usleep(20000)) {
        const std::lock_guard guard(server.mutex);
        fBegun = hasBegun();
    }
    EXPECT_FALSE(fAnswered);
    {
        const std::lock_guard guard(server.mutex);
        letGoOn();
        server.left.notify_all();
    }
    thread.join();
}

TEST(Sandbox, GrantsALockWhenTheTransfersThatBeganBeforeHaveEnded) {
    Files files;
    ASSERT_EQ(files.open(0x42), 0);
    OpenFile& file = *files.connection.file;
    std::shared_lock transferring(file.pShared->transfers);
    const auto lock = [&] { lockRange(files.server, file, {0, 1}); };
    const auto isLocked = [&] { return !file.locks.empty(); };
    expectToWait(files.server, lock, isLocked, [&] { transferring.unlock(); });
}

TEST(Sandbox, AnswersAKillWhenTheOtherHasLeft) {
    Files files;
    files.connection.fProved = true;
    auto& connections = files.server.connections;
    const Connection& other = *(connections[1] = std::make_unique<Connection>());
    const string number = be32(1);
    Exchange x{files.server,
               files.connection,
               REQUEST_KILL_CONNECTION,
               reinterpret_cast<const U8*>(number.data()),
               4,
               files.connection.buffers->reply};
    const auto kill = [&] { EXPECT_EQ(carryOut(x), 0); };
    const auto isKilled = [&] { return other.fKilled; };
    expectToWait(files.server, kill, isKilled, [&] { connections.clear(); });
}

TEST(Sandbox, OpensForReadingWhatMayOnlyBeRead) {
    Files files;
    chmod(files.path("a.rep").c_str(), 0444);
    setfsuid(geteuid() == 0 ? 65534 : geteuid()); // root may write all
    const I32 toWrite = files.open(0x41), toDoBoth = files.open(0x42);
    setfsuid(geteuid());
    EXPECT_EQ(toWrite, EACCES);
    ASSERT_EQ(toDoBoth, 0);
    U8 byte = 'b';
    EXPECT_EQ(writeFile(files.server, *files.connection.file, 0, &byte, 1).iResult, EBADF);
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
    EXPECT_EQ(outside.read("secret") + outside.read("new"), "s(none)");
}

TEST(Sandbox, TellsAnAge) {
    using namespace std::chrono;
    EXPECT_EQ(ageText(seconds(59)), "0:00:59");
    EXPECT_EQ(ageText(minutes(60) - milliseconds(1)), "0:59:59");
    EXPECT_EQ(ageText(hours(100) + minutes(1)), "100:01:00");
}

TEST(Sandbox, KeepsNothingOfClientsThatHaveLeft) {
    Sandbox sandbox;
    Peer peer(sandbox);
    const auto descriptors = [&] {
        using Iterator = std::filesystem::directory_iterator;
        return std::distance(Iterator("/proc/" + std::to_string(sandbox.run.process) + "/fd"), {});
    };
    const auto before = descriptors();
    for (int i = 0; i < 300; ++i) {
        socketClose(socketConnectToHost("127.0.0.1", sandbox.port)); // not even greeted
        ASSERT_EQ(i % 30 == 0 ? Peer(sandbox).ask(REQUEST_GET_MAX_DATA) : 0, 0);
    }
    while (descriptors() > before)
        usleep(1000);
    EXPECT_EQ(peer.prove(), 0);
    EXPECT_EQ(peer.ask(REQUEST_STOP_SERVER), 0);
    EXPECT_EQ(sandbox.run.finish(), 0) << "leaks"; // as the leak sanitizer sees it
}

TEST(Sandbox, LogsWhatItsLevelAsksFor) {
    const auto secondOfDay = [] { // five hours east, as the sandbox is told
        return (system_clock::to_time_t(system_clock::now()) + 5 * 3600) % 86400;
    };
    const auto begin = secondOfDay();
    Sandbox sandbox("", "TZ=EAST-5 exec kxsandbox -P0 -psecret");
    Peer peer(sandbox);
    for (const U32 level : {2U, 3U, 1U, 0U}) {
        peer.prove("wrong");
        peer.prove();
        peer.ask(REQUEST_SET_LOG_LEVEL, be32(level));
    }
    kill(sandbox.run.process, SIGTERM);
    sandbox.run.finish();
    const auto end = secondOfDay();
    string log; // without the line that it is ready, and the times
    std::istringstream lines(sandbox.run.output.substr(sandbox.run.output.find('\n') + 1));
    for (string line; std::getline(lines, line);) {
        const auto at = line.find(' ');
        int hour = 0, minute = 0, second = 0;
        std::sscanf(line.c_str(), "%2d:%2d:%2d.", &hour, &minute, &second);
        const auto time = (hour * 60 + minute) * 60 + second;
        EXPECT_LE((time - begin + 86400) % 86400, (end - begin + 86400) % 86400) << line;
        log += line.substr(at + 1) + '\n';
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
