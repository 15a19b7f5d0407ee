// kxadmin as a whole: command words, modifiers, and the output of every administration command.
#include "tests/expect.h"
#include "tests/run_program.h"
#include "tests/scripted_server.h"

TEST(Program, ShowsItsUsage) {
    const RunResult run = runProgram(KXADMIN_PROGRAM, {});
    EXPECT_EQ(run.status, 1);
    expectText(R"(
KXADMIN 7.0a
By the kxadmin authors
Locale: C

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
)",
               run.out);
}

TEST(Program, TakesItsLocaleFromTheEnvironment) {
    const RunResult run =
        runProgram(KXADMIN_PROGRAM, {}, {{"LC_ALL", ""}, {"LANG", "C"}, {"LC_CTYPE", "C.UTF-8"}});
    // Cut to what the banner's line has room for.
    expectText("Locale: LC_CTYPE=C.UTF-8;LC_NUMERIC=C;LC_TIME=C;LC_COLLATE=C;LC_MONETARY=C;"
               "LC_MESSAGES=C;LC_ (MBCS)",
               run.out.substr(std::min(run.out.find("Locale"), run.out.size()), 99));
}

TEST(Program, ShowsItsUsageToWhoIsNotUnderstood) {
    const string number = "A numeric value is required.\n";
    const string onlyOne = "Only one of -s or -l can be specified.\n\n";
    const string duplicate = "uplicate parameter for password\n", range = " is out of range.\n";
    // clang-format off
    const struct {
        Name name; // the command line
        string message = "", err = "";
    } rows[] = {
        {"/?"}, {"-Help"}, {"hx"}, {"sto -h"}, {"cop -h"}, {"stat -f x"},
        {"stat -c1024 -oqb -l '' -s '' -k999 -Z99 -Z100 -r $x1023 -t $x1023 -p $x30 -ph"},
        {"bench -s65536 -s4096 -c36864 -l $x1023 -h"},
        {"st", "Unrecognized command option [st].\n"},
        {"co", "Unrecognized command option [co].\n"},
        {"''", "Unrecognized command option [].\n"},
        {"stat h -qx", "", "stat: invalid option -- x\n"},
        {"stat -q: -h", "", "stat: invalid option -- :\n"},
        {"stat '-\xC3\xA9'", "", "stat: invalid option -- \xC3\n"},
        {"sta -qP", "", "sta: option requires an argument -- P\n"},
        {"stat -qP00480", "[00480]" + range},
        {"list -Z1000", "[1000]" + range}, {"list -l12345", "[12345]" + range},
        {"opts -s12", "[12]" + range}, {"stop -k1000", "[1000]" + range},
        {"bench -c100000", "[100000]" + range},
        {"stat -oqP -9", "[-9] must be a positive number.\n"},
        {"stat -P -0", number}, {"opts -l x -sx", number},
        {"list -s3 -l4", onlyOne},
        {"stop -p -p", "d" + duplicate}, {"stop -p a -p $x31", "d" + duplicate},
        {"stop -p a -p b", "D" + duplicate},
        {"cOpYing -f $x79 a",
         "[banner]\nSource and destination repositories must be specified.\n"},
        {"t -r ''", "[banner]\nRepository path must be specified using -r for test command.\n"},
    };
    // clang-format on
    ScriptedServer server;
    forEachRow(rows, [&](const auto& row) {
        const RunResult run = runKxadmin(row.name.text, server.port);
        expectText(row.message + "[usage]\n", run.out);
        expectText(row.err, run.err);
        EXPECT_EQ(run.status, 1);
    });
    expectText("", server.trace());
}

