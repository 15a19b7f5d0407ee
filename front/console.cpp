#include "front/console.h"

#include "front/settings.h"

#include <cctype>
#include <clocale>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <unistd.h>

static const int promptSignals[] = {SIGQUIT, SIGHUP, SIGTERM, SIGINT};

void displayConsoleMessage(const char* format, ...) {
    if (testInfo.fOutputToFile != 0)
        return;
    // Formatted straight into the stream: a message may hold a path longer than any buffer.
    va_list args;
    va_start(args, format);
    std::vprintf(format, args);
    va_end(args);
    std::putchar('\n');
    std::fflush(stdout);
}

void displayEmptyLine() {
    displayConsoleMessage("%s", "");
}

void displayInAnyMode(const char* pszMessage) {
    std::fprintf(stdout, "%s\n", pszMessage);
    std::fflush(stdout);
}

void logTempFileMessage(std::FILE* hf, const char* format, ...) {
    if (testInfo.fOutputToFile != 1)
        return;
    va_list args;
    va_start(args, format);
    std::vfprintf(hf, format, args);
    va_end(args);
    std::fflush(hf);
}

void closeTempFile(TestInfo* pti) {
    const bool fWritten = std::ferror(pti->hTempFile) == 0;
    const bool fClosed = std::fclose(pti->hTempFile) == 0;
    pti->hTempFile = nullptr;
    if (!fWritten)
        std::fprintf(stderr, "Error writing temporary file %s.\n", pti->szTempFile);
    if (!fClosed)
        std::fprintf(stderr, "Error closing temporary file %s\n.", pti->szTempFile);
}

int MBgetch() {
    return std::getc(stdin);
}

BOOLEAN confirm(const char* message) {
    for (int c = 0; c != EOF;) {
        if (c != '\n' && c != '\r')
            displayConsoleMessage("%s (Y/N)?", message);
        c = std::toupper(MBgetch());
        if (c == 'Y')
            return 1;
        if (c == 'N')
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

static void print(const char* pBegin, const char* pEnd) {
    std::fwrite(pBegin, 1, static_cast<std::size_t>(pEnd - pBegin), stdout);
}

int parseAndPrintBuffer(const char* buffer, std::size_t size) {
    const char* const pEnd = buffer + strnlen(buffer, size);
    const char* pLine = buffer;
    while (const void* p = std::memchr(pLine, '\n', static_cast<std::size_t>(pEnd - pLine))) {
        const char* const pLineFeed = static_cast<const char*>(p);
        print(pLine, pLineFeed);
        std::fputs("\r\n", stdout);
        pLine = pLineFeed + 1;
    }
    print(pLine, pEnd);
    return 0;
}

void displayCodePage() {
    static const char szMultibyte[] = " (MBCS)";
    char szBuffer[100];
    const char* pszName = std::setlocale(LC_ALL, nullptr);
    std::snprintf(szBuffer, sizeof szBuffer - std::strlen(szMultibyte), "Locale: %s",
                  pszName != nullptr ? pszName : "Unknown");
    displayConsoleMessage("%s%s", szBuffer, MB_CUR_MAX > 1 ? szMultibyte : "");
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
