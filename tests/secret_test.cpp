// The password: not shown as it is typed at the prompt and, once it has been checked, nowhere in
// the process.
#include "tests/run_program.h"
#include "tests/scratch.h"
#include "tests/scripted_server.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <regex>
#include <sstream>
#include <unistd.h>

static const std::string secret = "Kx!only-once#4711";
static const std::string prompt = "\r\nKXADMIN 7.0a\r\nBy the kxadmin authors\r\nLocale: C\r\n"
                                  "Enter the password for the account used to start KXSRV : ";

/// Whether the secret is in memory that the process can read. Areas of a gigabyte and more are the
/// sanitizers' books.
static bool remembers(const std::string& process) {
    const int memory = open((process + "mem").c_str(), O_RDONLY | O_CLOEXEC);
    std::istringstream maps(readFile(process + "maps"));
    bool fFound = false;
    for (std::string line; std::getline(maps, line);) {
        std::size_t begin = 0, end = 0;
        char access = '-';
        std::sscanf(line.c_str(), "%zx-%zx %c", &begin, &end, &access);
        if (access != 'r' || end - begin > 1 << 30)
            continue;
        std::string area(end - begin, '\0');
        const ssize_t n = pread(memory, area.data(), area.size(), static_cast<off_t>(begin));
        fFound = fFound || (n > 0 && area.find(secret) != std::string::npos);
    }
    close(memory);
    return fFound;
}

TEST(Secret, IsHiddenAndForgottenOnceItIsChecked) {
    for (const Arguments& arguments : {Arguments{"stop", "-p", secret}, Arguments{"stop"}})
        for (const bool fChecked : {false, true}) {
            SCOPED_TRACE(testing::Message() << arguments.size() << " words, checked " << fChecked);
            const std::string code = fChecked ? "14" : "11"; // the request that is never answered
            ScriptedServer server;
            server.on(fChecked ? 14 : 11, {Answer{"", Answer::STALL}});
            TerminalRun run(KXADMIN_PROGRAM, arguments, serverAt(server.port));
            if (arguments.size() == 1) {
                ASSERT_TRUE(run.waitFor(prompt) && run.waitForEcho(false));
                run.type(secret + "\n");
                run.waitFor(prompt + "\r\n\r\n");
                EXPECT_EQ(run.output, prompt + "\r\n\r\n");
            }
            while (!server.codes().ends_with(code))
                usleep(1000);
            EXPECT_TRUE(run.echoes());
            const std::string process = "/proc/" + std::to_string(run.process) + "/";
            EXPECT_EQ(readFile(process + "cmdline").find(secret), std::string::npos);
            EXPECT_EQ(readFile(process + "environ").find(secret), std::string::npos);
            EXPECT_EQ(remembers(process), !fChecked);
            EXPECT_TRUE(std::regex_search(readFile(process + "limits"), // so small, none is written
                                          std::regex("Max core file size +[01] ")));
        }
}