TEST(Program, RefusesValues) {
    const string x1024(1024, 'x');
    const string chunk = "largest read chunk size must be between 1024 and 36864\n\n";
    const string sweep = "Sweep size must be between 4096 and 65536\n";
    // clang-format off
    const struct {
        Name name; // the command line
        string out;
        int status = 0;
    } rows[] = {
        {"stop -p '' -p $x31", "Password is too long.\n"},
        {"bench -c1023", chunk}, {"bench -c36865", chunk},
        {"Bx -s4095", sweep}, {"bench -s65537", sweep},
        {"bench -t $x1024", "Path [" + x1024 + "] is too long.\n"},
        {"bench -l ' %s'", "File name [ %s] is invalid.\n"},
        {"bench -l \"$(printf '\\rx')\"", "File name [\rx] is invalid.\n"},
        {"test -r $x1024", "Repository path is too long.\n"},
        {"test -f $x1024", "Temporary file path is too long.\n"},
        {"copy -f $x80", "System copy command length is too long.\n"},
        {"test -f $x1023 # keeps the console free of the usage text", "", 1},
        {"test -ra -f ''", "Temporary file path must be specified using -f for test command.\n", 1},
    };
    // clang-format on
    ScriptedServer server;
    forEachRow(rows, [&](const auto& row) {
        const RunResult run = runKxadmin(row.name.text, server.port);
        expectText(row.out, run.out + run.err);
        EXPECT_EQ(run.status, row.status);
    });
    expectText("", server.trace());
}

namespace {

struct Command {
    Name name;    // the command line
    string out;   // behind the banner
    string trace; // behind what every command asks
    std::map<U32, Answer> answers = {};
    string input = "";
};

} // namespace

static void expectRun(const Command& row) {
    ScriptedServer server;
    for (const auto& [code, answer] : row.answers)
        server.on(code, {answer});
    const RunResult run = runKxadmin(row.name.text, server.port, row.input);
    expectText("[banner]\n" + row.out, run.out);
    expectText(hello + row.trace, server.trace());
    EXPECT_EQ(run.status, 0);
}

static const string line = string(78, '=') + "\n", open = "\n" + line;
static const string bye = "DISCONNECT\n";
static const Answer no = reply(5, "no"), pxsrv = reply(0, be32(1));

TEST(Program, ShowsTheServersTexts) {
    const string statistics = "STATISTICS\n" + bye;
    const string onPxsrv = "Supported PXSRV commands are OPTS and STOP only.\n";
    const string none = "Connection 3 is not active, could not get ";
    string all;
    for (int c = 1; c < 256; ++c)
        all += static_cast<char>(c);
    // clang-format off
    const Command rows[] = {
        {"stat # every byte", open + string(all).insert(9, "\r") + line, statistics,
         {{13, reply(0, all)}}},
        {"stat", open + "Failed receiving statistics.\n", statistics, {{13, no}}},
        {"stat # without a data limit", "", "", {{9, reply(0, be32(0))}}},
        {"Logs 127.0.0.1 ignored", open + "100%s\r\ntwo" + line, "CONNECTIONS\n" + bye,
         {{14, reply(2, "100%s\ntwo")}}},
        {"list # of a server that counts none", open + line, "CONNECTIONS\n" + bye,
         {{14, reply(0)}}},
        {"list 127.0.0.1", open + "Could not get connection list on 127.0.0.1.\n",
         "CONNECTIONS\n" + bye, {{14, reply(-7)}}},
        {"list -s9999", open + "s\r\n\n", "CONNECTION 9999\n" + bye, {{15, reply(0, "s\n")}}},
        {"list -s3", open + none + "connection stats.\n", "CONNECTION 3\n" + bye, {{15, no}}},
        {"list -l7x", open + "l\r\n\n", "LOCKS 7\n" + bye, {{21, reply(0, "l\n")}}},
        {"list -l3", open + none + "lock list.\n", "LOCKS 3\n" + bye, {{21, no}}},
        {"o -l5", open + "o\r\n" + line, "OPTIONS\n" + bye, {{24, reply(0, "o\n")}}},
        {"opts", "Error retrieving KXSRV options.\n", "OPTIONS\n" + bye, {{24, no}}},
        {"opts # of a PXSRV", open + line, "VERSION\nOPTIONS\n" + bye, {{28, pxsrv}}},
        {"stat # of a PXSRV", onPxsrv, "", {{28, pxsrv}}},
    };
    // clang-format on
    forEachRow(rows, expectRun);
}

static const string prompt = "Enter the password for the account used to start KXSRV : \n\n";

