#include "front/console.h"

#include <cctype>
#include <clocale>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <sys/wait.h>
#include <unistd.h>

/// Characters of a locale's name that are shown; with one setting per category it can be longer.
static constexpr int LOCALE_NAME_SHOWN = 84;

static const int promptSignals[] = {SIGQUIT, SIGHUP, SIGTERM, SIGINT};

static bool fLineOpen = false; // whether progress stands in the last line of standard error

static void endLine() {
    std::fwrite("\n", 1, 1, stdout);
    std::fflush(stdout);
}

void recordEnding(Ending ending) {
    if (CommandEnding <= ENDING_DONE && CommandEnding < ending)
        CommandEnding = ending;
}

/// Writes kxadmin-strict's own line on standard error, at once lest another program's come between.
/// A line feed that the text ends in is not repeated.
__attribute__((format(printf, 1, 0))) static void noteArguments(const char* format, va_list args) {
    if (fStrict == 0)
        return;
    char* pszNote = nullptr;
    const int length = vasprintf(&pszNote, format, args);
    if (length < 0)
        return;
    const bool fLineFeed = length > 0 && pszNote[length - 1] == '\n';
    printTo(stderr, "%skxadmin-strict: %s%s", fLineOpen ? "\n" : "", pszNote,
            fLineFeed ? "" : "\n");
    std::free(pszNote);
    fLineOpen = false;
}

__attribute__((format(printf, 2, 0))) static void
displayArguments(Ending ending, const char* format, va_list args) {
    recordEnding(ending);
    if (testInfo.fOutputToFile == 0) {
        // Formatted straight into the stream: a message may hold a path longer than any buffer.
        std::vprintf(format, args);
        endLine();
    } else if (ending == ENDING_MISUSED) {
        noteArguments(format, args); // there is no report yet that could tell
    }
}

// The routines differ by the ending alone, and C's variable arguments cannot be handed on whole.
#define DISPLAY_ROUTINE(name, ending)                                                              \
    void name(const char* format, ...) {                                                           \
        va_list args;                                                                              \
        va_start(args, format);                                                                    \
        displayArguments(ending, format, args);                                                    \
        va_end(args);                                                                              \
    }
DISPLAY_ROUTINE(displayConsoleMessage, ENDING_OPEN)
DISPLAY_ROUTINE(displaySuccess, ENDING_DONE)
DISPLAY_ROUTINE(displayMisuse, ENDING_MISUSED)
DISPLAY_ROUTINE(displayUnreached, ENDING_UNREACHED)
DISPLAY_ROUTINE(displayFailure, ENDING_FAILED)
DISPLAY_ROUTINE(displayDeclined, ENDING_DECLINED)
#undef DISPLAY_ROUTINE

void displayEmptyLine() {
    if (testInfo.fOutputToFile == 0)
        endLine();
}

__attribute__((format(printf, 2, 0))) static void printArguments(std::FILE* hf, const char* format,
                                                                 va_list args) {
    std::vfprintf(hf, format, args);
    std::fflush(hf);
}

void printTo(std::FILE* hf, const char* format, ...) {
    va_list args;
    va_start(args, format);
    printArguments(hf, format, args);
    va_end(args);
}

void displayProgress(const char* format, ...) {
    if (fProgress == 0)
        return;
    va_list args;
    va_start(args, format);
    printArguments(stderr, format, args);
    va_end(args);
    fLineOpen = format[std::strlen(format) - 1] != '\n';
}

void noteEnding(Ending ending, const char* format, ...) {
    recordEnding(ending);
    va_list args;
    va_start(args, format);
    noteArguments(format, args);
    va_end(args);
}

void logTempFileMessage(std::FILE* hf, const char* format, ...) {
    if (testInfo.fOutputToFile != 1)
        return;
    va_list args;
    va_start(args, format);
    printArguments(hf, format, args);
    va_end(args);
}

