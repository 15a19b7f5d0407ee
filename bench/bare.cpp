// The yardstick: the least code that exchanges the same requests over sockets with the same
// options. What a copy reads is received where the write that passes it on is sent from. An answer
// that is not as expected ends it.
//
//   bare stat <port> <host>
//   bare copy <port> <host> <file> <host> <file>   onto a file that exists
#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr uint32_t LARGEST = 32768;
constexpr int BUFFER_SIZE = 12288;

/// A request: the opcode, pad length and parameter length stand before as many numbers as it has,
/// and these before the data, which lie half a page in, as in the program that is measured.
struct alignas(4096) Request {
    uint32_t numbers[512];
    char data[LARGEST];
};

struct Reply {
    uint32_t result, padLength, length;
};

Request request;
char answer[LARGEST];

} // namespace

[[noreturn]] static void fail(const char* pszWhat) {
    std::perror(pszWhat);
    std::exit(1);
}

static void receive(int s, void* p, size_t size) {
    if (size > 0 && recv(s, p, size, MSG_WAITALL) != static_cast<ssize_t>(size))
        fail("recv");
}

/// Sends a request of the last `count` numbers and `size` bytes of data, and receives the reply's
/// data at `pData`; returns how much it is.
static uint32_t exchange(int s, uint32_t opcode, size_t count, size_t size, void* pData) {
    uint32_t* const pHeader = std::end(request.numbers) - 3 - count;
    pHeader[0] = htonl(opcode);
    pHeader[1] = 0;
    pHeader[2] = htonl(static_cast<uint32_t>(4 * count + size));
    const size_t length = 12 + 4 * count + size;
    if (send(s, pHeader, length, MSG_NOSIGNAL) != static_cast<ssize_t>(length))
        fail("send");
    Reply reply;
    receive(s, &reply, sizeof reply);
    const uint32_t received = ntohl(reply.length);
    if (reply.result != 0 || reply.padLength != 0 || received > LARGEST)
        fail("reply");
    receive(s, pData, received);
    return received;
}

static uint32_t ask(int s, uint32_t opcode) {
    return exchange(s, opcode, 0, 0, answer);
}

static uint32_t number(const char* pBytes) {
    uint32_t wire;
    std::memcpy(&wire, pBytes, sizeof wire);
    return ntohl(wire);
}

static int connectTo(const char* host, const char* port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(std::strtol(port, nullptr, 10)));
    address.sin_addr.s_addr = inet_addr(host);
    const int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int iOn = 1;
    int iOff = 0;
    const auto setBuffers = [s] {
        setsockopt(s, SOL_SOCKET, SO_RCVBUF, &BUFFER_SIZE, sizeof BUFFER_SIZE);
        setsockopt(s, SOL_SOCKET, SO_SNDBUF, &BUFFER_SIZE, sizeof BUFFER_SIZE);
    };
    setBuffers();
    if (connect(s, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        fail("connect");
    setsockopt(s, SOL_SOCKET, SO_KEEPALIVE, &iOn, sizeof iOn);
    setBuffers();
    ioctl(s, FIONBIO, &iOff);
    uint32_t identifier = 0;
    receive(s, &identifier, sizeof identifier);
    ask(s, 12);
    ask(s, 28);
    ask(s, 9);
    return s;
}

static void openFile(int s, uint32_t mode, const char* pszFile) {
    const size_t length = std::min(std::strlen(pszFile), sizeof request.data);
    std::end(request.numbers)[-1] = htonl(mode);
    std::memcpy(request.data, pszFile, length);
    exchange(s, 1, 1, length, answer);
}

static void copy(int source, int dest, uint32_t limit) {
    uint64_t position = 0;
    for (uint32_t n = limit; n == limit; position += n) {
        const auto putRange = [&](uint32_t amount) {
            uint32_t* const pNumbers = std::end(request.numbers) - 3;
            pNumbers[0] = htonl(static_cast<uint32_t>(position >> 32));
            pNumbers[1] = htonl(static_cast<uint32_t>(position));
            pNumbers[2] = htonl(amount);
        };
        putRange(limit);
        n = exchange(source, 36, 3, 0, request.data);
        putRange(n);
        exchange(dest, 39, 3, n, answer);
    }
}

int main(int argc, char** argv) {
    if (argc != 4 && argc != 7)
        return 2;
    const int source = connectTo(argv[3], argv[2]);
    const uint32_t limit = number(answer);
    if (argc == 4) {
        std::fwrite(answer, 1, ask(source, 13), stdout);
        ask(source, 10);
        return 0;
    }
    const int dest = connectTo(argv[5], argv[2]);
    openFile(source, 66, argv[4]);
    openFile(dest, 18, argv[6]);
    copy(source, dest, limit);
    ask(source, 10);
    ask(dest, 10);
    return 0;
}
