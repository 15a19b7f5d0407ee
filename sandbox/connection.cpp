#include "sandbox/connection.h"

#include "sandbox/files.h"
#include "sandbox/log.h"
#include "sandbox/requests.h"

#include <sys/eventfd.h>

void wakeMainThread(const Server& server) {
    eventfd_write(server.wakeUp.fd, 1);
}

/// Gives back number, file and locks; the object waits in Server::ended for its thread to end.
static void leave(Server& server, Connection& connection) {
    std::unique_ptr<OpenFile> closing;
    const std::lock_guard guard(server.mutex);
    closing = detachFile(server, connection);
    connection.fOpen = false;
    auto node = server.connections.extract(connection.u32Number);
    server.ended.push_back(std::move(node.mapped()));
    server.left.notify_all();
}

namespace {

struct Request {
    U32 u32Code;
    U32 u32ParameterLength;
    U32 u32BodyLength; ///< parameters and pad bytes
};

} // namespace

static bool receiveAll(const Connection& connection, U8* pb, U32 u32Length) {
    const I32 iLength = static_cast<I32>(u32Length);
    return socketReceiveBuffer(connection.socket.fd, pb, iLength) == iLength;
}

/// Receives one whole request; its parameters are then at the start of the request buffer. False
/// when the client is gone or cannot be understood.
static bool receiveRequest(const Connection& connection, Request& request) {
    U8 header[HEADER_SIZE];
    if (!receiveAll(connection, header, HEADER_SIZE))
        return false;
    const U32 u32Pad = getNumber(header + 4);
    request.u32Code = getNumber(header);
    request.u32ParameterLength = getNumber(header + 8);
    const U64 u64Body = U64{request.u32ParameterLength} + u32Pad;
    if (requestName(request.u32Code) == nullptr || u64Body > DATA_AREA_SIZE) {
        logLine(LEVEL_WARNING, "connection %u sent rubbish: request %u, %u parameter bytes, %u pad",
                connection.u32Number, request.u32Code, request.u32ParameterLength, u32Pad);
        return false;
    }
    request.u32BodyLength = static_cast<U32>(u64Body);
    return receiveAll(connection, connection.buffers->request, request.u32BodyLength);
}

/// Changes the counters of the connection and of the whole server alike.
template<class Change> static void count(Server& server, Connection& connection, Change change) {
    const std::lock_guard guard(server.mutex);
    change(connection.counters);
    change(server.counters);
}

static bool sendReply(const Connection& connection, I32 iResult, U32 u32Length) {
    U8* pReply = connection.buffers->reply;
    putNumber(pReply, static_cast<U32>(iResult));
    putNumber(pReply + 4, 0);
    putNumber(pReply + 8, u32Length);
    const I32 iLength = static_cast<I32>(HEADER_SIZE + u32Length);
    return socketSendBuffer(connection.socket.fd, pReply, iLength) == iLength;
}

/// Receives and answers one request; false when it was the last.
static bool exchangeOnce(Server& server, Connection& connection) {
    Request request;
    if (!receiveRequest(connection, request))
        return false;
    count(server, connection, [&](Counters& counters) {
        ++counters.requests[request.u32Code];
        counters.u64BytesReceived += HEADER_SIZE + request.u32BodyLength;
    });
    Buffers& buffers = *connection.buffers;
    Exchange x{server,
               connection,
               request.u32Code,
               buffers.request,
               request.u32ParameterLength,
               buffers.reply + HEADER_SIZE};
    const I32 iResult = carryOut(x);
    count(server, connection, [&](Counters& counters) {
        counters.errors[x.u32Code] += iResult != x.iSuccess;
        counters.u64BytesSent += HEADER_SIZE + x.u32ReplyLength;
    });
    logLine(LEVEL_DEBUG, "connection %u: %s, %u parameter bytes: result %d, %u bytes",
            connection.u32Number, requestName(x.u32Code), x.u32Length, iResult, x.u32ReplyLength);
    if (x.after == AFTER_LEAVE) {
        // Nothing of the client is left when it has its answer. Nobody waits for it any more
        // either: should it not read, its answer is lost.
        leave(server, connection);
        SocketToggleBlocking(connection.socket.fd, 1);
    }
    const bool fSent = sendReply(connection, iResult, x.u32ReplyLength);
    if (x.after == AFTER_STOP) {
        server.fStop = true;
        wakeMainThread(server);
    }
    return fSent && x.after != AFTER_LEAVE;
}

static bool greet(const Connection& connection) {
    U8 identifier[4];
    putNumber(identifier, connection.u32Number);
    return socketSendBuffer(connection.socket.fd, identifier, sizeof identifier) ==
           sizeof identifier;
}

void serveConnection(Server& server, Connection& connection) {
    logLine(LEVEL_INFORMATION, "connection %u from %s", connection.u32Number,
            connection.peer.c_str());
    if (greet(connection))
        while (exchangeOnce(server, connection)) {
        }
    logLine(LEVEL_INFORMATION, "connection %u ends", connection.u32Number);
    if (connection.fOpen)
        leave(server, connection);
    wakeMainThread(server);
}
