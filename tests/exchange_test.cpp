// The protocol client: what odd replies come to, its limits, and how reads and writes are split.
#include "net/socket.h"
#include "tests/expect.h"
#include "tests/requests.h"
#include "tests/scripted_server.h"

#include <cerrno>

using namespace std::string_literals;

namespace {

/// A server and a connection to it.
struct Session {
    Session() {
        record.host = "localhost";
        // The number wraps at 16 bits and ends at the first character that is no digit.
        setenv("KXSRV_CTRL_PORT", (" +" + std::to_string(server.port + 65536) + "x").c_str(), 1);
        EXPECT_EQ(managerConnect(&record), 0);
        s = record.s;
        ManagerDataLimit = 32768;
        std::memset(text, '.', sizeof text);
    }
    ~Session() {
        managerAbandon(s);
    }
    /// Makes the call of this request code, which is answered so.
    I32 call(U32 code, const Answer& answer) {
        server.on(code, {answer});
        const auto* p = requests;
        while (p->code != code)
            ++p;
        return p->call(s);
    }
    ScriptedServer server;
    CONNECT_PARAMS record{};
    I32 s = -1;
};

} // namespace

TEST(Exchange, TakesErrorsAndOddReplies) {
    const string full(32768, 'x');
    const Answer wrapping{be32(0) + be32(0x80000001) + be32(0x7FFFFFFF) + full, Answer::CLOSE};
    const struct {
        Name name;
        U32 code;
        Answer answer;
        I32 result;
        U32 error, systemError; // both are 77 before
        string errorText;
    } rows[] = {
        {"a system error", 20, reply(5, "refused\0x"s), -5, 0, 5, "refused"},
        {"a system error, long", 20, reply(5, full), -5, 0, 5, full.substr(1)},
        {"a protocol error", 20, reply(-202, full), -202, 202, 0, ""},
        {"the most data", 13, reply(0, full), 0, 77, 77, "-"},
        {"a size that is no number", 8, reply(0, "12345"), -249, 249, 0, "Success"},
        {"more than was asked for", 3, reply(0, full), -249, 249, 0, "Success"},
        {"lengths whose sum wraps", 24, wrapping, -241, 241, 0, "Success"},
        {"a type cut short", 28, reply(0, "123"), -1, 255, 0, "Success"},
    };
    forEachRow(rows, [&](const auto& row) {
        Session session;
        ManagerErrno = ManagerSysErrno = 77;
        storeText(ManagerErrorText, "-");
        errno = 0;
        EXPECT_EQ(session.call(row.code, row.answer), row.result);
        EXPECT_EQ(ManagerErrno, row.error);
        EXPECT_EQ(ManagerSysErrno, row.systemError);
        expectText(row.errorText, ManagerErrorText);
        if (row.code == REQUEST_GET_KXSRV_STATS)
            expectText(full, string(text, sizeof text));
    });
}

TEST(Exchange, KeepsToItsLimits) {
    Session session;
    const I32 s = session.s;
    const auto writeAt = [&](U32 u32Limit) { // where none is known yet
        ManagerDataLimit = 0;
        session.server.on(REQUEST_GET_MAX_DATA, {reply(0, be32(u32Limit))});
        return managerFileWrite(s, 0, text, 1, 0);
    };
    EXPECT_EQ(writeAt(0), -250);
    EXPECT_EQ(writeAt(65536), 1);
    EXPECT_EQ(ManagerDataLimit, 32768U);
    EXPECT_EQ(writeAt(4096), 1);
    session.server.on(REQUEST_GET_MAX_DATA, {reply(0, be32(8192))});
    EXPECT_EQ(managerGetMaxData(s), 4096) << "it only falls";
    session.server.on(REQUEST_FILE_OPEN, {reply(0)});
    const string n1023(1023, 'n'), n1024(1024, 'n');
    EXPECT_EQ(managerFileOpen(n1023.c_str(), 18, s), s);
    EXPECT_EQ(managerFileOpen(n1024.c_str(), 18, s), -255);
    EXPECT_EQ(managerFileGetVolSpace(s, (n1024 + "n").c_str(), &blocks, &blockSize), -255);
    session.server.on(REQUEST_FILE_GET_VOL_SPACE, {reply(0, be32(9) + be32(0))});
    testing::internal::CaptureStdout();
    const I32 rc = managerFileGetVolSpace(s, n1024.c_str(), &blocks, &blockSize);
    expectText("\nError: KXSRV returned 0 for the bytes per block.\n",
               testing::internal::GetCapturedStdout());
    EXPECT_EQ(rc, -1);
}

TEST(Exchange, SplitsReadsAndWrites) {
    const Answer ab = reply(0, "ab"), c = reply(0, "c");
    // clang-format off
    const struct {
        Name name;
        U32 limit;
        I32 (*call)(I32 s);
        I32 result;
        string requests;
        std::vector<Answer> answers = {reply(0)};
        string read = "........."; // by the call
    } rows[] = {
        {"a read", 2, [](I32 s) { return managerFileRead(s, 9, text, 3, 3); }, 3,
         "READ 9 2\nREAD 11 1\n", {ab, c}, "...abc..."},
        {"a read across 4 GB", 2, [](I32 s) { return manager16GbFileRead(s, 2, ~1U, text, 5, 3); },
         5, "READ 2 4294967294 2\nREAD 3 0 2\nREAD 3 2 1\n", {ab, ab, c}, "...ababc."},
        {"a limit of 1", 1, [](I32 s) { return manager16GbFileRead(s, 0, 7, text, 5, 0); },
         2, "READ 0 7 5\n", {ab}, "ab......."},
        {"a write", 2, [](I32 s) { return managerFileWrite(s, 7, "-abc", 3, 1); },
         3, "WRITE 7 2 ab\nWRITE 9 1 c\n"},
        {"a write across 4 GB", 2,
         [](I32 s) { return manager16GbFileWrite(s, 2, ~1U, "-abc", 3, 1); },
         3, "WRITE 2 4294967294 2 ab\nWRITE 3 0 1 c\n"},
    };
    // clang-format on
    forEachRow(rows, [](const auto& row) {
        Session session;
        ManagerDataLimit = row.limit;
        for (const U32 code : {3U, 4U, 36U, 39U})
            session.server.on(code, row.answers);
        EXPECT_EQ(row.call(session.s), row.result);
        expectText("ADDRESS\n" + row.requests, session.server.trace());
        EXPECT_EQ(string(text, 9), row.read);
    });
}
