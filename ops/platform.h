// What depends on the operating system: the system copy command, the limit of core dumps, and the
// creation of local files.
#pragma once

#include "front/types.h"

/// Keeps the process from leaving a core dump, which would hold the password if one was given. The
/// system copy command gets the limit back that was there before.
void leaveNoCore();

/// Copies by the administrator's command, run here while the source is locked on its server.
/// Returns 0 when the command succeeded, also when the unlock after it failed; else not 0. A signal
/// that would end the process meanwhile goes to the command, whose end is awaited, and then into
/// EndingSignal.
I32 copyViaOS(CONNECT_PARAMS* pcp, CopyParams* cP);

/// Creates the report file, or empties an existing one and says so; null when neither can be done.
std::FILE* basicOpenTempFile(const char* szFileName);

/// Creates the file for the results of bench, or empties an existing one; null, with errno set,
/// when neither can be done.
std::FILE* openResultsFile(const char* szFileName);
