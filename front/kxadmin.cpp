#include "front/kxadmin.h"

#include "front/console.h"
#include "front/options.h"

#include <cstdio>

namespace {

/// A command word counts by its first `iLength` characters; what follows them is not looked at.
struct CommandWord {
    const char* pszWord;
    int iLength;
    I32 operation;
};

struct UsageLine {
    int iBlanks;
    const char* pszText;
};

} // namespace

static constexpr CommandWord commands[] = {
    {"STATS", 3, OPERATION_STATS}, {"LIST", 1, OPERATION_LIST}, {"OPTS", 1, OPERATION_OPTIONS},
    {"STOP", 3, OPERATION_STOP},   {"COPY", 3, OPERATION_COPY}, {"BENCH", 1, OPERATION_BENCH},
    {"TEST", 1, OPERATION_TEST},   {"HELP", 1, SHOW_USAGE},
};

/// Command words are the same in every locale.
static constexpr char upper(char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

static bool asksForHelp(const char* arg) {
    return (arg[0] == '-' || arg[0] == '/') && (upper(arg[1]) == 'H' || arg[1] == '?');
}

static bool matches(const char* arg, const CommandWord& command) {
    for (int i = 0; i < command.iLength; ++i)
        if (upper(arg[i]) != command.pszWord[i])
            return false;
    return true;
}

I32 processOperation(int argc, char** argv) {
    const char* arg = argv[1];
    if (asksForHelp(arg))
        return SHOW_USAGE;
    for (const CommandWord& command : commands) {
        if (!matches(arg, command))
            continue;
        if (command.operation == SHOW_USAGE)
            return SHOW_USAGE;
        return processCommandLine(argc - 1, argv + 1, command.operation);
    }
    displayMisuse("Unrecognized command option [%s].", arg);
    return SHOW_USAGE;
}

// Shown as it has always been: it keeps its uneven blanks, and does not name all there is.
static constexpr UsageLine usage[] = {
    {0, "\nUsage: kxadmin [command] [command modifiers] [<host>] [-P <port>]\n"},
    {7, "where valid commands are:"},
    {11, "stat    display server statistics"},
    {11, "opts    display server options or set logging level"},
    {20, "[-s <log level>] set logging level (0-2)"},
    {11, "list    list the server connections"},
    {20, "[-s <connection num> ] display statistics"},
    {20, "[ -l <connection num> ] display active locks"},
    {11, "stop    stop server or kill connection"},
    {20, "[-k <connection num>] stop specified connection"},
    {20, "[-p <password>] password of user who started server"},
    {11, "copy    copy a repository using server"},
    {19, "<source file> <destination file>"},
    {20, "[-f <sys command>] use system command to copy repository"},
    {20, "[-p <password>] password of user who started server"},
    {20, "[-o ] overwrite mode"},
    {20, "[-q ] quiet mode"},
    {20, "[-b ] do not check for free volume space at destination"},
    {11, "test    test repository on server"},
    {20, "<-r <repository name>> name of repository to test"},
    {0, ""},
    {1, "host is the tcp hostname where the server is running (defaults to localhost)"},
    {1, "port is the port number of the server (defaults to 4800)"},
    {1, "source file and destination file are valid server paths, <host:path>"},
};

void printUsage() {
    for (const UsageLine& line : usage)
        displayConsoleMessage("%*s%s", line.iBlanks, "", line.pszText);
    std::fflush(stdout);
}
