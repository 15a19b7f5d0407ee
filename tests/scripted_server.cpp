#include "tests/scripted_server.h"

#include "client/exchange.h"
#include "net/socket.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdlib>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

string be32(U32 u32) {
    const U32 u32Wire = htonl(u32);
    return {reinterpret_cast<const char*>(&u32Wire), sizeof u32Wire};
}

string replyBytes(I32 result, const string& data, const string& pad) {
    return be32(static_cast<U32>(result)) + be32(static_cast<U32>(pad.size())) +
           be32(static_cast<U32>(data.size())) + data + pad;
}

string requestBytes(U32 code, const string& parameters) {
    return be32(code) + be32(0) + be32(static_cast<U32>(parameters.size())) + parameters;
}

string hex(const string& bytes) {
    static const char digits[] = "0123456789abcdef";
    string text;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        text += i % 4 == 0 && i > 0 ? " " : "";
        text += {digits[bytes[i] >> 4 & 15], digits[bytes[i] & 15]};
    }
    return text;
}

/// What a trace calls a request, and how many numbers it begins with.
static const std::map<U32, std::pair<const char*, std::size_t>> kinds = {
    {1, {"OPEN", 1}},        {2, {"CLOSE", 0}},       {3, {"READ", 2}},
    {4, {"WRITE", 2}},       {7, {"CREATE", 1}},      {8, {"SIZE", 0}},
    {9, {"LIMIT", 0}},       {10, {"DISCONNECT", 0}}, {11, {"PASSWORD", 0}},
    {12, {"ADDRESS", 0}},    {13, {"STATISTICS", 0}}, {14, {"CONNECTIONS", 0}},
    {15, {"CONNECTION", 1}}, {16, {"KILL", 1}},       {17, {"STOP", 0}},
    {20, {"LEVEL", 1}},      {21, {"LOCKS", 1}},      {24, {"OPTIONS", 0}},
    {25, {"VERSION", 0}},    {26, {"SPACE", 0}},      {28, {"TYPE", 0}},
    {32, {"UNITS", 0}},      {36, {"READ", 3}},       {39, {"WRITE", 3}},
    {47, {"LOCK", 4}},       {48, {"UNLOCK", 4}},
};

/// The number at place `index` of a message, the request code being at 0; 0 behind its end.
static U32 numberAt(const string& message, std::size_t index) {
    return 4 * index + 4 <= message.size() ? getNumber(&message[4 * index]) : 0;
}

static string lineOf(const string& request) {
    const auto kind = kinds.find(numberAt(request, 0));
    if (kind == kinds.end())
        return "unknown\n";
    const auto& [pszName, numbers] = kind->second;
    string line = pszName;
    for (std::size_t i = 3; i < 3 + numbers; ++i)
        line += ' ' + std::to_string(numberAt(request, i));
    const std::size_t begin = 12 + 4 * numbers;
    if (request.size() > begin && request.size() - begin <= 40)
        line += ' ' + request.substr(begin);
    std::replace(line.begin(), line.end(), '\0', '~');
    return line + '\n';
}

string repository(std::size_t size) {
    string bytes = "4321\6";
    for (std::size_t i = bytes.size(); i < size; ++i)
        bytes += static_cast<char>(i * 31 + i / 251);
    return bytes.substr(0, size);
}

/// What a server of these files answers.
static Answer serve(Volume& volume, const string& request) {
    const U32 code = numberAt(request, 0);
    // The 16 GB requests have a high half before the offset.
    const std::size_t i = code == REQUEST_FILE_READ || code == REQUEST_FILE_WRITE ? 3 : 4;
    const std::size_t offset = numberAt(request, i), length = numberAt(request, i + 1);
    string none, &file = volume.files.contains(volume.open) ? volume.files[volume.open] : none;
    switch (code) {
    case REQUEST_GET_INTERNET_ADDRESS: return reply(0, be32(INADDR_LOOPBACK));
    case REQUEST_QUERY_SERVER_TYPE: return reply(0, be32(0) + "7.0a");
    case REQUEST_GET_MAX_DATA: return reply(0, be32(volume.dataLimit));
    case REQUEST_GET_VERSION: return reply(0, string("7.0a\0\0\0\7\0", 9));
    case REQUEST_FILE_CREATE: volume.files[request.substr(16)] = ""; break;
    case REQUEST_FILE_OPEN:
        volume.open = request.substr(16);
        return reply(volume.files.contains(volume.open) ? 0 : 2);
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
        std::perror("the scripted server");
        std::abort();
    }
    getsockname(listener, reinterpret_cast<sockaddr*>(&name), &length);
    port = ntohs(name.sin_port);
    thread = std::thread([this] { run(); });
}

ScriptedServer::~ScriptedServer() {
    SocketShutdown(listener);
    thread.join();
    socketClose(listener);
}

void ScriptedServer::on(U32 code, std::vector<Answer> replies) {
    const std::lock_guard lock(mutex);
    scripted[code] = std::move(replies);
}

string ScriptedServer::trace() {
    const std::lock_guard lock(mutex);
    return lines;
}

Volume& ScriptedServer::volumeOf(I32 s) {
    sockaddr_in name{};
    socklen_t length = sizeof name;
    getsockname(s, reinterpret_cast<sockaddr*>(&name), &length);
    return fTwoHosts && ntohl(name.sin_addr.s_addr) == INADDR_LOOPBACK + 1 ? dest : source;
}

Answer ScriptedServer::answerTo(const string& request, Volume& volume) {
    const std::lock_guard lock(mutex);
    const string host = &volume == &dest ? "dest " : fTwoHosts ? "source " : "";
    const string line = host + lineOf(request);
    lines += line;
    const auto found = scripted.find(numberAt(request, 0));
    const bool fScripted = found != scripted.end() && &volume == &source;
    const Answer answer = fScripted ? found->second.front() : serve(volume, request);
    if (fScripted && found->second.size() > 1)
        found->second.erase(found->second.begin());
    return disturb != nullptr ? disturb(line, answer) : answer;
}

static bool receiveRequest(I32 s, string& request) {
    request.resize(12);
    if (socketReceiveBuffer(s, request.data(), 12) != 12)
        return false;
    const U32 behind = numberAt(request, 1) + numberAt(request, 2);
    request.resize(12 + behind);
    const I32 length = static_cast<I32>(behind);
    return socketReceiveBuffer(s, &request[12], length) == length;
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
            string request;
            if (I32& s = polled[i].fd; polled[i].revents != 0)
                s = give(receiveRequest(s, request) ? answerTo(request, volumeOf(s))
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
        polled.push_back({give(volumeOf(s).greeting, s), POLLIN, 0});
    }
    for (const pollfd& each : polled)
        if (each.fd != listener && each.fd != -1)
            socketClose(each.fd < 0 ? ~each.fd : each.fd);
}