TEST(Program, SetsTheLoggingLevel) {
    const string x30(30, 'x');
    const string pxPrompt = "Enter the password for the account used to start PXSRV : \n\n";
    const string set = "Logging level set to [", set2 = set + "Error].\n";
    const string cancelled = "Password is invalid.\nChange logging level cancelled.\n";
    const string level2 = "LEVEL 2\n" + bye, empty = "PASSWORD ~~\n";
    // clang-format off
    const Command rows[] = {
        {"opts -s0 -p", set + "Information].\n", empty + "LEVEL 0\n" + bye},
        {"opts -s1 -p pw", set + "Warning].\n", "PASSWORD ~pw~\nLEVEL 1\n" + bye},
        {"opts -s3 -p # said before it is asked", set + "Debug].\n", empty + "LEVEL 3\n" + bye,
         {{20, no}}},
        {"opts -s4 -p", "Invalid log level specified, change logging level cancelled.\n",
         empty + bye},
        {"opts -s2 # a line and more", prompt + set2 + "y\nrest\n", "PASSWORD ~pw~\n" + level2, {},
         "pw\ny\nrest\n"},
        {"opts -s2 # an empty line", prompt + set2 + "rest", empty + level2, {}, "\nrest"},
        {"opts -s2 # no line", prompt + set2, "PASSWORD ~p %s\r~\n" + level2, {}, "p %s\r"},
        {"opts -s2 # the longest password", prompt + set2, "PASSWORD ~" + x30 + "~\n" + level2, {},
         x30 + "\n"},
        {"opts -s2 # one beyond any buffer", prompt + cancelled + "rest", bye, {},
         string(600, 'x') + "\nrest"},
        {"opts -s2 # a longer one", prompt + cancelled + "rest", bye, {}, x30 + "y\nrest"},
        {"opts -s2 # a wrong one of a PXSRV", pxPrompt + cancelled, "VERSION\n" + empty + bye,
         {{28, pxsrv}, {11, no}}},
    };
    // clang-format on
    forEachRow(rows, expectRun);
}

TEST(Program, StopsAServerOrAConnection) {
    const string sure = "Are you sure you want to stop the server? (Y/N)?\n";
    const string three = "There are 3 active connections.\n" + sure;
    const string stopped = "\nServer has been scheduled to stop.\n";
    const string cancelled = "\nStop cancelled.\n", empty = "PASSWORD ~~\n";
    const Answer six = reply(0, be32(6) + "x");
    // clang-format off
    const Command rows[] = {
        {"STOPPED -p", stopped, empty + "CONNECTIONS\nSTOP\n", {{17, {"", Answer::CLOSE}}}},
        {"stop -p -Z100", stopped, empty + "STOP\n"},
        {"stop # yes", prompt + "There is 1 active connection.\n" + sure + stopped,
         "PASSWORD ~pw~\nCONNECTIONS\nSTOP\n", {{14, reply(1)}}, "pw\ny\n"},
        {"stop -p # neither, then no", three + three + cancelled, empty + "CONNECTIONS\n",
         {{14, reply(3)}}, "\xFF\r\nn\n"},
        {"stop -p # a wrong password", "Password is invalid.\n", empty, {{11, no}}},
        {"stop -p # a PXSRV", stopped, "VERSION\n" + empty + "STOP\n", {{28, pxsrv}}},
        {"stop -p -k0 # of a PXSRV", "PXSRV command STOP -k is not supported.\n",
         "VERSION\n" + empty, {{28, pxsrv}}},
        {"stop -p -k0", "Connection 0 is not active on host localhost.\n", empty + "KILL 0\n",
         {{16, no}}},
        {"stop -p -k012", "Connection 12 on host localhost killed.\n",
         "VERSION\n" + empty + "KILL 12\n", {{28, six}}},
        {"stop -p -k3", "Connection 3 is not active on host localhost.\n", empty + "KILL 3\n",
         {{16, no}}},
        {"stop 127.0.0.1 -p pw x -k3 - -q -- -x", "Connection 3 on host 127.0.0.1 killed.\n",
         "PASSWORD ~pw~\nKILL 3\n"},
    };
    // clang-format on
    forEachRow(rows, expectRun);
}
