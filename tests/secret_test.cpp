// The password: not shown as it is typed at the prompt and, once it has been checked, nowhere in
// the process.
#include "tests/expect.h"
#include "tests/run_program.h"
#include "tests/scratch.h"
#include "tests/scripted_server.h"

#include <fcntl.h>
#include <sstream>
#include <sys/resource.h>
#include <unistd.h>

static const string secret = "Kx!only-once#4711";
static const string prompt = "[banner]\nEnter the password for the account used to start KXSRV : ";

/// Whether the secret is in memory that the process can read. Areas of a gigabyte and more are the
/// sanitizers' books.
static bool remembers(const string& process) {
    const int memory = open((process + "mem").c_str(), O_RDONLY | O_CLOEXEC);
    std::istringstream maps(readFile(process + "maps"));
    bool fFound = false;
    for (string line; std::getline(maps, line);) {
        std::size_t begin = 0, end = 0;
        char access = '-';
        std::sscanf(line.c_str(), "%zx-%zx %c", &begin, &end, &access);
        if (access != 'r' || end - begin > 1 << 30)
            continue;
        string area(end - begin, '\0');
        const ssize_t n = pread(memory, area.data(), area.size(), static_cast<off_t>(begin));
        fFound = fFound || (n > 0 && area.find(secret) != string::npos);
    }
    close(memory);
    return fFound;
}

TEST(Secret, IsHiddenAndForgottenOnceItIsChecked) {
    const struct {
        Name name;
        Arguments arguments;
        U32 unanswered; // the request that the process waits for
    } rows[] = {
        {"given, being checked", {"stop", "-p", secret}, REQUEST_VERIFY_PASSWORD},
        {"given and checked", {"stop", "-p", secret}, REQUEST_GET_CONNECTION_LIST},
        {"typed, being checked", {"stop"}, REQUEST_VERIFY_PASSWORD},
        {"typed and checked", {"stop"}, REQUEST_GET_CONNECTION_LIST},
    };
    rlimit limit{};
    getrlimit(RLIMIT_CORE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_CORE, &limit);
    forEachRow(rows, [](const auto& row) {
        const bool fChecked = row.unanswered != REQUEST_VERIFY_PASSWORD;
        ScriptedServer server;
        server.on(row.unanswered, {Answer{"", Answer::STALL}});
        TerminalRun run(KXADMIN_PROGRAM, row.arguments, serverAt(server.port));
        if (row.arguments.size() == 1) {
            ASSERT_TRUE(run.waitFor("KXSRV : ") && run.waitForEcho(false));
            run.type(secret + "\n");
            run.waitFor("KXSRV : \n\n");
            expectText(prompt + "\n\n", abridged(run.output));
        }
        while (
            !server.trace().ends_with(fChecked ? "CONNECTIONS\n" : "PASSWORD ~" + secret + "~\n"))
            usleep(1000);
        EXPECT_TRUE(run.echoes());
        const string process = "/proc/" + std::to_string(run.process) + "/";
        EXPECT_EQ(readFile(process + "cmdline").find(secret), string::npos);
        EXPECT_EQ(readFile(process + "environ").find(secret), string::npos);
        EXPECT_EQ(remembers(process), !fChecked);
        const string limits = readFile(process + "limits"), core = "Max core file size";
        std::istringstream rest(limits.substr(limits.find(core) + core.size()));
        string size;
        rest >> size;
        EXPECT_LE(size, "1") << "for which a core would be written";
    });
}
