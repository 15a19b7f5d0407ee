// The protocol client: the bytes of every request, what every broken reply and every odd one comes
// to, how reads and writes are split.
#include "fuzz/requests.h"
#include "net/socket.h"
#include "tests/scripted_server.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <unistd.h>

using namespace std::string_literals;

namespace {

/// What came, and what was to come: a row makes its call as it is filled, one after the other.
using Row = std::pair<std::string, std::string>;

U8* const bytes = reinterpret_cast<U8*>(text);

/// A server and a connection to it.
struct Connection {
    explicit Connection(const Answer& greeting = {be32(0xFFFFFFFF)}, I32 result = 0) {
        server.greetings[0] = greeting;
        record.host = "localhost";
        // The number wraps at 16 bits and ends at the first character that is no digit.
        setenv("KXSRV_CTRL_PORT", (" +" + std::to_string(server.port + 65536) + "x").c_str(), 1);
        EXPECT_EQ(managerConnect(&record), result);
        ManagerDataLimit = 32768;
    }
    ~Connection() {
        managerAbandon(record.s);
    }
    /// The connection, when the next requests of `code` are to get these answers.
    I32 expecting(U32 code, std::vector<Answer> answers) {
        server.on(code, std::move(answers));
        std::memset(text, '.', sizeof text);
        ManagerErrno = ManagerSysErrno = 77;
        storeText(ManagerErrorText, "-");
        errno = 0;
        return record.s;
    }
    /// The result, then the requests since the last call by their codes and parameters.
    std::string sent(I32 result) {
        std::string line = std::to_string(result);
        for (const auto all = server.requests(); seen < all.size(); ++seen) {
            const U32 code = getNumber(all[seen].data());
            const std::string parameters = all[seen].substr(12);
            EXPECT_EQ(all[seen], requestBytes(code, parameters));
            line += "; " + std::to_string(code) + " " + hex(parameters);
        }
        return line;
    }
    ScriptedServer server;
    CONNECT_PARAMS record{};
    std::size_t seen = 0;
};

} // namespace

TEST(Exchange, TakesTheGreeting) {
    for (const auto& [greeting, result] : {std::pair(Answer{be32(0)}, -247),
                                           {{be32(1).substr(0, 3), Answer::CLOSE}, -244},
                                           {{be32(1), Answer::CLOSE}, -244}})
        EXPECT_EQ(managerFileClose(Connection(greeting, result).record.s), -243);
}

TEST(Exchange, SendsItsBytes) {
    Connection scene;
    for (const auto& [code, reply0] : {std::pair(8U, "1234"), {32U, "1234"}, {26U, "12345678"}})
        scene.server.on(code, {reply(0, reply0)});
    EXPECT_EQ(scene.sent(0), "0; 12 ");
    for (const auto& [call, sent] : requests)
        EXPECT_EQ(scene.sent(call(scene.record.s)), sent);
}

/// The request for statistics fails with `code` and the connection is closed once and for all: its
/// number may belong to something else by then.
static void expectLost(I32 s, I32 code) {
    EXPECT_EQ(managerGetKXSRVStats(s, text), code);
    EXPECT_EQ(text[0], '.');
    ASSERT_EQ(fcntl(0, F_DUPFD, s), s) << "still open";
    EXPECT_EQ(managerDisconnect(s), -243);
    EXPECT_EQ(close(s), 0) << "closed twice";
}

TEST(Exchange, LosesTheConnectionOfABrokenReply) {
    std::vector<std::pair<Answer, I32>> rows;
    const std::string whole = replyBytes(0, "eight  b", "pad.");
    for (std::size_t k = 0; k < whole.size(); ++k)
        for (const Answer::After after : {Answer::CLOSE, Answer::RESET})
            rows.push_back({{whole.substr(0, k), after}, k < 12 ? -242 : -240});
    // Nothing follows a header that announces too much, and the client does not wait for it.
    for (const auto& [padLength, length] : {std::pair(0U, 32769U), {1U, 32768U}, {1U, ~0U}})
        rows.push_back({{be32(0) + be32(padLength) + be32(length), Answer::STALL}, -241});
    for (const auto& [answer, code] : rows) {
        SCOPED_TRACE(hex(answer.bytes));
        Connection scene;
        expectLost(scene.expecting(13, {answer}), code);
    }
    Connection scene;
    EXPECT_EQ(managerFileClose(scene.expecting(2, {{replyBytes(0), Answer::RESET}})), 0);
    while (SocketPeek(scene.record.s) > 0)
        continue;
    expectLost(scene.expecting(13, {reply(0)}), -243);
}

