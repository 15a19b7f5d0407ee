// A server that plays a scene: it serves files in memory, answers as it is told instead, and
// records every request. It runs on a thread of the test's process, at a free port; the two servers
// of a copy are one that tells them apart by the address it is called at.
#pragma once

#include "client/protocol.h"

#include <functional>
#include <map>
#include <mutex>
#include <netinet/in.h>
#include <string>
#include <thread>
#include <vector>

using std::string;

/// A number as it stands on the wire.
string be32(U32 u32);

/// Whole messages, as they go over the wire.
string replyBytes(I32 result, const string& data = "", const string& pad = "");
string requestBytes(U32 code, const string& parameters = "");

/// Bytes in hexadecimal, a blank before every fifth.
string hex(const string& bytes);

/// `size` bytes that begin like a 16 GB repository and do not repeat soon.
string repository(std::size_t size);

/// What the server does with one request: sends `bytes`, then goes on or ends the connection.
struct Answer {
    enum After { GO_ON, CLOSE, RESET, STALL };
    string bytes;
    After after = GO_ON;
    std::size_t piece = 0; // bytes sent at a time, 0 for all at once
};

inline Answer reply(I32 result, const string& data = "") {
    return {replyBytes(result, data)};
}

/// What every command asks first, in a trace.
inline const string hello = "ADDRESS\nTYPE\nLIMIT\n";

/// The files of one host.
struct Volume {
    std::map<string, string> files{};
    U32 dataLimit = 32768, freeBlocks = 1, bytesPerBlock = 4096;
    Answer greeting{be32(1)}; // to every new connection
    string open{};            // name of the file that was opened last
};

class ScriptedServer {
public:
    /// Listens at once, at the address or, for the hosts of a copy, at 127.0.0.1 and 127.0.0.2.
    explicit ScriptedServer(U32 address = INADDR_LOOPBACK, U16 port = 0);
    ~ScriptedServer();
    ScriptedServer(ScriptedServer&&) = delete;

    /// Replies to the source's requests of `code`, one after the other; the last one repeats.
    void on(U32 code, std::vector<Answer> replies);

    /// Changes each answer, to the request of that line of the trace; null to leave them all.
    std::function<Answer(const string& line, const Answer& answer)> disturb;

    /// The requests so far, a line each: what it is, its numbers, and what text or data there are,
    /// where they are short, with ~ for a NUL, as in "OPEN 66 a.rep". For the hosts of a copy
    /// "source " or "dest " stands before it.
    string trace();

    Volume source, dest;
    U16 port = 0;

private:
    void run();
    Volume& volumeOf(I32 s);
    Answer answerTo(const string& request, Volume& volume);

    const bool fTwoHosts;
    I32 listener;
    std::mutex mutex; // guards what follows
    std::map<U32, std::vector<Answer>> scripted;
    string lines;
    std::thread thread;
};
