// kxadmin-strict: kxadmin for scripts. Its exit status tells how the command ended, and long
// options in front of the command word, whose modifiers are fixed, ask for what scripts need
// besides.
#include "client/kxclient.h"
#include "front/console.h"
#include "front/options.h"
#include "front/process.h"
#include "front/version.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <unistd.h>

namespace {

enum LongOption { TRIES, PASSWORD_FILE, VERIFY, PROGRESS, VERSION, HELP, OPTION_COUNT };

struct OptionRow {
    const char* pszName;
    const char* pszValue; ///< what its value is called; null: it has none
    const char* pszText;
};

constexpr OptionRow optionRows[] = {
    /* TRIES */ {"--tries", "<n>", "attempts to connect, 1 to 30 (defaults to 30)"},
    /* PASSWORD_FILE */
    {"--password-file", "<file>", "take its first line as password; - is standard input"},
    /* VERIFY */ {"--verify", nullptr, "copy: read both files again and compare them"},
    /* PROGRESS */ {"--progress", nullptr, "show progress and retries without a terminal too"},
    /* VERSION */ {"--version", nullptr, "show the version"},
    /* HELP */ {"--help", nullptr, "show this help"},
};
static_assert(std::size(optionRows) == OPTION_COUNT);

constexpr int MOST_TRIES = 30;

constexpr char exitStatuses[] =
    "\nexit status: 0 done; 1 command line not understood; 2 no server reached; 3 refused or "
    "failed;\n"
    "             4 declined, or no password; ended by a signal, by that signal\n";

} // namespace

static void printHelp() {
    printTo(stdout, "Usage: kxadmin-strict [<option> ...] <command> [<modifier> ...]\n\n"
                    "Runs a command of kxadmin (kxadmin help shows them).\n\noptions:\n");
    for (const OptionRow& row : optionRows)
        printTo(stdout, "  %-15s %-6s  %s\n", row.pszName,
                row.pszValue != nullptr ? row.pszValue : "", row.pszText);
    printTo(stdout, "%s", exitStatuses);
}

static bool readTries(const char* psz) {
    const std::size_t length = std::strlen(psz);
    const long tries = std::strtol(psz, nullptr, 10);
    if (length > 2 || std::strspn(psz, "0123456789") != length || tries < 1 || tries > MOST_TRIES)
        return false;
    ManagerConnectRetries = static_cast<U32>(tries);
    TimeoutAttempts = 1;
    return true;
}

/// Takes in one option. False when it ends the program: after its text, or after a message.
static bool takeOption(int option, const char* pszValue) {
    switch (option) {
    case TRIES:
        if (readTries(pszValue))
            return true;
        noteEnding(ENDING_MISUSED, "--tries takes a number from 1 to %d", MOST_TRIES);
        return false;
    case PASSWORD_FILE: PasswordFile = pszValue; return true;
    case VERIFY: fVerify = 1; return true;
    case PROGRESS: fProgress = 1; return true;
    case VERSION:
        recordEnding(ENDING_DONE);
        printTo(stdout, "kxadmin-strict (%s)\n", szVersionName);
        return false;
    case HELP:
        recordEnding(ENDING_DONE);
        printHelp();
        return false;
    default: return false;
    }
}

/// The option whose name is the argument's text in front of a '=', or OPTION_COUNT.
static int findOption(const char* pszArgument) {
    const std::size_t length = std::strcspn(pszArgument, "=");
    int option = 0;
    while (option < OPTION_COUNT &&
           (std::strlen(optionRows[option].pszName) != length ||
            std::memcmp(optionRows[option].pszName, pszArgument, length) != 0))
        ++option;
    return option;
}

/// Reads one option of the arguments from *pi on, and its value, which is the next argument or
/// stands behind a '='. False when it ends the program.
static bool readLongOption(int argc, char** argv, int* pi) {
    const char* const pszArgument = argv[(*pi)++];
    const int option = findOption(pszArgument);
    if (option == OPTION_COUNT) {
        // Without its value, which may be a password.
        noteEnding(ENDING_MISUSED, "unknown option %.*s; see kxadmin-strict --help",
                   static_cast<int>(std::strcspn(pszArgument, "=")), pszArgument);
        return false;
    }
    const OptionRow& row = optionRows[option];
    const char* pszValue = std::strchr(pszArgument, '=');
    if (pszValue != nullptr)
        ++pszValue;
    else if (row.pszValue != nullptr && *pi < argc)
        pszValue = argv[(*pi)++];
    if ((row.pszValue != nullptr) != (pszValue != nullptr)) {
        noteEnding(ENDING_MISUSED, "option %s takes %s value", row.pszName,
                   row.pszValue != nullptr ? "a" : "no");
        return false;
    }
    return takeOption(option, pszValue != nullptr ? pszValue : "");
}

/// Takes in the options in front of the command word, whose place is then in *piCommand. False when
/// the program ends with them.
static bool readLongOptions(int argc, char** argv, int* piCommand) {
    int i = 1;
    while (i < argc && std::strncmp(argv[i], "--", 2) == 0)
        if (!readLongOption(argc, argv, &i))
            return false;
    *piCommand = i;
    return true;
}

/// The first process of a container gets none of the signals that it leaves alone.
static void handleSignalsAsFirst() {
    if (getpid() == 1)
        for (const int iSignal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM})
            setSignalHandler(iSignal, endByStatus);
}

/// `fOpen` tells whether there was a standard output at the start, if one is needed.
static void closeOutput(bool fOpen) {
    const bool fWritten = fOpen && std::ferror(stdout) == 0;
    if (std::fclose(stdout) != 0 || !fWritten)
        noteEnding(ENDING_FAILED, "standard output was lost");
}

/// Says a word where the command has ended without its work and none was said.
static void breakSilence(I32 rc) {
    if (rc == SHOW_USAGE && testInfo.fOutputToFile != 0) // which kept the usage text back
        noteEnding(ENDING_MISUSED, "see kxadmin help");
    if (CommandEnding > ENDING_DONE && testInfo.hTempFile != nullptr) // and file mode was silent
        noteEnding(ENDING_FAILED, "the repository was not tested, and the report is empty");
    if (CommandEnding == ENDING_OPEN)
        noteEnding(ENDING_FAILED, "the command has not done its work");
}

int main(int argc, char** argv) {
    const bool fOutput = fcntl(STDOUT_FILENO, F_GETFD) >= 0;
    startProcess();
    handleSignalsAsFirst();
    fStrict = 1;
    fProgress = isatty(STDERR_FILENO);
    int iCommand;
    if (readLongOptions(argc, argv, &iCommand)) {
        const I32 rc = runCommandLine(argc - iCommand + 1, argv + iCommand - 1);
        if (rc == SHOW_USAGE)
            recordEnding(ENDING_MISUSED);
        breakSilence(rc);
    }
    closeOutput(fOutput || testInfo.fOutputToFile != 0);
    if (EndingSignal != 0) {
        raiseSignal(EndingSignal);
        endByStatus(EndingSignal);
    }
    return CommandEnding;
}
