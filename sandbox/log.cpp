#include "sandbox/log.h"

#include <atomic>
#include <cstdarg>
#include <ctime>
#include <unistd.h>

/// Name of each level, and how many more severe kinds of lines there are.
static constexpr struct {
    const char* pszName;
    int iVerbosity;
} LEVELS[LEVEL_COUNT] = {{"Information", 2}, {"Warning", 1}, {"Error", 0}, {"Debug", 3}};

/// Written by request 20 on any thread, read by every line.
static std::atomic<LogLevel> currentLevel{LEVEL_WARNING};

const char* logLevelName(U32 u32Level) {
    return u32Level < LEVEL_COUNT ? LEVELS[u32Level].pszName : "unknown";
}

LogLevel logLevel() {
    return currentLevel;
}

void setLogLevel(LogLevel level) {
    currentLevel = level;
}

/// Appends the message and a line feed to the `iUsed` bytes of `szLine` and writes them.
template<std::size_t N>
[[gnu::format(printf, 3, 0)]] static void writeLine(char (&szLine)[N], int iUsed,
                                                    const char* pszFormat, va_list arguments) {
    auto length = static_cast<std::size_t>(iUsed);
    const int iMessage = std::vsnprintf(szLine + length, N - length, pszFormat, arguments);
    length = std::min(length + static_cast<std::size_t>(std::max(iMessage, 0)), N - 1);
    szLine[length++] = '\n';
    // There is nobody to tell when the log itself cannot be written.
    [[maybe_unused]] const ssize_t ignored = write(STDERR_FILENO, szLine, length);
}

void logLine(LogLevel level, const char* pszFormat, ...) {
    if (LEVELS[level].iVerbosity > LEVELS[currentLevel.load()].iVerbosity)
        return;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    char szLine[500];
    const int iUsed =
        std::snprintf(szLine, sizeof szLine, "%02d:%02d:%02d.%03ld %s: ", local.tm_hour,
                      local.tm_min, local.tm_sec, now.tv_nsec / 1000000, logLevelName(level));
    va_list arguments;
    va_start(arguments, pszFormat);
    writeLine(szLine, iUsed, pszFormat, arguments);
    va_end(arguments);
}

void complain(const char* pszFormat, ...) {
    char szLine[500];
    const int iUsed = std::snprintf(szLine, sizeof szLine, "kxsandbox: ");
    va_list arguments;
    va_start(arguments, pszFormat);
    writeLine(szLine, iUsed, pszFormat, arguments);
    va_end(arguments);
}
