// The socket layer: what a connection is set to, what its failures come back as.
#include "net/socket.h"

#include <gtest/gtest.h>

#include <linux/tcp.h>
#include <sys/socket.h>

TEST(Socket, ConnectsWithItsOptions) {
    const I32 listener = SocketSocket();
    SocketListen(listener, 1); // at a port of the system's choice
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    const U16 port = SocketNtoHS(address.sin_port);
    const I32 s = socketConnectToHost("localhost", port), accepted = SocketAccept(listener);
    // The kernel counts its own overhead in, by doubling.
    for (const auto& [option, expected] :
         {std::pair(SO_KEEPALIVE, 1), {SO_SNDBUF, 2 * 12288}, {SO_RCVBUF, 2 * 12288}}) {
        int value = -1;
        getsockopt(s, SOL_SOCKET, option, &value, &(length = sizeof value));
        EXPECT_EQ(value, expected) << option;
    }
    // A window offered before the buffer shrank lets the server send what is then dropped.
    tcp_info info{};
    getsockopt(accepted, IPPROTO_TCP, TCP_INFO, &info, &(length = sizeof info));
    EXPECT_LE(info.tcpi_snd_wnd, 2U * 12288);
    for (const I32 each : {accepted, s, listener})
        socketClose(each);
    EXPECT_EQ(socketConnectToHost("127.0.0.1", port), -2);
    EXPECT_EQ(socketConnectToHost("256.0.0.1", port), -4);
}
