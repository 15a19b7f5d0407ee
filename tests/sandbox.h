// The built sandbox, serving a directory of the test's own, and a client of bare messages.
#pragma once

#include "client/exchange.h"
#include "net/socket.h"
#include "tests/expect.h"
#include "tests/run_program.h"
#include "tests/scratch.h"
#include "tests/scripted_server.h"

/// With the password "secret", at a port of the system's choice, or as a script starts it.
struct Sandbox : Scratch {
    explicit Sandbox(const string& options = "", const string& script = "")
        : run("/bin/sh",
              {"-c",
               "cd " + directory + "; PATH=$(dirname $0):$PATH\n" +
                   (script.empty() ? "exec kxsandbox -P0 -psecret " + options : script),
               KXSANDBOX_PROGRAM},
              {}) {
        if (!run.waitFor("ready on ") || !run.waitFor("\n")) {
            ADD_FAILURE() << "the sandbox does not start";
            throw testing::AssertionException({testing::TestPartResult::kFatalFailure, "", 0, ""});
        }
        port = static_cast<U16>(std::stoul(run.output.substr(run.output.find("port ") + 5)));
    }
    TerminalRun run;
    U16 port;
};

struct Peer {
    static constexpr I32 ENDED = 9999; // in the place of a result, after a minute too

    explicit Peer(const Sandbox& sandbox) : s(socketConnectToHost("127.0.0.1", sandbox.port)) {
        const timeval minute{60, 0};
        setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &minute, sizeof minute);
        greeting = receive(4);
    }
    ~Peer() {
        ask(REQUEST_DISCONNECT); // when the reply comes, the server has nothing of it any more
        socketClose(s);
    }
    Peer(Peer&&) = delete;

    /// At most so many bytes, fewer when the connection ends.
    string receive(std::size_t most) const {
        string bytes(most, '\0');
        const I32 n = socketReceiveBuffer(s, bytes.data(), static_cast<I32>(most));
        bytes.resize(static_cast<std::size_t>(std::max(n, 0)));
        if (bytes.size() < most)
            shutdown(s, SHUT_RDWR);
        return bytes;
    }
    string receiveReply() const {
        const string header = receive(12);
        return header.size() < 12 ? header
                                  : header + receive(getNumber(&header[4]) + getNumber(&header[8]));
    }
    void send(const string& bytes) const {
        socketSendBuffer(s, bytes.data(), static_cast<I32>(bytes.size()));
    }
    /// The result of the next reply, or ENDED; its data go to `data`.
    I32 takeReply() {
        const string bytes = receiveReply();
        if (bytes.size() < 12)
            return ENDED;
        data = bytes.substr(12);
        return static_cast<I32>(getNumber(bytes.data()));
    }
    I32 ask(U32 code, const string& parameters = "") {
        send(requestBytes(code, parameters));
        return takeReply();
    }
    I32 open(const string& name, U32 mode = 0x42) {
        return ask(REQUEST_FILE_OPEN, be32(mode) + name);
    }
    I32 prove(const string& password = "secret") {
        return ask(REQUEST_VERIFY_PASSWORD, '\0' + password + '\0');
    }
    I32 lock(U32 offset, U32 length) {
        return ask(REQUEST_16GB_LARGE_LOCK, be32(0) + be32(offset) + be32(0) + be32(length));
    }

    I32 s;
    string greeting, data;
};
