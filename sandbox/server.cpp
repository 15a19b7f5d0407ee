#include "sandbox/server.h"

#include "sandbox/command.h"
#include "sandbox/connection.h"
#include "sandbox/log.h"
#include "sandbox/paths.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <system_error>

/// Attempts at one free port for all addresses, when somebody else has it on one of them.
static constexpr int PORT_ATTEMPTS = 20;

// Listening

static std::string addressText(const sockaddr_in& address) {
    char szAddress[INET_ADDRSTRLEN];
    socketInetToAscii(address.sin_addr.s_addr, szAddress);
    return std::string(szAddress) + ':' + std::to_string(SocketNtoHS(address.sin_port));
}

static sockaddr_in localAddress(I32 s) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getsockname(s, reinterpret_cast<sockaddr*>(&address), &length);
    return address;
}

/// A listening socket on `host`; negative with errno set when there can be none.
static Descriptor listenAt(const std::string& host, U32 u32Port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = SocketHtoNS(static_cast<U16>(u32Port));
    address.sin_addr.s_addr = socketAsciiToInet(host.c_str());
    Descriptor s(SocketSocket());
    SocketReuse(s.fd);
    // Non-blocking: a client may be gone again between poll and accept.
    if (bind(s.fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        SocketListen(s.fd, SOMAXCONN) != 0 || SocketToggleBlocking(s.fd, 1) != 0)
        return {};
    return s;
}

/// Listens on every address at one port. Returns null, or the address that could not be had.
static const std::string* tryListening(Server& server) {
    server.listeners.clear();
    server.u32Port = server.options.u32Port;
    for (const std::string& host : server.options.addresses) {
        Descriptor s = listenAt(host, server.u32Port);
        if (s.fd < 0)
            return &host;
        server.u32Port = SocketNtoHS(localAddress(s.fd).sin_port);
        server.listeners.push_back(std::move(s));
    }
    return nullptr;
}

static bool startListening(Server& server) {
    const std::string* pFailed = tryListening(server);
    for (int i = 1; i < PORT_ATTEMPTS && pFailed != nullptr && server.options.u32Port == 0 &&
                    errno == EADDRINUSE;
         ++i)
        pFailed = tryListening(server);
    if (pFailed == nullptr)
        return true;
    complain("cannot listen on %s port %u: %s", pFailed->c_str(), server.u32Port,
             std::strerror(errno));
    return false;
}

static bool openDirectory(Server& server) {
    const char* pszDirectory = server.options.directory.c_str();
    server.directory = Descriptor(open(pszDirectory, O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (server.directory.fd < 0) {
        complain("cannot serve %s: %s", pszDirectory, std::strerror(errno));
        return false;
    }
    // A kernel that cannot resolve names for us is found out now and not by the first client.
    const Descriptor probe(openBelow(server.directory.fd, "/", O_PATH));
    if (probe.fd == -ENOSYS)
        complain("cannot serve files: openat2 is missing, which came with Linux 5.6");
    else if (probe.fd == -EPERM)
        complain(
            "cannot serve files: a filter of system calls, as of a container, forbids openat2");
    else if (probe.fd < 0)
        complain("cannot resolve names below %s: %s", pszDirectory, std::strerror(-probe.fd));
    return probe.fd >= 0;
}

// Connections

/// Greets with the identifier that refuses.
static void refuse(Server& server, Descriptor socket, const char* pszWhy) {
    logLine(LEVEL_WARNING, "connection refused: %s", pszWhy);
    ++server.u64Refused;
    static constexpr U8 REFUSAL[4] = {};
    socketSendBuffer(socket.fd, REFUSAL, sizeof REFUSAL);
}

static std::unique_ptr<Connection> makeConnection(Descriptor socket) {
    const int iOn = 1;
    setsockopt(socket.fd, IPPROTO_TCP, TCP_NODELAY, &iOn, sizeof iOn);
    SocketKeepAlive(socket.fd); // a client whose host vanished must not hold its locks for ever
    sockaddr_in peer{};
    SocketGetPeer(socket.fd, &peer);
    auto connection = std::make_unique<Connection>();
    connection->u32PeerAddress = peer.sin_addr.s_addr;
    connection->peer = addressText(peer);
    connection->local = addressText(localAddress(socket.fd));
    connection->socket = std::move(socket);
    return connection;
}

/// Files the connection under the lowest free number, so that numbers stay within those that a
/// kill can name.
static Connection& admit(Server& server, std::unique_ptr<Connection> connection) {
    const std::lock_guard guard(server.mutex);
    U32 u32Free = 1;
    for (const auto& [u32Number, other] : server.connections) {
        if (u32Number != u32Free)
            break;
        ++u32Free;
    }
    connection->u32Number = u32Free;
    connection->u64Serial = ++server.u64Accepted;
    return *server.connections.emplace(u32Free, std::move(connection)).first->second;
}

static void startThread(Server& server, Connection& connection) {
    try {
        connection.thread = std::thread(serveConnection, std::ref(server), std::ref(connection));
    } catch (const std::system_error& error) {
        std::unique_ptr<Connection> refused;
        {
            const std::lock_guard guard(server.mutex);
            refused = std::move(server.connections.extract(connection.u32Number).mapped());
            --server.u64Accepted;
            server.left.notify_all();
        }
        refuse(server, std::move(refused->socket), error.what());
    }
}

static bool isFull(Server& server) {
    const std::lock_guard guard(server.mutex);
    return server.connections.size() >= server.options.u32MostConnections;
}

static void acceptConnection(Server& server, const Descriptor& listener) {
    Descriptor socket(SocketAccept(listener.fd));
    if (socket.fd >= 0 && isFull(server))
        refuse(server, std::move(socket), "there are as many as allowed");
    else if (socket.fd >= 0)
        startThread(server, admit(server, makeConnection(std::move(socket))));
    else if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
        // The client stays in the queue; without a pause we would ask for it again at once.
        logLine(LEVEL_ERROR, "cannot accept a connection: %s", std::strerror(errno));
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
}

static void joinEnded(Server& server) {
    std::vector<std::unique_ptr<Connection>> ended;
    {
        const std::lock_guard guard(server.mutex);
        ended.swap(server.ended);
    }
    for (const auto& connection : ended)
        connection->thread.join();
}

/// Closes the listeners and every connection, and waits for their threads.
static void stopServing(Server& server) {
    server.listeners.clear();
    {
        std::unique_lock guard(server.mutex);
        for (const auto& [u32Number, connection] : server.connections) {
            connection->fKilled = true;
            SocketShutdown(connection->socket.fd);
        }
        server.left.notify_all();
        server.left.wait(guard, [&] { return server.connections.empty(); });
    }
    joinEnded(server);
}

// The main loop

namespace {

/// What the loop watches besides the server itself.
struct Watch {
    Descriptor signals;
    pid_t command = 0; ///< 0: none was asked for
    int iStatus = 0;   ///< to exit with
    bool fEnd = false;
};

} // namespace

static void hearSignal(Watch& watch) {
    signalfd_siginfo info{};
    if (read(watch.signals.fd, &info, sizeof info) != sizeof info)
        return;
    const int iSignal = static_cast<int>(info.ssi_signo);
    if (iSignal == SIGCHLD && watch.command != 0) {
        const int iStatus = commandStatus(watch.command);
        watch.fEnd = iStatus >= 0;
        watch.iStatus = std::max(iStatus, 0);
    } else if (iSignal != SIGCHLD && watch.command == 0) {
        logLine(LEVEL_INFORMATION, "stopped by signal %d", iSignal);
        watch.fEnd = true;
    } else if (iSignal != SIGCHLD && info.ssi_code != SI_KERNEL) {
        kill(watch.command, iSignal); // what the terminal sends, the command has had itself
    }
}

static void hearConnections(Server& server, Watch& watch) {
    eventfd_t ignored;
    eventfd_read(server.wakeUp.fd, &ignored);
    joinEnded(server);
    if (server.fStop) {
        stopServing(server);
        watch.fEnd = watch.fEnd || watch.command == 0; // a command is waited for all the same
    }
}

static void serve(Server& server, Watch& watch) {
    while (!watch.fEnd) {
        std::vector<pollfd> polled{{watch.signals.fd, POLLIN, 0}, {server.wakeUp.fd, POLLIN, 0}};
        for (const Descriptor& listener : server.listeners)
            polled.push_back({listener.fd, POLLIN, 0});
        if (poll(polled.data(), polled.size(), -1) < 0)
            continue;
        for (std::size_t i = 0; i < server.listeners.size(); ++i)
            if (polled[2 + i].revents != 0)
                acceptConnection(server, server.listeners[i]);
        if (polled[0].revents != 0)
            hearSignal(watch);
        if (polled[1].revents != 0)
            hearConnections(server, watch);
    }
    stopServing(server);
}

/// The signals come through a descriptor from now on, here and not to the connections' threads.
static Descriptor watchSignals() {
    signal(SIGPIPE, SIG_IGN); // a log that nobody reads any more
    signal(SIGXFSZ, SIG_IGN); // a file that grows beyond the limit is the writing client's error
    signal(SIGCHLD, SIG_DFL); // ignored, the command would leave no status
    sigset_t watched;
    sigemptyset(&watched);
    for (const int iSignal : {SIGINT, SIGTERM, SIGHUP, SIGCHLD})
        sigaddset(&watched, iSignal);
    pthread_sigmask(SIG_BLOCK, &watched, nullptr);
    return Descriptor(signalfd(-1, &watched, SFD_CLOEXEC | SFD_NONBLOCK));
}

static void announce(const Server& server) {
    std::string line = "kxsandbox: ready on";
    for (const std::string& address : server.options.addresses)
        line.append(" ").append(address);
    std::printf("%s port %u\n", line.c_str(), server.u32Port);
    std::fflush(stdout);
}

/// Each connection may take two descriptors, of which 999 do not fit the usual limit.
static void raiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

int runServer(const Options& options) {
    Server server{options};
    Watch watch;
    watch.signals = watchSignals();
    server.wakeUp = Descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (watch.signals.fd < 0 || server.wakeUp.fd < 0) {
        complain("cannot start: %s", std::strerror(errno));
        return 1;
    }
    if (!openDirectory(server) || !startListening(server))
        return 1;
    if (options.ppszCommand == nullptr)
        announce(server);
    else if (watch.command = startCommand(options.ppszCommand, server.u32Port); watch.command < 0)
        return -watch.command;
    raiseDescriptorLimit(); // after the command has started, whose limits are not our affair
    serve(server, watch);
    return watch.iStatus;
}
