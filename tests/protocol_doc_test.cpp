// docs/protocol.md: its transcripts, replayed to the sandbox that it tells to start.
#include "client/exchange.h"
#include "net/socket.h"
#include "tests/run_program.h"
#include "tests/scratch.h"
#include "tests/scripted_server.h"

#include <fnmatch.h>
#include <gtest/gtest.h>
#include <regex>
#include <set>

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

static std::string receive(I32 s, U32 u32Length) {
    std::string bytes(std::min(u32Length, U32{65536}), '\0');
    const I32 iGot = socketReceiveBuffer(s, bytes.data(), static_cast<I32>(bytes.size()));
    return bytes.substr(0, static_cast<std::size_t>(std::max(iGot, 0)));
}

TEST(ProtocolPage, ItsTranscriptsAreTrue) {
    const Scratch scratch;
    const std::string page = readFile(KX_SOURCE_DIR "/docs/protocol.md");
    const std::string start = "cd " + scratch.directory +
                              "; PATH=$(dirname " KXSANDBOX_PROGRAM "):$PATH\n" +
                              matches(page, "```sh\n([^`]*)```").at(0).str(1);
    TerminalRun sandbox("/bin/sh", {"-c", start}, {});
    ASSERT_TRUE(sandbox.waitFor("port ") && sandbox.waitFor("\n")) << sandbox.output;
    const auto port = std::stoul(sandbox.output.substr(sandbox.output.find("port ") + 5));

    std::string transcripts;
    for (const auto& block : matches(page, "```wire\n([^`]*)```"))
        transcripts += std::regex_replace(block.str(1), std::regex(" *#.*"), "");
    transcripts = std::regex_replace(transcripts, std::regex("\n +"), " ");
    std::map<std::string, I32> connections; // by name
    std::set<U32> codes;
    for (const auto& line : matches(transcripts, "(\\w*)([<>]) (.*)")) {
        SCOPED_TRACE(line.str());
        const bool fNew = !connections.contains(line[1]);
        I32& s = connections[line[1]];
        if (fNew) {
            s = socketConnectToHost("127.0.0.1", static_cast<U32>(port));
            const timeval patience{10, 0}; // with a reply that the page has and the sandbox has not
            setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        }
        const std::string expected = bytesOf(line[3]);
        if (line[2] == ">") {
            std::string bytes;
            for (std::size_t i = 0; i < expected.size(); i += 2)
                bytes += static_cast<char>(std::stoi(expected.substr(i, 2), nullptr, 16));
            socketSendBuffer(s, bytes.data(), static_cast<I32>(bytes.size()));
            codes.insert(getNumber(bytes.data()));
        } else if (line[3] == "end") {
            ASSERT_EQ(receive(s, 1), "");
            socketClose(s);
            connections.erase(line[1]);
        } else {
            std::string got = receive(s, fNew ? 4 : 12);
            if (got.size() == 12)
                got += receive(s, getNumber(&got[4]) + getNumber(&got[8]));
            ASSERT_EQ(fnmatch(expected.c_str(), digits(got).c_str(), 0), 0) << hex(got);
        }
    }
    ASSERT_TRUE(codes.contains(REQUEST_STOP_SERVER));
    EXPECT_EQ(sandbox.finish(), 0);
    const std::string header = readFile(KX_SOURCE_DIR "/client/protocol.h");
    for (const auto& row : matches(header, "(REQUEST_\\w+) = (\\d+),")) {
        const std::string title = "\n### " + row.str(2) + " `" + row.str(1) + "`\n";
        EXPECT_NE(page.find(title), page.npos) << title;
        EXPECT_TRUE(codes.contains(static_cast<U32>(std::stoul(row[2])))) << title;
    }
}
