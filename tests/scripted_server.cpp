#include "tests/scripted_server.h"

#include "client/exchange.h"
#include "net/socket.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

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

ScriptedServer::ScriptedServer(U32 address, U16 givenPort)
    : fTwoHosts(address == INADDR_ANY), listener(SocketSocket()) {
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_port = htons(givenPort);
    name.sin_addr.s_addr = htonl(address);
    socklen_t length = sizeof name;
    SocketReuse(listener);
    // Any address is any of this machine to itself.
    if (setsockopt(listener, SOL_SOCKET, SO_BINDTODEVICE, "lo", 3) != 0 ||
        bind(listener, reinterpret_cast<sockaddr*>(&name), length) != 0 ||
        SocketListen(listener, 8) != 0) {
        std::perror("scripted server");
        std::abort();
    }
    getsockname(listener, reinterpret_cast<sockaddr*>(&name), &length);
    port = ntohs(name.sin_port);
    const std::string id("\x7f\0\0\1", 4), version("7.0a\0\0\0\7\0", 9);
    for (const Host host : {SOURCE, DEST}) {
        on(REQUEST_GET_INTERNET_ADDRESS, {reply(0, id)}, host);
        on(REQUEST_QUERY_SERVER_TYPE, {reply(0, be32(0) + "7.0a")}, host);
        on(REQUEST_GET_MAX_DATA, {reply(0, be32(32768))}, host);
        on(REQUEST_GET_VERSION, {reply(0, version)}, host);
    }
    thread = std::thread([this] { run(); });
}

ScriptedServer::~ScriptedServer() {
    SocketShutdown(listener);
    thread.join();
    socketClose(listener);
}

void ScriptedServer::on(U32 code, std::vector<Answer> replies, Host host) {
    const auto inOrder = [replies, next = std::size_t{0}](const std::string&) mutable {
        return replies[std::min(next++, replies.size() - 1)];
    };
    on(code, inOrder, host);
}

void ScriptedServer::on(U32 code, Handler handler, Host host) {
    const std::lock_guard lock(mutex);
    handlers[host][code] = std::move(handler);
}

ScriptedServer::Host ScriptedServer::hostOf(I32 s) const {
    sockaddr_in name{};
    socklen_t length = sizeof name;
    getsockname(s, reinterpret_cast<sockaddr*>(&name), &length);
    return fTwoHosts && ntohl(name.sin_addr.s_addr) == INADDR_LOOPBACK + 1 ? DEST : SOURCE;
}

static bool receiveRequest(I32 s, std::string* pRequest) {
    pRequest->resize(12);
    if (socketReceiveBuffer(s, pRequest->data(), 12) != 12)
        return false;
    const I32 behind = static_cast<I32>(getNumber(&(*pRequest)[4]) + getNumber(&(*pRequest)[8]));
    pRequest->resize(12 + static_cast<std::size_t>(behind));
    return socketReceiveBuffer(s, pRequest->data() + 12, behind) == behind;
}

Answer ScriptedServer::answerTo(const std::string& request, Host host) {
    const std::lock_guard lock(mutex);
    const U32 code = getNumber(request.data());
    const std::size_t index = trace.size();
    trace.push_back(request);
    traceCodes += traceCodes.empty() ? "" : " ";
    traceCodes += (!fTwoHosts ? "" : host == DEST ? "d" : "s") + std::to_string(code);
    const auto handler = handlers[host].find(code);
    const Answer answer = handler != handlers[host].end() ? handler->second(request) : reply(0);
    return disturb != nullptr ? disturb(index, answer) : answer;
}

