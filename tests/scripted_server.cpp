#include "tests/scripted_server.h"

#include "client/exchange.h"
#include "net/socket.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

std::string be32(U32 u32) {
    const U32 u32Wire = htonl(u32);
    return {reinterpret_cast<const char*>(&u32Wire), sizeof u32Wire};
}

std::string replyBytes(I32 result, const std::string& data, const std::string& pad) {
    return be32(static_cast<U32>(result)) + be32(static_cast<U32>(pad.size())) +
           be32(static_cast<U32>(data.size())) + data + pad;
}

std::string requestBytes(U32 code, const std::string& parameters) {
    return be32(code) + be32(0) + be32(static_cast<U32>(parameters.size())) + parameters;
}

std::string hex(const std::string& bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        text += i % 4 == 0 && i > 0 ? " " : "";
        text += {digits[bytes[i] >> 4 & 15], digits[bytes[i] & 15]};
    }
    return text;
}

/// Binds a new listener to host:port; -1 when the port is taken there.
static I32 listenAt(const std::string& host, U16* pPort) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(*pPort);
    address.sin_addr.s_addr = inet_addr(host.c_str());
    socklen_t length = sizeof address;
    const I32 s = SocketSocket();
    SocketReuse(s);
    if (bind(s, reinterpret_cast<sockaddr*>(&address), length) != 0 || SocketListen(s, 8) != 0) {
        socketClose(s);
        return -1;
    }
    getsockname(s, reinterpret_cast<sockaddr*>(&address), &length);
    *pPort = ntohs(address.sin_port);
    return s;
}

/// As listenAt, at a port that the other host of a copy has free as well.
static I32 listenAtFreePort(const std::string& host, U16* pPort) {
    for (;;) {
        const I32 s = listenAt(host, &(*pPort = 0)), other = listenAt("127.0.0.2", pPort);
        socketClose(other >= 0 ? other : s);
        if (other >= 0)
            return s;
    }
}

ScriptedServer::ScriptedServer(const std::string& serverName, ScriptedServer* pFirst)
    : name(serverName), pTrace(pFirst != nullptr ? pFirst->pTrace : &ownTrace) {
    if (pFirst != nullptr) {
        host = "127.0.0.2";
        port = pFirst->port;
    }
    listener = pFirst != nullptr ? listenAt(host, &port) : listenAtFreePort(host, &port);
    if (listener < 0) {
        std::fprintf(stderr, "no port for the scripted server at %s:%d\n", host.c_str(), port);
        std::abort();
    }
    on(REQUEST_GET_INTERNET_ADDRESS, {reply(0, std::string("\x7f\0\0\1", 4))});
    on(REQUEST_QUERY_SERVER_TYPE, {reply(0, be32(0) + "7.0a")});
    on(REQUEST_GET_MAX_DATA, {reply(0, be32(32768))});
    on(REQUEST_GET_VERSION, {reply(0, std::string("7.0a\0\0\0\7\0", 9))});
    acceptor = std::thread([this] { acceptConnections(); });
}

ScriptedServer::~ScriptedServer() {
    SocketShutdown(listener);
    acceptor.join();
    {
        const std::lock_guard lock(mutex);
        for (const I32 s : sockets)
            SocketShutdown(s);
    }
    for (std::thread& thread : threads)
        thread.join();
    for (const I32 s : sockets)
        socketClose(s);
    socketClose(listener);
}

ScriptedServer& ScriptedServer::on(U32 code, std::vector<Answer> replies) {
    return on(code, [replies, next = std::size_t{0}](const std::string&) mutable {
        return replies[std::min(next++, replies.size() - 1)];
    });
}

ScriptedServer& ScriptedServer::on(U32 code, Handler handler) {
    const std::lock_guard lock(pTrace->mutex);
    handlers[code] = std::move(handler);
    return *this;
}

void ScriptedServer::acceptConnections() {
    for (I32 s; (s = SocketAccept(listener)) >= 0;) {
        const std::lock_guard lock(mutex);
        sockets.push_back(s);
        threads.emplace_back([this, s] { serve(s); });
    }
}

static bool receiveRequest(I32 s, std::string* pRequest) {
    pRequest->resize(12);
    if (socketReceiveBuffer(s, pRequest->data(), 12) != 12)
        return false;
    const I32 behind = static_cast<I32>(getNumber(&(*pRequest)[4]) + getNumber(&(*pRequest)[8]));
    pRequest->resize(12 + static_cast<std::size_t>(behind));
    return socketReceiveBuffer(s, pRequest->data() + 12, behind) == behind;
}

Answer ScriptedServer::answerTo(const std::string& request) {
    const std::lock_guard lock(pTrace->mutex);
    const U32 code = getNumber(request.data());
    const std::size_t index = pTrace->requests.size();
    pTrace->requests.push_back(request);
    pTrace->codes += name + std::to_string(code) + " ";
    const auto handler = handlers.find(code);
    const Answer answer = handler != handlers.end() ? handler->second(request) : reply(0);
    return disturb != nullptr ? disturb(index, answer) : answer;
}

/// Sends it, and ends the connection if it is to.
static void send(I32 s, const Answer& answer) {
    const std::size_t size = answer.bytes.size(), piece = answer.piece != 0 ? answer.piece : size;
    for (std::size_t i = 0; i < size; i += piece)
        socketSendBuffer(s, &answer.bytes[i], static_cast<I32>(std::min(piece, size - i)));
    if (answer.after == Answer::RESET) {
        // Dissolving the association resets the connection and leaves the descriptor to its owner.
        const sockaddr none{.sa_family = AF_UNSPEC, .sa_data = {}};
        connect(s, &none, sizeof none);
    }
    if (answer.after == Answer::CLOSE || answer.after == Answer::RESET)
        SocketShutdown(s);
}

void ScriptedServer::serve(I32 s) {
    const int iOn = 1; // pieces travel as they are sent
    setsockopt(s, IPPROTO_TCP, TCP_NODELAY, &iOn, sizeof iOn);
    send(s, greeting);
    Answer answer{"", greeting.after};
    for (std::string request; answer.after == Answer::GO_ON && receiveRequest(s, &request);) {
        answer = answerTo(request);
        send(s, answer);
    }
    if (answer.after == Answer::GO_ON)
        SocketShutdown(s); // as its client has
}

std::string ScriptedServer::codes() {
    const std::lock_guard lock(pTrace->mutex);
    return pTrace->codes.substr(0, pTrace->codes.find_last_not_of(' ') + 1);
}

std::vector<std::string> ScriptedServer::requests() {
    const std::lock_guard lock(pTrace->mutex);
    return pTrace->requests;
}
