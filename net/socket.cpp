#include "net/socket.h"

#include "front/settings.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

I32 socketInitialize() {
    return 0;
}

void socketSpareStandardStreams() {
    int fd;
    do
        fd = open("/dev/null", O_RDWR);
    while (fd >= 0 && fd <= STDERR_FILENO);
    close(fd);
}

/// First address of `host`, or false when it is neither a dotted address nor a known name.
static bool resolveHost(const char* host, in_addr* pAddress) {
    pAddress->s_addr = socketAsciiToInet(host);
    if (pAddress->s_addr != INADDR_NONE)
        return true;
    const hostent* pEntry = gethostbyname(host);
    if (pEntry == nullptr || pEntry->h_addrtype != AF_INET || pEntry->h_addr_list[0] == nullptr)
        return false;
    std::memcpy(pAddress, pEntry->h_addr_list[0], sizeof *pAddress);
    return true;
}

/// One attempt: a connected socket, SOCKET_NOT_CREATED, or SOCKET_NOT_CONNECTED with errno set.
static I32 connectOnce(const sockaddr_in& address) {
    const I32 s = SocketSocket();
    if (s < 0)
        return SOCKET_NOT_CREATED;
    // A receive buffer that shrinks once the connection stands leaves the peer believing in the
    // larger window, and its segments are dropped: replies then come at five a second. So the
    // sizes are set before the handshake already.
    SocketSetBufferSize(s, SOCKET_BUFFER_SIZE);
    if (connect(s, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
        return s;
    const int iError = errno;
    socketClose(s);
    errno = iError;
    return SOCKET_NOT_CONNECTED;
}

I32 socketConnectToHost(const char* host, U32 port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = SocketHtoNS(static_cast<U16>(port));
    if (!resolveHost(host, &address.sin_addr))
        return SOCKET_HOST_UNKNOWN;

    I32 s = SOCKET_NOT_CONNECTED;
    for (int i = 0; i < TimeoutAttempts; ++i) {
        s = connectOnce(address);
        if (s != SOCKET_NOT_CONNECTED || errno != ETIMEDOUT)
            break;
    }
    if (s < 0)
        return s;

    SocketKeepAlive(s);
    SocketNoDelay(s);
    SocketSetBufferSize(s, SOCKET_BUFFER_SIZE);
    SocketToggleBlocking(s, 0);
    return s;
}

I32 socketSendBuffer(I32 iSock, const void* pb, I32 ic) {
    I32 sent = 0;
    while (sent < ic) {
        const ssize_t n = send(iSock, static_cast<const char*>(pb) + sent,
                               static_cast<std::size_t>(ic - sent), MSG_NOSIGNAL);
        if (n < 0)
            return -errno;
        sent += static_cast<I32>(n);
    }
    return sent;
}

I32 socketSendBuffers(I32 iSock, const void* pb, I32 ic, const void* pbMore, I32 icMore) {
    iovec parts[] = {{const_cast<void*>(pb), static_cast<std::size_t>(ic)},
                     {const_cast<void*>(pbMore), static_cast<std::size_t>(icMore)}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = std::size(parts);
    const ssize_t n = sendmsg(iSock, &message, MSG_NOSIGNAL);
    if (n < 0)
        return -errno;
    // What a signal kept back goes after it.
    I32 sent = static_cast<I32>(n);
    if (sent < ic) {
        const I32 rc = socketSendBuffer(iSock, static_cast<const char*>(pb) + sent, ic - sent);
        if (rc < 0)
            return rc;
        sent = ic;
    }
    const I32 rc =
        socketSendBuffer(iSock, static_cast<const char*>(pbMore) + (sent - ic), ic + icMore - sent);
    return rc < 0 ? rc : ic + icMore;
}

I32 socketReceiveBuffer(I32 iSock, void* pb, I32 ic) {
    I32 received = 0;
    while (received < ic) {
        // Waiting for all of it spares the calls that would fetch it in pieces.
        const ssize_t n = recv(iSock, static_cast<char*>(pb) + received,
                               static_cast<std::size_t>(ic - received), MSG_WAITALL);
        if (n < 0)
            return -errno;
        if (n == 0)
            break;
        received += static_cast<I32>(n);
    }
    return received;
}

I32 socketClose(I32 iSock) {
    return close(iSock);
}

U32 socketHtoNL(U32 u32) {
    return htonl(u32);
}

U32 socketNtoHL(U32 u32) {
    return ntohl(u32);
}

U16 SocketHtoNS(U16 u16) {
    return htons(u16);
}

U16 SocketNtoHS(U16 u16) {
    return ntohs(u16);
}

static I32 setIntOption(I32 iSock, int iOption, int iValue) {
    return setsockopt(iSock, SOL_SOCKET, iOption, &iValue, sizeof iValue);
}

I32 SocketKeepAlive(I32 iSock) {
    return setIntOption(iSock, SO_KEEPALIVE, 1);
}

I32 SocketSetBufferSize(I32 iSock, int ic) {
    const I32 rc = setIntOption(iSock, SO_SNDBUF, ic);
    return rc != 0 ? rc : setIntOption(iSock, SO_RCVBUF, ic);
}

I32 SocketNoDelay(I32) {
    return 0;
}

I32 SocketToggleBlocking(I32 iSock, int fToggle) {
    return ioctl(iSock, FIONBIO, &fToggle);
}

int SocketErrorNumber() {
    return errno;
}

I32 SocketSocket() {
    return socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
}

I32 SocketBind(I32 iSock, int iPort) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = SocketHtoNS(static_cast<U16>(iPort));
    address.sin_addr.s_addr = INADDR_ANY;
    return bind(iSock, reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

I32 SocketListen(I32 iSock, int ic) {
    return listen(iSock, ic);
}

I32 SocketAccept(I32 iSock) {
    return accept4(iSock, nullptr, nullptr, SOCK_CLOEXEC);
}

I32 SocketShutdown(I32 iSock) {
    return shutdown(iSock, SHUT_RDWR);
}

I32 SocketLinger(I32 iSock) {
    const linger off{};
    return setsockopt(iSock, SOL_SOCKET, SO_LINGER, &off, sizeof off);
}

I32 SocketReuse(I32 iSock) {
    return setIntOption(iSock, SO_REUSEADDR, 1);
}

I32 SocketPeek(I32 iSock) {
    char byte;
    return static_cast<I32>(recv(iSock, &byte, 1, MSG_PEEK));
}

I32 SocketGetPeer(I32 iSock, sockaddr_in* pisaddr) {
    socklen_t length = sizeof *pisaddr;
    return getpeername(iSock, reinterpret_cast<sockaddr*>(pisaddr), &length);
}

U32 socketAsciiToInet(const char* psz) {
    return inet_addr(psz);
}

I32 socketInetToAscii(U32 u32Address, char (&psz)[INET_ADDRSTRLEN]) {
    U8 bytes[4];
    std::memcpy(bytes, &u32Address, sizeof bytes);
    std::snprintf(psz, sizeof psz, "%u.%u.%u.%u", bytes[0], bytes[1], bytes[2], bytes[3]);
    return 0;
}

I32 socketGetHostByAddress(U32 u32Address, char (&psz)[NI_MAXHOST]) {
    psz[0] = '\0';
    const hostent* pEntry = gethostbyaddr(&u32Address, sizeof u32Address, AF_INET);
    if (pEntry == nullptr)
        return -1;
    storeCutText(psz, pEntry->h_name, std::strlen(pEntry->h_name));
    return 0;
}
