// kxadmin as a whole: command words, modifiers, and the output of every administration command.
#include "tests/run_program.h"
#include "tests/scripted_server.h"

#include <gtest/gtest.h>

using namespace std::string_literals;

static const char usage[] = R"(
Usage: kxadmin [command] [command modifiers] [<host>] [-P <port>]

       where valid commands are:
           stat    display server statistics
           opts    display server options or set logging level
                    [-s <log level>] set logging level (0-2)
           list    list the server connections
                    [-s <connection num> ] display statistics
                    [ -l <connection num> ] display active locks
           stop    stop server or kill connection
                    [-k <connection num>] stop specified connection
                    [-p <password>] password of user who started server
           copy    copy a repository using server
                   <source file> <destination file>
                    [-f <sys command>] use system command to copy repository
                    [-p <password>] password of user who started server
                    [-o ] overwrite mode
                    [-q ] quiet mode
                    [-b ] do not check for free volume space at destination
           test    test repository on server
                    <-r <repository name>> name of repository to test

 host is the tcp hostname where the server is running (defaults to localhost)
 port is the port number of the server (defaults to 4800)
 source file and destination file are valid server paths, <host:path>
)";

TEST(Program, ChecksItsCommandLine) {
    ScriptedServer server; // to which nothing may be sent
    const std::string help = banner + usage, x30(30, 'x'), x1023(1023, 'x'), x1024(1024, 'x');
    const std::string number = "A numeric value is required.\n" + help;
    const std::string negative = " must be a positive number.\n" + help;
    const std::string range = "is out of range.\n" + help;
    const std::string onlyOne = "Only one of -s or -l can be specified.\n\n" + help;
    const std::string twice = "uplicate parameter for password\n" + help;
    const std::string chunk = "largest read chunk size must be between 1024 and 36864\n\n";
    const std::string noCopy = "Source and destination repositories must be specified.\n";
    const std::string sweep = "Sweep size must be between 4096 and 65536\n";
    // clang-format off
    const struct {
        Arguments arguments;
        int status;
        std::string out; // and the parser's messages behind it
    } rows[] = {
        {{}, 1, help}, {{"/?"}, 1, help}, {{"-Help"}, 1, help}, {{"Hx"}, 1, help}, {{"stat", "-h"}, 1, help},
        {{"st"}, 1, "Unrecognized command option [st].\n" + help}, {{""}, 1, "Unrecognized command option [].\n" + help},
        {{"stat", "h", "-qx"}, 1, help + "stat: invalid option -- x\n"}, {{"sta", "-qP"}, 1, help + "sta: option requires an argument -- P\n"},
        {{"stat", "-qP00480"}, 1, "[00480] " + range}, {{"stat", "-P12abc"}, 1, "[12abc] " + range},
        {{"stat", "-oqP", "-1"}, 1, "[-1]" + negative}, {{"stat", "-P -12345"}, 1, "[ -12345]" + negative}, {{"stat", "-P", "-0"}, 1, number},
        {{"stat", "-Px1"}, 1, number}, {{"stat", "-P+5"}, 1, number}, {{"stat", "-P", ""}, 1, number}, {{"stat", "-P 5"}, 1, number},
        {{"stat", "-f", "x"}, 1, help}, {{"list", "-Z98"}, 1, help}, {{"list", "-Z1000"}, 1, "[1000] " + range},
        {{"stat", "-c1024", "-oqb", "-l", "", "-s", "", "-k999", "-Z99", "-Z100", "-r", x1023, "-t", x1023, "-p", x30, "-ph"}, 1, help},
        {{"list", "-s3", "-l4"}, 1, onlyOne}, {{"list", "-l4", "-l4"}, 1, onlyOne}, {{"list", "-l12345"}, 1, "[12345] " + range},
        {{"opts", "-s12"}, 1, "[12] " + range}, {{"opts", "-l", "x", "-sx"}, 1, number}, {{"stop", "-k1000"}, 1, "[1000] " + range},
        {{"stop", "-p", "-p"}, 1, "d" + twice}, {{"stop", "-p", "a", "-p", x1023}, 1, "d" + twice},
        {{"stop", "-p", "a", "-p", "b"}, 1, "D" + twice}, {{"stop", "-p", "", "-p", x30 + "x"}, 0, "Password is too long.\n"},
        {{"bench", "-c1023"}, 0, chunk}, {{"bench", "-c36865"}, 0, chunk}, {{"bench", "-c36864", "-c100000"}, 1, "[100000] " + range},
        {{"Bx", "-s4095"}, 0, sweep}, {{"bench", "-s65537"}, 0, sweep}, {{"bench", "-s65536", "-s4096", "-l", x1023, "-h"}, 1, help},
        {{"bench", "-t", x1024}, 0, "Path [" + x1024 + "] is too long.\n"}, {{"test", "-r", x1024}, 0, "Repository path is too long.\n"},
        {{"bench", "-l", " %s"}, 0, "File name [ %s] is invalid.\n"}, {{"bench", "-l", "\rx"}, 0, "File name [\rx] is invalid.\n"},
        {{"cOpYing", "-f", x1023.substr(944), "a"}, 1, banner + noCopy + help},
        {{"copy", "-f", x1023.substr(943)}, 0, "System copy command length is too long.\n"}, {{"test", "-f", x1023}, 1, ""},
        {{"t", "-r", ""}, 1, banner + "Repository path must be specified using -r for test command.\n" + help},
        {{"test", "-f", x1024}, 0, "Temporary file path is too long.\n"},
        {{"test", "-ra", "-f", ""}, 1, "Temporary file path must be specified using -f for test command.\n"}};
    // clang-format on
    for (const auto& row : rows) {
        const Outcome outcome = runKxadmin(row.arguments, server.port);
        SCOPED_TRACE(testing::PrintToString(row.arguments));
        EXPECT_EQ(outcome.out + outcome.err, row.out);
        EXPECT_EQ(outcome.status, row.status);
    }
    EXPECT_EQ(server.codes(), "");
}

