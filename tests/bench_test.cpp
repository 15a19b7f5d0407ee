// bench: the requests that it measures, its results file, and a failure to make either.
#include "tests/run_program.h"
#include "tests/scratch.h"
#include "tests/scripted_server.h"

#include <gtest/gtest.h>
#include <regex>

/// The 8 passes of one request size, each at an offset of its own, with these amounts.
static std::string passes(unsigned sweep, const std::vector<unsigned>& amounts) {
    std::string reads;
    for (unsigned p = 1; p <= 8; ++p)
        for (const unsigned amount : amounts)
            reads += "3 " + std::to_string(1 + p * sweep) + " " + std::to_string(amount) + " ";
    return reads;
}

TEST(Bench, EveryWay) {
    const std::string running = "Writing data to scratch.\nBench test running, please wait.\n";
    const std::string noRead = "Error reading source repository.\n";
    const std::string end = "\nBench test finished.\n\nResults have been written to [LOG].\n";
    const std::string all = "7 2 1 4 2 1 3 2 ", done = running + ".\n" + end;
    // Options; the output, request codes and results, with a row of dots or of one code
    // as one; and the last reads.
    const std::tuple<Arguments, std::string, std::string, std::string, std::string> rows[] = {
        // clang-format off
        {{"-c1088"}, done, all, "1024 , \\d+ \n1088 , \\d+ \n",
         passes(4096, {1024, 1024, 1024, 1024}) + passes(4096, {1088, 1088, 1088, 1088})},
        {{"-c1087"}, done, all, "1024 , \\d+ \n", passes(4096, {1024, 1024, 1024, 1024})},
        {{"-c2112"}, done, all, "(\\d+ , \\d+ \n){18}", passes(4096, {2112, 1984})},
        {{"-c1024", "-s51347"}, done, all, "1024 , \\d+ \n", passes(51347, std::vector<unsigned>(51, 1024))},
        {{"-s51348"}, running + noRead, "7 2 1 4 2 1 3 ", "", ""}, // behind the end of the file
        {{"-l/no/log"}, "Error creating log file.\nPlease check path.\nopen: No such file or directory\n", "7 2 1 2 ", "\\(none\\)", ""},
        // clang-format on
    };
    for (const auto& [more, output, codes, results, reads] : rows) {
        SCOPED_TRACE(output + codes + results);
        const Scratch scratch;
        Volume volume;
        ScriptedServer server;
        serveFiles(server, volume);
        const std::string log = scratch.path("log");
        Arguments arguments{"bench", "-tscratch", "-l", log, "127.0.0.1"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        const Outcome outcome = runKxadmin(arguments, server.port);
        const std::string dotted =
            std::regex_replace(outcome.out + outcome.err, std::regex("(\n\\.)+"), "\n.");
        EXPECT_EQ(std::regex_replace(dotted, std::regex(log), "LOG"),
                  banner + "Connecting to KXSRV at host [127.0.0.1]\n" + output);
        EXPECT_EQ(std::regex_replace(server.codes(), std::regex("\\b(\\d+ )\\1+"), "$1"),
                  "12 28 9 " + codes + "10");
        EXPECT_TRUE(std::regex_match(scratch.read("log"), std::regex(results)));
        EXPECT_TRUE(sent(server, {REQUEST_FILE_READ}, 2).ends_with(reads));
        const std::string header(1280, '\0'), data(100 * 4095, 't');
        EXPECT_TRUE(volume.files["scratch"] == (codes.size() > 8 ? header + data : ""));
    }
}
