// All that the program says to the administrator and asks of him: message lines, the report file of
// `test`, the yes/no question, the check of a number he typed, the printing of server texts, and
// terminal echo around the password prompt, with the signals and the shell that this takes. In file
// mode (testInfo.fOutputToFile) the console is silent and the report file speaks.
#pragma once

#include "front/settings.h"

#include <sys/types.h>

// The messages. Each prints one message and a line feed on standard output and flushes it; nothing
// in file mode. The message is printed whole however long it is. The routine says what the message
// means for the way the command ends, which recordEnding then knows, in file mode too.

/// A message on the way, or one behind another that has told how the command ends.
void displayConsoleMessage(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// The command has done its work.
void displaySuccess(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// The command line holds what cannot be used. In file mode, where no report tells it yet,
/// kxadmin-strict says it on standard error.
void displayMisuse(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// A server was not reached.
void displayUnreached(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// Something that the command needs was refused or has failed.
void displayFailure(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// The administrator has declined.
void displayDeclined(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// Prints an empty line as a message.
void displayEmptyLine();

/// Prints on `hf` and flushes it, adding no line feed; file mode does not silence it. Write errors
/// stay in the stream for whoever closes it.
void printTo(std::FILE* hf, const char* format, ...) __attribute__((format(printf, 2, 3)));

/// Prints on standard error, adding no line feed, what the next progress overwrites; nothing where
/// progress is not wanted.
void displayProgress(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// Records how the command ends: the first failure stays, and makes up for any success.
void recordEnding(Ending ending);

/// Records an ending of which kxadmin's messages say nothing, or the contrary. kxadmin-strict says
/// it in a line on standard error, behind its name.
void noteEnding(Ending ending, const char* format, ...) __attribute__((format(printf, 2, 3)));

/// Writes to the report file `hf` and flushes it, adding no line feed; nothing outside file mode.
/// Write errors stay in the stream for whoever closes it.
void logTempFileMessage(std::FILE* hf, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

/// Closes the report file of `pti`; one that could not be written or closed is told on standard
/// error.
void closeTempFile(TestInfo* pti);

/// Asks "<message> (Y/N)?" until a y or n of either case is read: 1 for yes, 0 for no and at the
/// end of input. The rest of the answer's line stays unread.
BOOLEAN confirm(const char* message);

/// 0 when `str` begins with a decimal digit and has at most `size` characters; else says what is
/// wrong with it and returns -1. What follows the leading digits is not looked at.
int isValidNumber(const char* str, int size);

/// Prints the text at `buffer`, which ends at its NUL or after `size` bytes, each line feed as
/// carriage return and line feed. Adds nothing, does not flush, speaks in file mode too. Always 0.
int parseAndPrintBuffer(const char* buffer, std::size_t size);

/// Next byte of standard input, or -1 at its end.
int MBgetch();

/// Prints "Locale: " and the name of the process locale, " (MBCS)" where it is a multibyte one.
void displayCodePage();

/// Starts the shell on the command, `prepare` having been called in the new process. Returns its
/// process, or -1.
pid_t startShell(const char* szCommand, void (*prepare)() = nullptr);

/// Switches the terminal's echo with stty, which complains where standard input is no terminal.
void setTerminalEcho(bool fOn);

/// Ends the process with the status that a shell has for one that the signal ended: the first
/// process of a container is not ended by one.
[[noreturn]] void endByStatus(int iSignal);

/// Restores the terminal's echo and ends the process with status 1, kxadmin-strict by the signal.
[[noreturn]] void signalHandler(int foo);

/// As signal().
void setSignalHandler(int iSignal, void (*handler)(int));

/// Sends the signal to this process, as it stands to it.
void raiseSignal(int iSignal);

/// Installs signalHandler for the signals that end a prompt, for the rest of the process.
void restoreEchoOnSignals();
