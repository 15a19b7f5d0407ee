// bench: the requests that it measures, its results file, and a failure to make either.
#include "tests/expect.h"
#include "tests/run_program.h"
#include "tests/scratch.h"
#include "tests/scripted_server.h"

#include <chrono>

/// The 8 passes of one request size, each at an offset of its own, with these amounts.
static string passes(unsigned sweep, const std::vector<unsigned>& amounts) {
    string reads;
    for (unsigned p = 1; p <= 8; ++p)
        for (const unsigned amount : amounts)
            reads += "READ " + std::to_string(1 + p * sweep) + " " + std::to_string(amount) + "\n";
    return reads;
}

TEST(Bench, MeasuresEverySize) {
    const string made = "CREATE 0 scratch\nCLOSE\nOPEN 18 scratch\n";
    string written = made;
    for (int i = 0; i < 100; ++i)
        written += "WRITE " + std::to_string(1280 + 4095 * i) + " 4095\n";
    written += "CLOSE\nOPEN 18 scratch\n";
    const string running = "Writing data to scratch.\nBench test running, please wait.\n";
    const string finished = "\nBench test finished.\n\nResults have been written to [log].\n";
    const string four = passes(4096, {1024, 1024, 1024, 1024});
    // clang-format off
    const struct {
        Name name; // more modifiers
        int sizes; // that are measured, with a dot for each
        string begins, ends; // what is said before and behind the dots
        string requests; // the last ones before the end
    } rows[] = {
        {"-c1088", 2, running, finished,
         written + four + passes(4096, {1088, 1088, 1088, 1088}) + "CLOSE\n"},
        {"-c1024 -s51347 # up to the end of the data", 1, running, finished,
         passes(51347, std::vector<unsigned>(51, 1024)) + "CLOSE\n"},
        {"-s51348 # behind the end of the data", 0, running,
         "Error reading source repository.\n", "READ 410785 1024\n"},
        {"-l /no/log", 0, "", "Error creating log file.\nPlease check path.\n"
         "open: No such file or directory\n", made + "CLOSE\n"},
    };
    // clang-format on
    forEachRow(rows, [](const auto& row) {
        const Scratch scratch;
        ScriptedServer server;
        const string line = "bench -tscratch -l log 127.0.0.1 " + row.name.text;
        const RunResult run = runKxadmin(line, server.port, "", scratch.directory);
        string dots, log = scratch.read("log");
        for (int i = 0; i < row.sizes; ++i) {
            const string size = std::to_string(1024 + 64 * i) + " , ";
            expectText(size, log.substr(0, size.size()));
            log.erase(0, log.find(" \n") + 2);
            dots += ".\n";
        }
        const string begin = "[banner]\nConnecting to KXSRV at host [127.0.0.1]\n";
        expectText(begin + row.begins + dots + row.ends, run.out + run.err);
        const string trace = server.trace(), end = row.requests + "DISCONNECT\n";
        expectText(end, trace.substr(trace.size() - std::min(trace.size(), end.size())));
        const string data = string(1280, '\0') + string(100 * 4095, 't');
        expectText(row.begins.empty() ? "" : data, server.source.files["scratch"]);
    });
}

TEST(Bench, TellsTheTimeThatThePassesTook) {
    using namespace std::chrono;
    const Scratch scratch;
    ScriptedServer server;
    server.disturb = [](const string& line, const Answer& answer) {
        std::this_thread::sleep_for(milliseconds(line.starts_with("READ") ? 2 : 0));
        return answer;
    };
    const auto start = steady_clock::now();
    runKxadmin("bench -c1024 -l log", server.port, "", scratch.directory);
    const auto all = duration_cast<milliseconds>(steady_clock::now() - start).count();
    const string log = scratch.read("log");
    const long told = std::strtol(log.c_str() + log.find(',') + 1, nullptr, 10);
    EXPECT_GE(told, 32 * 2 - 1); // the passes' replies, a cut off part aside
    EXPECT_LE(told, all + 1);
}
