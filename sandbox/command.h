// The command that runs beside the server, behind "--": starting it and learning how it ended.
#pragma once

#include "front/types.h"

#include <sys/types.h>

/// Exit statuses of a command that did not run, as shells have them.
inline constexpr int STATUS_NOT_EXECUTABLE = 126;
inline constexpr int STATUS_NOT_FOUND = 127;

/// Starts the command with KXSRV_CTRL_PORT set to the port, default signals and no descriptor of
/// ours. A word without '/' is looked for in PATH, then beside this program. Returns the process,
/// or the negated exit status after a complaint.
pid_t startCommand(char** ppszCommand, U32 u32Port);

/// The exit status of the command, 128 and the signal when one killed it; negative while it runs.
int commandStatus(pid_t process);
