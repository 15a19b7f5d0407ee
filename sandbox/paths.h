// Names that clients send, taken below the directory that is served. The kernel resolves them and
// refuses whatever leads out, so no link that is swapped in meanwhile can.
#pragma once

#include <string>

/// Opens `path` with the open(2) flags `iFlags` below the directory `root`; a leading '/' means
/// that directory. Returns the descriptor, or -errno; -EACCES for what leads out of the directory
/// and for what cannot be opened as a file.
int openBelow(int root, const std::string& path, int iFlags);

/// The directory part of `path`, the last component left off.
std::string directoryOf(const std::string& path);

/// `text` with control characters replaced, fit for a line of a report or of the log.
std::string printable(std::string text);
