// docs/protocol.md: its transcripts, replayed to the sandbox that it tells to start.
#include "client/exchange.h"
#include "tests/expect.h"
#include "tests/sandbox.h"

#include <fnmatch.h>
#include <regex>
#include <set>

static std::vector<std::smatch> matches(const string& text, const string& pattern) {
    const std::regex regex(pattern);
    return {std::sregex_iterator(text.begin(), text.end(), regex), {}};
}

static string digits(const string& bytes) {
    return std::regex_replace(hex(bytes), std::regex(" "), "");
}

/// The bytes of a line of the page in hexadecimal, with "?" and "*" as they stand.
static string bytesOf(const string& line) {
    string text;
    for (const auto& word : matches(line, "\"([^\"]*)\"|([0-9a-f]{2})x(\\d+)|(\\S+)")) {
        text += digits(word[1]) + word[4].str();
        for (int i = word[3].matched ? std::stoi(word[3]) : 0; i > 0; --i)
            text += word[2];
    }
    return text;
}

/// Expects the message that the page has. Where it has lines, they are the header and a text's
/// lines.
static void expectMessage(const string& onPage, const string& message) {
    const auto lines = matches(onPage, ".+");
    std::size_t at = 0;
    for (const auto& line : lines) {
        const bool fText = at != 0;
        std::size_t end = lines.size() == 1 ? message.size() : 12;
        if (fText)
            end = message.find('\n', at) + 1;
        const string got = message.substr(at, end - at);
        ASSERT_EQ(fnmatch(bytesOf(line.str()).c_str(), digits(got).c_str(), 0), 0)
            << "the page:    " << line.str() << "\nthe sandbox: "
            << (fText ? '"' + got.substr(0, got.size() - 1) + "\" 0a" : hex(got));
        at = end;
    }
    EXPECT_EQ(message.substr(at), "") << "behind what the page has";
}

TEST(ProtocolPage, ItsTranscriptsAreTrue) {
    const string file = KX_SOURCE_DIR "/docs/protocol.md", page = readFile(file);
    const auto starts = matches(page, "```sh\n([^`]*)```");
    ASSERT_EQ(starts.size(), 1U) << "blocks that start the sandbox";
    Sandbox sandbox("", starts[0].str(1));
    std::map<string, std::unique_ptr<Peer>> peers; // by name
    std::set<U32> codes;
    for (const auto& block : matches(page, "```wire\n([^`]*)```")) {
        const string transcript = std::regex_replace(block.str(1), std::regex(" *#.*"), "");
        for (const auto& found : matches(transcript, "(\\w*)([<>]) (.*(?:\n .*)*)")) {
            const auto line = std::count(page.begin(), page.begin() + block.position(1), '\n') +
                              std::count(&transcript[0], &transcript[0] + found.position(), '\n');
            const testing::ScopedTrace trace(file.c_str(), static_cast<int>(line) + 1,
                                             "this message of the page");
            const string message = found[3];
            std::unique_ptr<Peer>& peer = peers[found[1]];
            const bool fNew = peer == nullptr;
            if (fNew)
                peer = std::make_unique<Peer>(sandbox);
            if (found[2] == ">") {
                const string hexadecimal = bytesOf(message);
                ASSERT_EQ(hexadecimal.find_first_not_of("0123456789abcdef"), string::npos);
                string bytes;
                for (std::size_t i = 0; i < hexadecimal.size(); i += 2)
                    bytes += static_cast<char>(std::stoi(hexadecimal.substr(i, 2), nullptr, 16));
                peer->send(bytes);
                codes.insert(getNumber(bytes.data()));
            } else if (message == "end") {
                EXPECT_EQ(peer->receive(1), "");
                peer = nullptr;
            } else {
                expectMessage(message, fNew ? peer->greeting : peer->receiveReply());
            }
            ASSERT_FALSE(testing::Test::HasFailure());
        }
    }
    ASSERT_TRUE(codes.contains(REQUEST_STOP_SERVER));
    EXPECT_EQ(sandbox.run.finish(), 0);
    for (const auto& row : matches(page, "\n\\| (-\\d+) \\| `(\\w+)` \\|"))
        EXPECT_EQ(hex(be32(static_cast<U32>(std::stoi(row[1])))), row.str(2)) << "of " << row[1];
    const string header = readFile(KX_SOURCE_DIR "/client/protocol.h");
    for (const auto& row : matches(header, "(REQUEST_\\w+) = (\\d+),")) {
        const string title = "\n### " + row.str(2) + " `" + row.str(1) + "`\n";
        EXPECT_NE(page.find(title), page.npos) << "no chapter" << title;
        EXPECT_TRUE(codes.contains(static_cast<U32>(std::stoul(row[2])))) << title;
    }
}
