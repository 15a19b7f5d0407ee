// What depends on the operating system: the system copy command and the creation of local files.
#pragma once

#include "front/types.h"

/// Copies by the administrator's command, run here while the source is locked on its server.
/// Returns the command's status, also when the unlock after it failed; 1 when the command line is
/// too long or the source cannot be opened, -1 when it cannot be locked.
I32 copyViaOS(CONNECT_PARAMS* pcp, CopyParams* cP);

/// Creates the report file, or empties an existing one and says so; null when neither can be done.
std::FILE* basicOpenTempFile(const char* szFileName);

/// Creates the file for the results of bench, or empties an existing one; null, with errno set,
/// when neither can be done.
std::FILE* openResultsFile(const char* szFileName);