TEST(Program, RunsItsCommands) {
    const std::string line = std::string(78, '=') + "\n", open = "\n" + line, x30(30, 'x');
    const std::string sure = "\nAre you sure you want to stop the server? (Y/N)?\n";
    const std::string three = "There are 3 active connections." + sure;
    const std::string prompt = "Enter the password for the account used to start KXSRV : \n\n";
    const std::string pxPrompt = "Enter the password for the account used to start PXSRV : \n\n";
    const std::string set = "Logging level set to [", set2 = set + "Error].\n";
    const std::string invalid = "Password is invalid.\nChange logging level cancelled.\n";
    const std::string stopped = "\nServer has been scheduled to stop.\n";
    const std::string onPxsrv = "Supported PXSRV commands are OPTS and STOP only.\n";
    const Answer refused = reply(5, "no"), pxsrv = reply(0, be32(1)), six = reply(0, be32(6) + "x");
    // clang-format off
    const struct {
        std::string command;
        std::string out;      // behind the banner, with the input left unread
        std::string requests; // behind the first three, with their parameters in hexadecimal
        std::map<U32, Answer> answers = {};
        std::string input = "";
    } rows[] = {
        {"STATISTICS -q", open + "up\r\n100%s\r\n" + line, " 13 10", {{13, reply(0, "up\n100%s\n")}}},
        {"Logs 127.0.0.1 ignored", open + "one\r\ntwo" + line, " 14 10", {{14, reply(2, "one\ntwo")}}},
        {"list -s9999", open + "s\r\n\n", " 15:0000270f 10", {{15, reply(0, "s\n")}}},
        {"list -l7x", open + "l\r\n\n", " 21:00000007 10", {{21, reply(0, "l\n")}}},
        {"o -l5", open + "o\r\n" + line, " 24 10", {{24, reply(0, "o\n")}}},
        {"opts -s0 -p", set + "Information].\n", " 11:0000 20:00000000 10"},
        {"opts -s1 -p pw", set + "Warning].\n", " 11:00707700 20:00000001 10"},
        {"opts -s3 -p", set + "Debug].\n", " 11:0000 20:00000003 10", {{20, refused}}},
        {"opts -s4 -p", "Invalid log level specified, change logging level cancelled.\n", " 11:0000 10"},
        {"opts -s2", prompt + set2 + "y\nrest\n", " 11:00707700 20:00000002 10", {}, "pw\ny\nrest\n"},
        {"opts -s2", prompt + set2 + "rest", " 11:0000 20:00000002 10", {}, "\nrest"},
        {"opts -s2", prompt + set2, " 11:00702025 730d00 20:00000002 10", {}, "p %s\r"},
        {"opts -s2", prompt + set2, " 11:" + hex("\0"s + x30 + "\0"s) + " 20:00000002 10", {}, x30 + "\n"},
        {"opts -s2", prompt + invalid + "rest", " 10", {}, x30 + "y\nrest"},
        {"opts -s2", prompt + invalid + "rest", " 10", {}, std::string(5000, 'x') + "\nrest"},
        {"opts -s2", pxPrompt + invalid, " 25 11:0000 10", {{28, pxsrv}, {11, refused}}},
        {"opts -s2", "\n\n" + set2, " 25 11:0000 20:00000002 10", {{28, reply(0, be32(2))}}},
        {"STOPPED -p", stopped, " 11:0000 14 17", {{17, {"", Answer::CLOSE}}}}, {"stop -p -Z100", stopped, " 11:0000 17"},
        {"stop", prompt + "There is 1 active connection." + sure + stopped, " 11:00707700 14 17", {{14, reply(1)}}, "pw\ny\n"},
        {"stop -p", three + three + "\nStop cancelled.\n", " 11:0000 14", {{14, reply(3)}}, "\xFF\r\nn\n"},
        {"stop -p", three + "\nStop cancelled.\n", " 11:0000 14", {{14, reply(3)}}},
        {"stop -p -k012", "Connection 12 on host localhost killed.\n", " 25 11:0000 16:0000000c", {{28, six}}},
        {"stop -p -k0", "PXSRV command STOP -k is not supported.\n", " 25 11:0000", {{28, pxsrv}}},
        {"stop -p", stopped, " 25 11:0000 17", {{28, pxsrv}, {14, reply(3)}}},
        {"stop 127.0.0.1 -p pw x -k3 - -q -- -x", "Connection 3 on host 127.0.0.1 killed.\n", " 11:00707700 16:00000003"},
        {"opts", "", " 25", {{28, pxsrv}, {25, reply(-1)}}},
        {"opts", open + line, " 25 24 10", {{28, pxsrv}}}, {"stat", onPxsrv, "", {{28, pxsrv}}}, {"list", onPxsrv, "", {{28, pxsrv}}},
        {"bench", onPxsrv, "", {{28, pxsrv}}}, {"test -ra", onPxsrv, "", {{28, pxsrv}}}, {"stat", "", "", {{9, reply(0, be32(0))}}}};
    // clang-format on
    for (const auto& row : rows) {
        SCOPED_TRACE(row.command + row.requests);
        ScriptedServer server;
        for (const auto& [code, answer] : row.answers)
            server.on(code, {answer});
        // Standard error has only what stty says of a standard input that is no terminal.
        const std::string script = " 2>/dev/null; status=$?; cat; exit $status";
        const Outcome outcome =
            runProgram("/bin/sh", {"-c", "\"$0\" " + row.command + script, KXADMIN_PROGRAM},
                       serverAt(server.port), row.input);
        EXPECT_EQ(outcome.out, banner + row.out);
        EXPECT_EQ(outcome.status, 0);
        std::string requests;
        for (const std::string& request : server.requests())
            requests += " " + std::to_string(request[3]) +
                        (request.size() > 12 ? ":" + hex(request.substr(12)) : "");
        EXPECT_EQ(requests, " 12 28 9" + row.requests);
    }
}

TEST(Program, TakesItsLocaleFromTheEnvironment) {
    const Outcome outcome =
        runProgram(KXADMIN_PROGRAM, {}, {{"LC_ALL", ""}, {"LANG", "C"}, {"LC_CTYPE", "C.UTF-8"}});
    // Cut to what the banner's line has room for.
    EXPECT_EQ(outcome.out.substr(outcome.out.find("Locale"), 99),
              "Locale: LC_CTYPE=C.UTF-8;LC_NUMERIC=C;LC_TIME=C;LC_COLLATE=C;LC_MONETARY=C;"
              "LC_MESSAGES=C;LC_ (MBCS)");
}
