#include "front/console.h"

#include "front/settings.h"

#include <cctype>
#include <clocale>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <unistd.h>

/// Characters of a locale's name that are shown; with one setting per category it can be longer.
static constexpr int LOCALE_NAME_SHOWN = 84;

static const int promptSignals[] = {SIGQUIT, SIGHUP, SIGTERM, SIGINT};

static void endLine() {
    std::putchar('\n');
    std::fflush(stdout);
}

void displayConsoleMessage(const char* format, ...) {
    if (testInfo.fOutputToFile != 0)
        return;
    // Formatted straight into the stream: a message may hold a path longer than any buffer.
    va_list args;
    va_start(args, format);
    std::vprintf(format, args);
    va_end(args);
    endLine();
}

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
    if (!fWritten)
        printTo(stderr, "Error writing temporary file %s.\n", pti->szTempFile);
    if (!fClosed)
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
        displayConsoleMessage("A numeric value is required.");
        return -1;
    }
    if (std::strtol(str, nullptr, 10) < 0) {
        displayConsoleMessage("[%s] must be a positive number.", str);
        return -1;
    }
    if (std::isdigit(static_cast<unsigned char>(str[0])) == 0) {
        displayConsoleMessage("A numeric value is required.");
        return -1;
    }
    if (std::strlen(str) > static_cast<std::size_t>(size)) {
        displayConsoleMessage("[%s] is out of range.", str);
        return -1;
    }
    return 0;
}

int parseAndPrintBuffer(const char* buffer, std::size_t size) {
    const char* const pEnd = buffer + textLength(buffer, size);
    for (const char* p = buffer; p != pEnd;) {
        if (*p == '\n')
            std::putchar('\r');
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
    [[maybe_unused]] const int rc = std::system(fOn ? "stty echo" : "stty -echo");
    sigprocmask(SIG_SETMASK, &before, nullptr);
}

void signalHandler(int) {
    setTerminalEcho(true);
    // Not exit, which would flush a stream that the signal may have found in use.
    _exit(1);
}

void restoreEchoOnSignals() {
    for (const int iSignal : promptSignals)
        std::signal(iSignal, signalHandler);
}