void closeTempFile(TestInfo* pti) {
    const bool fWritten = std::ferror(pti->hTempFile) == 0;
    const bool fClosed = std::fclose(pti->hTempFile) == 0;
    pti->hTempFile = nullptr;
    if (!fWritten || !fClosed)
        recordEnding(ENDING_FAILED);
    if (!fWritten)
        printTo(stderr, "Error writing temporary file %s.\n", pti->szTempFile);
    if (!fClosed) // its full stop stands behind its line feed, as ever
        printTo(stderr, "Error closing temporary file %s\n.", pti->szTempFile);
}

int MBgetch() {
    return std::getc(stdin);
}

BOOLEAN confirm(const char* message) {
    for (int c = 0; c != EOF;) {
        if (c != '\n' && c != '\r')
            displayConsoleMessage("%s (Y/N)?", message);
        c = MBgetch();
        if (c == 'Y' || c == 'y')
            return 1;
        if (c == 'N' || c == 'n')
            return 0;
    }
    return 0;
}

int isValidNumber(const char* str, int size) {
    if (str == nullptr) {
        displayMisuse("A numeric value is required.");
        return -1;
    }
    if (std::strtol(str, nullptr, 10) < 0) {
        displayMisuse("[%s] must be a positive number.", str);
        return -1;
    }
    if (std::isdigit(static_cast<unsigned char>(str[0])) == 0) {
        displayMisuse("A numeric value is required.");
        return -1;
    }
    if (std::strlen(str) > static_cast<std::size_t>(size)) {
        displayMisuse("[%s] is out of range.", str);
        return -1;
    }
    return 0;
}

int parseAndPrintBuffer(const char* buffer, std::size_t size) {
    const char* const pEnd = buffer + textLength(buffer, size);
    for (const char* p = buffer; p != pEnd;) {
        if (*p == '\n')
            std::fwrite("\r", 1, 1, stdout);
        // A line feed goes out at the head of the line that follows it.
        const char* const pLineFeed = findByte(p + 1, pEnd, '\n');
        std::fwrite(p, 1, static_cast<std::size_t>(pLineFeed - p), stdout);
        p = pLineFeed;
    }
    return 0;
}

void displayCodePage() {
    const char* const pszName = std::setlocale(LC_ALL, nullptr);
    displayConsoleMessage("Locale: %.*s%s", LOCALE_NAME_SHOWN,
                          pszName != nullptr ? pszName : "Unknown",
                          MB_CUR_MAX > 1 ? " (MBCS)" : "");
}

pid_t startShell(const char* szCommand, void (*prepare)()) {
    const pid_t shell = fork();
    if (shell != 0)
        return shell;
    if (prepare != nullptr)
        prepare();
    execl("/bin/sh", "sh", "-c", szCommand, nullptr);
    _exit(127);
}

void setTerminalEcho(bool fOn) {
    // Held back from stty as well: a signal that killed it half way would leave a terminal that
    // does not echo.
    sigset_t held;
    sigset_t before;
    sigemptyset(&held);
    for (const int iSignal : promptSignals)
        sigaddset(&held, iSignal);
    sigprocmask(SIG_BLOCK, &held, &before);
    // Without a terminal there is no echo to switch, and the prompt goes on.
    const pid_t stty = startShell(fOn ? "stty echo" : "stty -echo");
    if (stty > 0)
        waitpid(stty, nullptr, 0); // not interrupted: every handler restarts calls
    sigprocmask(SIG_SETMASK, &before, nullptr);
}

void setSignalHandler(int iSignal, void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    sigaction(iSignal, &action, nullptr);
}

void raiseSignal(int iSignal) {
    kill(getpid(), iSignal);
}

void endByStatus(int iSignal) {
    _exit(128 + iSignal);
}

void signalHandler(int foo) {
    setTerminalEcho(true);
    if (fStrict != 0) {
        setSignalHandler(foo, SIG_DFL);
        raiseSignal(foo);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr); // it has been held back while it is handled
        endByStatus(foo);
    }
    // Not exit, which would flush a stream that the signal may have found in use.
    _exit(1);
}

void restoreEchoOnSignals() {
    for (const int iSignal : promptSignals)
        setSignalHandler(iSignal, signalHandler);
}
