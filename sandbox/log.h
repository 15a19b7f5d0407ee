// The log on standard error: one line of at most 500 bytes per event, each written at once so that
// lines of different threads do not mix. Also the complaint with which a start fails.
#pragma once

#include "front/types.h"

/// Numbered as administrators set them, which is not the order of severity: Error says least, then
/// Warning, Information and Debug.
enum LogLevel : U32 { LEVEL_INFORMATION, LEVEL_WARNING, LEVEL_ERROR, LEVEL_DEBUG, LEVEL_COUNT };

const char* logLevelName(U32 u32Level);

LogLevel logLevel();

/// Takes effect for every thread with its next line.
void setLogLevel(LogLevel level);

/// Writes the line, unless the level in force leaves lines of `level` out.
[[gnu::format(printf, 2, 3)]] void logLine(LogLevel level, const char* pszFormat, ...);

/// Writes "kxsandbox: " and the message, whatever the level.
[[gnu::format(printf, 1, 2)]] void complain(const char* pszFormat, ...);
