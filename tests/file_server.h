// Files in memory behind a scripted server, so that what a command did to them can be compared.
#pragma once

#include "tests/run_program.h"
#include "tests/scripted_server.h"

#include <set>

/// The requests of these codes: each code and the first `count` numbers of its parameters.
std::string sent(ScriptedServer& server, const std::set<U32>& codes, std::size_t count);

/// `size` bytes that begin like a 16 GB repository and do not repeat soon.
std::string repository(std::size_t size);

/// The `nth` request of this code is answered with this result.
struct Fault {
    U32 code;
    int nth;
    I32 result;
};

struct Volume {
    std::map<std::string, std::string> files{};
    U32 dataLimit = 32768, freeBlocks = 1000, bytesPerBlock = 4096;
    Fault fault{};
    std::string open{}; // name of the file that was opened last
};

/// Makes the server answer the file requests on `volume`, which has to outlive it.
void serveFiles(ScriptedServer& server, Volume& volume,
                ScriptedServer::Host host = ScriptedServer::SOURCE);
