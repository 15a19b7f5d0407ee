// docs/protocol.md: its transcripts, replayed to the sandbox that it tells to start.
#include "client/exchange.h"
#include "net/socket.h"
#include "tests/expect.h"
#include "tests/run_program.h"
#include "tests/scratch.h"
#include "tests/scripted_server.h"

#include <fnmatch.h>
#include <regex>
#include <set>

static const std::string pageFile = KX_SOURCE_DIR "/docs/protocol.md";

static std::vector<std::smatch> matches(const std::string& text, const std::string& pattern) {
    const std::regex regex(pattern);
    return {std::sregex_iterator(text.begin(), text.end(), regex), {}};
}

static std::string digits(const std::string& bytes) {
    return std::regex_replace(hex(bytes), std::regex(" "), "");
}

/// The bytes of a line of the page in hexadecimal, with "?" and "*" as they stand.
static std::string bytesOf(const std::string& line) {
    std::string text;
    for (const auto& word : matches(line, "\"([^\"]*)\"|([0-9a-f]{2})x(\\d+)|(\\S+)")) {
        text += digits(word[1]) + word[4].str();
        for (int i = word[3].matched ? std::stoi(word[3]) : 0; i > 0; --i)
            text += word[2];
    }
    return text;
}

static bool fits(const std::string& bytes, const std::string& onPage) {
    return fnmatch(bytesOf(onPage).c_str(), digits(bytes).c_str(), 0) == 0;
}

/// Whether the message is what the page has; if not, tells the lines of it that the page has not,
/// in the page's notation.
static testing::AssertionResult isOnPage(const std::string& bytes, const std::string& onPage) {
    if (fits(bytes, onPage))
        return testing::AssertionSuccess();
    std::vector<std::string> pieces{bytes}; // a text stands on lines behind its header
    if (bytes.ends_with('\n')) {
        pieces = {bytes.substr(0, 12)};
        for (const auto& line : matches(bytes.substr(12), ".*\n"))
            pieces.push_back(line.str());
    }
    testing::AssertionResult result = testing::AssertionFailure() << "not on the page:";
    const auto lines = matches(onPage, ".+");
    for (const std::string& piece : pieces)
        if (std::none_of(lines.begin(), lines.end(),
                         [&](const auto& line) { return fits(piece, line.str()); }))
            result << "\n  "
                   << (piece.ends_with('\n') ? '"' + piece.substr(0, piece.size() - 1) + "\" 0a"
                                             : hex(piece));
    return result;
}

static std::string receive(I32 s, U32 u32Length) {
    std::string bytes(std::min(u32Length, U32{65536}), '\0');
    const I32 iGot = socketReceiveBuffer(s, bytes.data(), static_cast<I32>(bytes.size()));
    return bytes.substr(0, static_cast<std::size_t>(std::max(iGot, 0)));
}

namespace {

/// What the transcripts have done so far.
struct Replay {
    U32 port = 0;
    std::map<std::string, I32> connections; // by name
    std::set<U32> codes;
};

} // namespace

/// Sends what one message of a transcript says, or expects it.
static void replay(Replay& all, const std::string& name, char cDirection,
                   const std::string& message) {
    const bool fNew = !all.connections.contains(name);
    I32& s = all.connections[name];
    if (fNew) {
        s = socketConnectToHost("127.0.0.1", all.port);
        const timeval patience{10, 0}; // with a reply that the page has and the sandbox has not
        setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    }
    if (cDirection == '>') {
        std::string bytes;
        const std::string hexadecimal = bytesOf(message);
        for (std::size_t i = 0; i < hexadecimal.size(); i += 2)
            bytes += static_cast<char>(std::stoi(hexadecimal.substr(i, 2), nullptr, 16));
        socketSendBuffer(s, bytes.data(), static_cast<I32>(bytes.size()));
        all.codes.insert(getNumber(bytes.data()));
    } else if (message == "end") {
        ASSERT_EQ(receive(s, 1), "");
        socketClose(s);
        all.connections.erase(name);
    } else {
        std::string got = receive(s, fNew ? 4 : 12);
        if (got.size() == 12)
            got += receive(s, getNumber(&got[4]) + getNumber(&got[8]));
        ASSERT_TRUE(isOnPage(got, message));
    }
}

TEST(ProtocolPage, ItsTranscriptsAreTrue) {
    const Scratch scratch;
    const std::string page = readFile(pageFile);
    const std::string start = "cd " + scratch.directory +
                              "; PATH=$(dirname " KXSANDBOX_PROGRAM "):$PATH\n" +
                              matches(page, "```sh\n([^`]*)```").at(0).str(1);
    TerminalRun sandbox("/bin/sh", {"-c", start}, {});
    ASSERT_TRUE(sandbox.waitFor("port ") && sandbox.waitFor("\n")) << sandbox.output;
    Replay all;
    all.port =
        static_cast<U32>(std::stoul(sandbox.output.substr(sandbox.output.find("port ") + 5)));
    for (const auto& block : matches(page, "```wire\n([^`]*)```")) {
        const std::string transcript = std::regex_replace(block.str(1), std::regex(" *#.*"), "");
        for (const auto& message : matches(transcript, "(\\w*)([<>]) (.*(?:\n .*)*)")) {
            const auto line =
                std::count(page.begin(), page.begin() + block.position(1), '\n') +
                std::count(transcript.begin(), transcript.begin() + message.position(), '\n');
            const testing::ScopedTrace trace(pageFile.c_str(), static_cast<int>(line) + 1,
                                             "this message of the page");
            replay(all, message.str(1), message.str(2)[0], message.str(3));
            ASSERT_FALSE(testing::Test::HasFailure());
        }
    }
    ASSERT_TRUE(all.codes.contains(REQUEST_STOP_SERVER));
    EXPECT_EQ(sandbox.finish(), 0);
    const std::string header = readFile(KX_SOURCE_DIR "/client/protocol.h");
    for (const auto& row : matches(header, "(REQUEST_\\w+) = (\\d+),")) {
        const std::string title = "\n### " + row.str(2) + " `" + row.str(1) + "`\n";
        EXPECT_NE(page.find(title), page.npos) << "no chapter" << title;
        EXPECT_TRUE(all.codes.contains(static_cast<U32>(std::stoul(row[2])))) << title;
    }
}
