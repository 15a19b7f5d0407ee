// A server that plays a scene: it answers each request code with the replies it was given, in their
// order, and records every request. It runs in the test's process, on a free loopback port, and
// serves each connection on a thread of its own.
#pragma once

#include "client/protocol.h"

#include <functional>
#include <map>
#include <mutex>
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

/// The requests that the servers of a scene received, in the order of their arrival.
struct Trace {
    std::mutex mutex;
    std::vector<std::string> requests; // whole messages
    std::string codes; // "12 28 9 ", each behind the name of its server, if it has one
};

class ScriptedServer {
public:
    using Handler = std::function<Answer(const std::string& request)>;

    /// Listens at once. `name` goes before each code in the trace; a scene of two servers gives the
    /// second one the first one's trace and port.
    explicit ScriptedServer(const std::string& name = "", ScriptedServer* pFirst = nullptr);
    ~ScriptedServer();
    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;

    /// Replies to requests of `code`, one after the other; the last one repeats.
    ScriptedServer& on(U32 code, std::vector<Answer> replies);
    ScriptedServer& on(U32 code, Handler handler);

    /// Changes each answer, to the request at `index` of the trace; null to leave them as they are.
    std::function<Answer(std::size_t index, const Answer& answer)> disturb;

    std::string codes();                 // of the trace, without the last blank
    std::vector<std::string> requests(); // of the trace

    Answer greeting{be32(1)}; // to every new connection
    std::string host = "127.0.0.1";
    U16 port = 0;

private:
    void acceptConnections();
    void serve(I32 s);
    Answer answerTo(const std::string& request);

    std::string name;
    Trace ownTrace;
    Trace* pTrace;
    I32 listener;
    std::map<U32, Handler> handlers; // guarded, as the trace is, by its mutex
    std::mutex mutex;                // guards what follows
    std::vector<I32> sockets;
    std::vector<std::thread> threads;
    std::thread acceptor;
};
