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

static long ignoredSignals(pid_t process) {
    const string status = readFile("/proc/" + std::to_string(process) + "/status");
    return std::stol("0" + status.substr(status.find("SigIgn:\t") + 8), nullptr, 16);
}

TEST(Secret, IsHiddenAndForgottenOnceItIsChecked) {
    if (!std::filesystem::exists("/proc/self"))
        GTEST_SKIP() << "there is no /proc";
    const struct {
        Name name;
        Arguments arguments;
        bool fChecked;
    } rows[] = {
        {"given, being checked", {"stop", "-p", secret}, false},
        {"given and checked", {"stop", "-p", secret}, true},
        {"typed, being checked", {"stop"}, false},
        {"typed and checked", {"stop"}, true},
    };
    forEachRow(rows, [](const auto& row) {
        ScriptedServer server;
        const U32 code = row.fChecked ? REQUEST_GET_CONNECTION_LIST : REQUEST_VERIFY_PASSWORD;
        server.on(code, {Answer{"", Answer::STALL}}); // for which the process waits
        TerminalRun run(KXADMIN_PROGRAM, row.arguments, serverAt(server.port));
        if (row.arguments.size() == 1) {
            ASSERT_TRUE(run.waitFor("KXSRV : ") && run.waitForEcho(false));
            EXPECT_NE(ignoredSignals(run.process) & 1 << (SIGTSTP - 1), 0)
                << "^Z leaves the terminal to a shell, which lets it echo";
            run.type(secret + "\n");
            run.waitFor("KXSRV : \n\n");
            expectText(prompt + "\n\n", abridged(run.output));
        }
        const string last = row.fChecked ? "CONNECTIONS\n" : "PASSWORD ~" + secret + "~\n";
        eventually([&] { return server.trace().ends_with(last) || run.hasEnded(); }, last);
        ASSERT_FALSE(run.hasEnded());
        EXPECT_TRUE(run.echoes());
        const string process = "/proc/" + std::to_string(run.process) + "/";
        for (const string file : {"cmdline", "environ"})
            EXPECT_EQ(readFile(process + file).find(secret), string::npos) << file;
        EXPECT_EQ(remembers(process), !row.fChecked);
        rlimit core{};
        prlimit(run.process, RLIMIT_CORE, nullptr, &core);
        // With 0 the kernel still hands a core to a program that collects them.
        EXPECT_EQ(core.rlim_cur, std::min<rlim_t>(core.rlim_max, 1)) << "bytes of a core";
    });
}
