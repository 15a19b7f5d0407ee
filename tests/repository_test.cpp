// test: whether a file is a repository, told on the console or in the report file.
#include "tests/run_program.h"
#include "tests/scratch.h"
#include "tests/scripted_server.h"

#include <gtest/gtest.h>

using namespace std::string_literals;

TEST(Repository, EveryOutcomeOnTheConsoleAndInTheReport) {
    const std::string header = repository(1280), path = "127.0.0.1:/a.rep";
    const auto version = [&](char c) { return reply(0, std::string(header).replace(4, 1, 1, c)); };
    const std::string valid = path + " appears to be a valid repository with a maximum size of ";
    const std::string denied = path + ". Access was denied - another process may have the "
                                      "repository opened in an exclusive mode.";
    const std::string notOne = path + " does not appear to be a valid repository";
    const std::string tooSmall =
        notOne + " as it is too small.  All repositories must be at least 1280 bytes in size.";
    // The code in the report; the results of open and read; the message, which follows the code but
    // an 8, and whether an empty line is behind it on the console. The sweep has the error 5.
    const std::tuple<char, I32, Answer, std::string, bool> rows[] = {
        // clang-format off
        {'0', 0, version(5), valid + "1 GB.", false},
        {'0', 0, version(6), valid + "16 GB (subject to limitations of the hosting file system).", false},
        {'2', 2, {}, "Could not open repository " + path + ". The repository does not exist or could not be found.", true},
        {'3', 33, {}, "Could not open repository " + denied, true},
        {'8', 13, {}, "Unexpected error rc=-13 opening repository " + path + ".", true},
        {'4', 0, reply(33), "Could not read from the repository " + denied, true},
        {'5', 0, reply(13), tooSmall, false},
        {'5', 0, reply(0, header.substr(1)), tooSmall, false},
        {'6', 0, reply(0, "4320" + header.substr(4)), notOne + ". Check pattern missing in header.", true},
        {'7', 0, version('\xff'), path + " has an unknown version number (255).", true},
        // clang-format on
    };
    for (const auto& [code, opened, read, message, fBlank] : rows)
        for (const bool fReport : {false, true}) {
            SCOPED_TRACE(message + (fReport ? " in the report" : ""));
            const Scratch scratch;
            ScriptedServer server;
            server.on(REQUEST_FILE_OPEN, {reply(opened)});
            server.on(REQUEST_FILE_READ, {read});
            const std::string option = fReport ? "-f" + scratch.path("report") : "--";
            const Outcome outcome =
                runKxadmin({"test", "-r/a.rep", "127.0.0.1", option}, server.port);
            const std::string report = code + ("\n" + (code == '8' ? "" : message + "\n"));
            const std::string console = banner + message + (fBlank ? "\n\n" : "\n");
            EXPECT_EQ(outcome.out + outcome.err, fReport ? "" : console);
            EXPECT_EQ(scratch.read("report"), fReport ? report : "(none)");
            EXPECT_EQ(server.codes(), opened != 0 ? "12 28 9 1 10" : "12 28 9 1 3 2 10");
        }
}

TEST(Repository, ReportFilesThatExistOrCannotBeHad) {
    const Scratch scratch;
    scratch.write("old", std::string(2000, 'o'));
    ScriptedServer server;
    server.on(REQUEST_FILE_OPEN, {reply(13)});
    for (const auto& [path, output] :
         {std::pair{scratch.path("old"), "17.\n"},
          {"/tmp", "21.\nError creating temporary file /tmp.\n"},
          {"/dev/full", "17.\nError writing temporary file /dev/full.\n"}}) {
        const Outcome outcome = runKxadmin({"test", "-ra", "127.0.0.1", "-f", path}, server.port);
        EXPECT_TRUE((outcome.out + outcome.err).ends_with(", errno = "s + output)) << path;
    }
    EXPECT_EQ(scratch.read("old"), "8\n");
}