TEST(Exchange, TakesErrorsAndOddReplies) {
    Connection scene;
    CONNECT_PARAMS& record = scene.record;
    const std::string x32768(32768, 'x'), n1023(1023, 'n'), n1024(1024, 'n');
    const auto on = [&](U32 code, const Answer& answer) { return scene.expecting(code, {answer}); };
    // Result, error number, system error (both 77 before), error text, start of the buffer.
    const auto outcome = [](I32 rc) {
        return std::to_string(rc) + " " + std::to_string(ManagerErrno) + " " +
               std::to_string(ManagerSysErrno) + " " + std::string(ManagerErrorText).substr(0, 7) +
               " " + std::string(text, 6);
    };
    const auto version = [&](const std::string& data) {
        on(25, reply(0, data));
        EXPECT_EQ(managerGetVersion(&record), 0);
        return record.versionStr + std::string(reinterpret_cast<char*>(&record.versionId), 4);
    };
    testing::internal::CaptureStdout();
    const Row rows[] = {
        // clang-format off
        {outcome(managerFileClose(on(2, reply(5, "refused\0"s + x32768.substr(8))))), "-5 0 5 refused ......"},
        {outcome(managerFileClose(on(2, {replyBytes(5, "cut", "pad")}))), "-5 0 5 cut ......"},
        {outcome(managerFileClose(on(2, reply(INT_MIN, x32768)))), "-2147483648 2147483648 0  ......"},
        {outcome(managerGetKXSRVStats(on(13, reply(0, x32768)), text)), "0 77 77 - xxxxxx"},
        {outcome(managerGetKXSRVStats(on(13, {replyBytes(0, "", x32768)}), text)), "0 77 77 - ......"},
        {outcome(managerGetConnectionList(on(14, reply(-7, "part")), text)), "-7 77 77 - part.."},
        {outcome(managerStopServer(on(17, reply(5, "no")))), "0 77 77 - ......"},
        {outcome(managerFileGetEOF(on(8, reply(0, "12345")), bytes)), "-249 249 0 Success ......"},
        {outcome(managerFileRead(on(3, reply(0, "12345")), 0, bytes, 4, 0)), "-249 249 0 Success ......"},
        {outcome(managerFileGetVolSpace(on(26, reply(0, be32(9) + be32(0))), n1024.c_str(), &blocks, &blockSize)), "-1 77 77 - ......"},
        {outcome(BasicQueryServerType(on(28, reply(0, be32(6) + x32768.substr(4))), text)), "2 77 77 - xxxxxx"},
        {text, x32768.substr(0, 1023)}, {version("7.0a\0\1\2\3\4"s), "7.0a\1\2\3\4"}, {version("7.0b\0\1\2\3"s), "7.0b\0\0\0\0"s},
        {version(x32768.substr(5) + "\0\1\2\3\4"s), x32768.substr(0, 128) + "\1\2\3\4"},
        {outcome(managerFileOpen(n1023.c_str(), 18, on(1, reply(0))) - record.s), "0 77 77 - ......"},
        {outcome(managerFileOpen(n1024.c_str(), 18, on(1, reply(0)))), "-255 255 0 Success ......"},
        // Without a data limit a transfer asks for it, and gives up when there is none; it only falls.
        {outcome(managerGetMaxData(on(9, reply(0, be32(1) + "more")))), "-249 249 0 Success ......"},
        {outcome(managerGetMaxData(on(9, reply(0, be32(0))))), "0 77 77 - ......"},
        {outcome(managerFileWrite(record.s, 0, bytes, 1, 0)), "-250 250 0 Success ......"},
        {outcome(managerFileWrite(on(9, reply(0, be32(65536))), 0, bytes, 1, 0)), "1 77 77 - ......"},
        {std::to_string(ManagerDataLimit), "32768"}, {outcome(managerGetMaxData(on(9, reply(0, be32(4096))))), "4096 77 77 - ......"},
        {outcome(managerGetMaxData(on(9, reply(0, be32(8192))))), "4096 77 77 - ......"},
        {outcome(managerDisconnect(on(10, reply(-3)))), "0 77 77 - ......"},
        {outcome(managerFileClose(record.s)), "-243 243 9 Bad fil ......"},
        // clang-format on
    };
    for (const auto& [came, expected] : rows)
        EXPECT_EQ(came, expected);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "\nError: KXSRV returned 0 for the bytes per block.\n");
    EXPECT_EQ(scene.server.codes(), "12 2 2 2 13 13 14 17 8 3 26 28 25 25 25 1 9 9 9 9 4 9 9 10");
}

TEST(Exchange, SplitsReadsAndWrites) {
    Connection scene;
    const Answer ab = reply(0, "ab"), c = reply(0, "c");
    scene.sent(0);
    const auto with = [&](U32 limit, const std::vector<Answer>& readAnswers = {}) {
        ManagerDataLimit = limit;
        scene.server.on(3, readAnswers);
        return scene.expecting(36, readAnswers);
    };
    const auto outcome = [&](I32 rc) { return scene.sent(rc) + " " + std::string(text, 9); };
    const Row rows[] = {
        // clang-format off
        {outcome(managerFileRead(with(2, {ab, c}), 9, bytes, 3, 3)), "3; 3 00000009 00000002; 3 0000000b 00000001 ...abc..."},
        {outcome(managerFileRead(with(2, {ab, c}), 0, bytes, 6, 0)), "3; 3 00000000 00000002; 3 00000002 00000002 abc......"},
        {outcome(managerFileRead(with(1, {c}), 0, bytes, 2, 3)), "2; 3 00000000 00000001; 3 00000001 00000001 ...cc...."},
        {outcome(managerFileRead(with(1, {reply(0)}), 5, bytes, 0, 0)), "0; 3 00000005 00000000 ........."},
        {outcome(manager16GbFileRead(with(2, {ab, ab, c}), 2, ~1U, bytes, 5, 3)),
         "5; 36 00000002 fffffffe 00000002; 36 00000003 00000000 00000002; 36 00000003 00000002 00000001 ...ababc."},
        {outcome(manager16GbFileRead(with(1, {ab}), 0, 7, bytes, 5, 0)), "2; 36 00000000 00000007 00000005 ab......."},
        {outcome(managerFileWrite(with(2), 7, "-abc", 3, 1)), "3; 4 00000007 00000002 6162; 4 00000009 00000001 63 ........."},
        {outcome(manager16GbFileWrite(with(2), 2, ~1U, "-abc", 3, 1)),
         "3; 39 00000002 fffffffe 00000002 6162; 39 00000003 00000000 00000001 63 ........."},
        // clang-format on
    };
    for (const auto& [came, expected] : rows)
        EXPECT_EQ(came, expected);
}
