// Connecting: the socket's options, the greeting, the port and where it comes from, the attempts.
#include "client/kxclient.h"
#include "net/socket.h"
#include "tests/expect.h"
#include "tests/run_program.h"
#include "tests/scripted_server.h"

#include <atomic>
#include <csignal>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

TEST(Connect, SetsItsSocketUp) {
    const I32 listener = SocketSocket();
    SocketListen(listener, 1); // at a port of the system's choice
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    const U16 port = SocketNtoHS(address.sin_port);
    const I32 s = socketConnectToHost("localhost", port);
    // The kernel counts its own overhead in, by doubling.
    for (const auto& [option, expected] :
         {std::pair(SO_KEEPALIVE, 1), {SO_SNDBUF, 2 * 12288}, {SO_RCVBUF, 2 * 12288}}) {
        int value = -1;
        getsockopt(s, SOL_SOCKET, option, &value, &(length = sizeof value));
        EXPECT_EQ(value, expected) << "socket option " << option;
    }
    for (const I32 each : {s, listener})
        socketClose(each);
    EXPECT_EQ(socketConnectToHost("127.0.0.1", port), -2);
    EXPECT_EQ(socketConnectToHost("256.0.0.1", port), -4);
}

static std::atomic<bool> fCut;

/// What ^Z and fg do in the middle of a write: the send comes back with a part of it.
TEST(Connect, SendsTheRestThatASignalKeptBack) {
    const struct {
        Name name;
        I32 first; // bytes of the first part
    } rows[] = {{"cut in the first part", 399976}, {"cut in the second part", 24}};
    const string bytes = repository(400000);
    forEachRow(rows, [&](const auto& row) {
        int ends[2];
        const int iSize = 8192;
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &iSize, sizeof iSize);
        fCut = false;
        const auto before = std::signal(SIGALRM, [](int) { fCut = true; });
        string received;
        std::thread reader([&, sender = pthread_self()] {
            // Some of it is here and has left no room for the rest: the send waits. It comes back
            // when the signal does.
            SocketPeek(ends[1]);
            for (pthread_kill(sender, SIGALRM); !fCut;)
                usleep(1000);
            char chunk[4096];
            for (ssize_t n; (n = read(ends[1], chunk, sizeof chunk)) > 0;)
                received.append(chunk, static_cast<std::size_t>(n));
        });
        const char* const pMore = bytes.data() + row.first;
        EXPECT_EQ(socketSendBuffers(ends[0], bytes.data(), row.first, pMore, 400000 - row.first),
                  400000);
        socketClose(ends[0]);
        reader.join();
        socketClose(ends[1]);
        std::signal(SIGALRM, before);
        expectText(bytes, received);
    });
}

/// What is said of the first attempts out of `all`.
static string attempts(const string& host, unsigned port, int count, int all) {
    string text;
    for (int left = all; left > all - count; --left)
        text += "\rConnection to [" + host + "] port [" + std::to_string(port) +
                "] failed.  Retrying [" + std::to_string(left) + "]  ";
    return text;
}

TEST(Connect, RetriesUntilTheServerAppears) {
    ScriptedServer elsewhere; // its port is free at the next address
    TerminalRun run(KXADMIN_PROGRAM, {"stat", "127.0.0.2"}, serverAt(elsewhere.port));
    ASSERT_TRUE(run.waitFor("Retrying [29]"));
    ScriptedServer server(INADDR_LOOPBACK + 1, elsewhere.port);
    EXPECT_EQ(run.finish(), 0);
    int count = 0; // two, or more where this test is not given the processor for a second
    for (auto at = run.output.find("Retrying"); at != string::npos; ++count)
        at = run.output.find("Retrying", at + 1);
    const string said = attempts("127.0.0.2", server.port, count, 30) + "\rConnected" +
                        string(54, ' ') + "\n\n====";
    const std::size_t at = run.output.find("\rConn");
    expectText(said, run.output.substr(std::min(at, run.output.size()), said.size()));
}

TEST(Connect, GivesUp) {
    ScriptedServer elsewhere; // so that nobody listens at its port here
    const Arguments words{"--tries", "2", "--progress", "stat", "127.0.0.3"};
    const RunResult run = runProgram(KXADMIN_PROGRAM "-strict", words, serverAt(elsewhere.port));
    const string blank(63, ' ');
    expectText(attempts("127.0.0.3", elsewhere.port, 2, 2) + "\r" + blank + "\r", run.err);
    expectText("[banner]\nUnable to connecto to KXSRV at [127.0.0.3] or IP Address is unkown.\n",
               abridged(run.out));
}
