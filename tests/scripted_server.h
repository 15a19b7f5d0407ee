// A server that plays a scene: it answers each request code with the replies it was given, in their
// order, and records every request. It runs on a thread of the test's process, at a free port; the
// two servers of a copy are one that tells them apart by the address it is called at.
#pragma once

#include "client/protocol.h"

#include <functional>
#include <map>
#include <mutex>
#include <netinet/in.h>
#include <set>
#include <string>
#include <thread>
#include <vector>

/// A number as it stands on the wire.
std::string be32(U32 u32);

/// Whole messages, as they go over the wire.
std::string replyBytes(I32 result, const std::string& data = "", const std::string& pad = "");
std::string requestBytes(U32 code, const std::string& parameters = "");

/// Bytes in hexadecimal, a blank before every fifth.
std::string hex(const std::string& bytes);

/// What the server does with one request: sends `bytes`, then goes on or ends the connection.
struct Answer {
    enum After { GO_ON, CLOSE, RESET, STALL };
    std::string bytes;
    After after = GO_ON;
    std::size_t piece = 0; // bytes sent at a time, 0 for all at once
};

inline Answer reply(I32 result, const std::string& data = "") {
    return {replyBytes(result, data)};
}

class ScriptedServer {
public:
    using Handler = std::function<Answer(const std::string& request)>;
    enum Host { SOURCE, DEST };

    /// Listens at once, at the address or, for the hosts of a copy, at 127.0.0.1 and 127.0.0.2.
    explicit ScriptedServer(U32 address = INADDR_LOOPBACK, U16 port = 0);
    ~ScriptedServer();
    ScriptedServer(ScriptedServer&&) = delete;

    /// Replies to requests of `code`, one after the other; the last one repeats.
    void on(U32 code, std::vector<Answer> replies, Host host = SOURCE);
    void on(U32 code, Handler handler, Host host = SOURCE);

    /// Changes each answer, to the request at `index` of the trace; null to leave them as they are.
    std::function<Answer(std::size_t index, const Answer& answer)> disturb;

    /// The requests so far, in the order of their arrival: "12 28 9", for the hosts of a copy "s12
    /// d28"; and the whole messages.
    std::string codes();
    std::vector<std::string> requests();

    Answer greetings[2]{{be32(1)}, {be32(1)}}; // to every new connection of each host
    U16 port = 0;

private:
    void run();
    Host hostOf(I32 s) const;
    Answer answerTo(const std::string& request, Host host);

    const bool fTwoHosts;
    I32 listener;
    std::mutex mutex; // guards what follows
    std::map<U32, Handler> handlers[2];
    std::vector<std::string> trace;
    std::string traceCodes;
    std::thread thread;
};

/// The requests of these codes: each code and the first `count` numbers of its parameters.
std::string sent(ScriptedServer& server, const std::set<U32>& codes, std::size_t count);

/// `size` bytes that begin like a 16 GB repository and do not repeat soon.
std::string repository(std::size_t size);

/// Files in memory, so that what a command did to them can be compared.
struct Volume {
    std::map<std::string, std::string> files{};
    U32 dataLimit = 32768, freeBlocks = 1000, bytesPerBlock = 4096;
    std::string open{}; // name of the file that was opened last
};

/// Makes the server answer the file requests on `volume`, which has to outlive it.
void serveFiles(ScriptedServer& server, Volume& volume,
                ScriptedServer::Host host = ScriptedServer::SOURCE);