/// Sends it and ends the connection if it is to. Returns the socket while there is more to answer,
/// its complement when it just stays open.
static I32 give(const Answer& answer, I32 s) {
    const std::size_t size = answer.bytes.size(), piece = answer.piece != 0 ? answer.piece : size;
    for (std::size_t i = 0; i < size; i += piece)
        socketSendBuffer(s, &answer.bytes[i], static_cast<I32>(std::min(piece, size - i)));
    if (answer.after == Answer::GO_ON || answer.after == Answer::STALL)
        return answer.after == Answer::GO_ON ? s : ~s;
    const linger reset{answer.after == Answer::RESET, 0};
    setsockopt(s, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    socketClose(s);
    return -1;
}

void ScriptedServer::run() {
    std::vector<pollfd> polled{{listener, POLLIN, 0}}; // which passes over negative ones
    while (poll(polled.data(), polled.size(), -1) > 0) {
        for (std::size_t i = 1; i < polled.size(); ++i) {
            std::string request;
            if (I32& s = polled[i].fd; polled[i].revents != 0)
                s = give(receiveRequest(s, &request) ? answerTo(request, hostOf(s))
                                                     : Answer{"", Answer::CLOSE},
                         s);
        }
        if (polled[0].revents == 0)
            continue;
        const I32 s = SocketAccept(listener);
        if (s < 0)
            break;
        const int iOn = 1; // pieces travel as they are sent
        setsockopt(s, IPPROTO_TCP, TCP_NODELAY, &iOn, sizeof iOn);
        polled.push_back({give(greetings[hostOf(s)], s), POLLIN, 0});
    }
    for (const pollfd& each : polled)
        if (each.fd != listener && each.fd != -1)
            socketClose(each.fd < 0 ? ~each.fd : each.fd);
}

std::string ScriptedServer::codes() {
    const std::lock_guard lock(mutex);
    return traceCodes;
}

std::vector<std::string> ScriptedServer::requests() {
    const std::lock_guard lock(mutex);
    return trace;
}

/// The number at place `index` of a message, the request code being at 0.
static U32 numberAt(std::string message, std::size_t index) {
    message.resize(std::max(message.size(), 4 * index + 4));
    return getNumber(&message[4 * index]);
}

std::string sent(ScriptedServer& server, const std::set<U32>& codes, std::size_t count) {
    std::string text;
    for (const std::string& request : server.requests())
        if (const U32 code = numberAt(request, 0); codes.contains(code)) {
            text += std::to_string(code) + " ";
            for (std::size_t i = 3; i < 3 + count; ++i)
                text += std::to_string(numberAt(request, i)) + " ";
        }
    return text;
}

std::string repository(std::size_t size) {
    std::string bytes = "4321\6";
    for (std::size_t i = bytes.size(); i < size; ++i)
        bytes += static_cast<char>(i * 31 + i / 251);
    return bytes.substr(0, size);
}

static Answer answer(Volume& volume, const std::string& request) {
    const U32 code = numberAt(request, 0);
    // The 16 GB requests have a high half before the offset.
    const std::size_t i = code == REQUEST_FILE_READ || code == REQUEST_FILE_WRITE ? 3 : 4;
    const std::size_t offset = numberAt(request, i), length = numberAt(request, i + 1);
    std::string none, &file = volume.files.contains(volume.open) ? volume.files[volume.open] : none;
    switch (code) {
    case REQUEST_FILE_CREATE: volume.files[request.substr(16)] = ""; break;
    case REQUEST_FILE_OPEN:
        volume.open = request.substr(16);
        return reply(volume.files.contains(volume.open) ? 0 : 2);
    case REQUEST_GET_MAX_DATA: return reply(0, be32(volume.dataLimit));
    case REQUEST_FILE_GET_VOL_SPACE:
        return reply(0, be32(volume.freeBlocks) + be32(volume.bytesPerBlock));
    case REQUEST_16GB_FILE_GET_EOF:
        return reply(0, be32(static_cast<U32>((file.size() + 15) / 16)));
    case REQUEST_FILE_READ:
    case REQUEST_16GB_FILE_READ:
        return reply(0, file.substr(std::min(offset, file.size()), length));
    case REQUEST_FILE_WRITE:
    case REQUEST_16GB_FILE_WRITE:
        file.resize(std::max(file.size(), offset + length));
        file.replace(offset, length, request.substr(4 * i + 8));
    }
    return reply(0);
}

void serveFiles(ScriptedServer& server, Volume& volume, ScriptedServer::Host host) {
    const auto handler = [&volume](const std::string& bytes) { return answer(volume, bytes); };
    for (const U32 code : {1U, 2U, 3U, 4U, 7U, 9U, 10U, 11U, 26U, 32U, 36U, 39U, 47U, 48U})
        server.on(code, handler, host);
}
