#include "client/kxclient.h"

#include "client/exchange.h"
#include "front/console.h"
#include "front/settings.h"
#include "net/socket.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <unistd.h>

PADDED_REQUEST_HEADER Request;
PADDED_REQUEST_2PARAMETER Request2Param;
PADDED_REQUEST_4PARAMETER Request4Param;
PADDED_REPLY_HEADER Reply;

U32 ManagerErrno = 0;
U32 ManagerSysErrno = 0;
char ManagerErrorText[MAX_REPLY_DATA];

U32 ManagerConnectRetries = 30;
U32 ManagerDataLimit = 0;
U32 ManagerLocalIP = 0;

// The sockets that the client has opened and not yet closed; -1 marks a free place. A command has
// at most two.
static I32 heldSockets[] = {-1, -1, -1, -1};

static I32* findHeld(I32 s) {
    return std::find(std::begin(heldSockets), std::end(heldSockets), s);
}

static bool holdsSocket(I32 s) {
    return s >= 0 && findHeld(s) != std::end(heldSockets);
}

bool holdSocket(I32 s) {
    I32* const pFree = findHeld(-1);
    if (pFree == std::end(heldSockets))
        return false;
    *pFree = s;
    return true;
}

void managerAbandon(I32 s) {
    if (!holdsSocket(s))
        return;
    *findHeld(s) = -1;
    socketClose(s);
}

void putNumber(void* pTarget, U32 u32) {
    const U32 u32Wire = socketHtoNL(u32);
    std::memcpy(pTarget, &u32Wire, sizeof u32Wire);
}

U32 getNumber(const void* pSource) {
    U32 u32Wire;
    std::memcpy(&u32Wire, pSource, sizeof u32Wire);
    return socketNtoHL(u32Wire);
}

void managerSetSysError(U32 err) {
    ManagerSysErrno = err;
    const char* pszText = std::strerror(static_cast<int>(err));
    storeCutText(ManagerErrorText, pszText, std::strlen(pszText));
}

I32 localFailure(U32 u32Code) {
    ManagerErrno = u32Code;
    managerSetSysError(static_cast<U32>(errno));
    return -static_cast<I32>(u32Code);
}

static I32 loseConnection(I32 s, U32 u32Code) {
    managerAbandon(s);
    return localFailure(u32Code);
}

U32 padLengthFor(U32) {
    return 0;
}

/// Sends the request at `pRequest`. Returns 0 or a negated local code.
static I32 sendRequest(I32 s, REQUEST_HEADER* pRequest, U32 u32Opcode, U32 u32ParameterLength,
                       const FileData& data) {
    if (!holdsSocket(s)) {
        errno = EBADF;
        return localFailure(LOCAL_NOT_SENT);
    }
    const U32 u32AllLength = u32ParameterLength + data.u32Sent;
    const U32 u32PadLength = padLengthFor(u32AllLength);
    pRequest->Opcode = socketHtoNL(u32Opcode);
    pRequest->Pad_Length = socketHtoNL(u32PadLength);
    pRequest->Parameter_Length = socketHtoNL(u32AllLength);
    const I32 length = static_cast<I32>(sizeof *pRequest + u32ParameterLength + u32PadLength);
    const I32 rc = data.u32Sent == 0 ? socketSendBuffer(s, pRequest, length)
                                     : socketSendBuffers(s, pRequest, length, data.pSent,
                                                         static_cast<I32>(data.u32Sent));
    return rc < 0 ? loseConnection(s, LOCAL_NOT_SENT) : 0;
}

static bool receiveAll(I32 s, void* pTarget, U32 u32Length) {
    const I32 length = static_cast<I32>(u32Length);
    return length == 0 || socketReceiveBuffer(s, pTarget, length) == length;
}

/// Receives a whole reply into Reply, or its data where `data` says. Returns 0 or a negated local
/// code.
static I32 receiveReply(I32 s, const FileData& data) {
    REPLY_HEADER& header = Reply.Header;
    if (!receiveAll(s, &header, sizeof header))
        return loseConnection(s, LOCAL_HEADER_NOT_RECEIVED);
    header.Result = static_cast<I32>(socketNtoHL(static_cast<U32>(header.Result)));
    header.Result_Length = socketNtoHL(header.Result_Length);
    header.Pad_Length = socketNtoHL(header.Pad_Length);

    const U64 u64Length = U64{header.Result_Length} + header.Pad_Length;
    if (u64Length > MAX_REPLY_DATA)
        return loseConnection(s, LOCAL_REPLY_TOO_LONG);
    const bool fTheirs = header.Result == 0 && header.Result_Length <= data.u32Room;
    // Fewer bytes than announced are a failure too: behind them the area holds an older reply.
    if (!receiveAll(s, fTheirs ? data.pReceived : Reply.Padding, header.Result_Length) ||
        !receiveAll(s, Reply.Padding + header.Result_Length, header.Pad_Length))
        return loseConnection(s, LOCAL_DATA_NOT_RECEIVED);
    return 0;
}

I32 transact(I32 s, REQUEST_HEADER* pRequest, U32 u32Opcode, U32 u32ParameterLength,
             const FileData& data) {
    const I32 rc = sendRequest(s, pRequest, u32Opcode, u32ParameterLength, data);
    return rc < 0 ? rc : receiveReply(s, data);
}

/// Records an error that the server reported in Reply, and returns the operation's result.
static I32 takeResult() {
    const I32 result = Reply.Header.Result;
    if (result > 0) {
        ManagerSysErrno = static_cast<U32>(result);
        const auto* pText = reinterpret_cast<const char*>(Reply.Padding);
        storeCutText(ManagerErrorText, pText, textLength(pText, Reply.Header.Result_Length));
        ManagerErrno = 0;
        return -result;
    }
    if (result < 0) {
        ManagerErrno = 0 - static_cast<U32>(result);
        ManagerSysErrno = 0;
        ManagerErrorText[0] = '\0';
    }
    return result;
}

I32 exchange(I32 s, REQUEST_HEADER* pRequest, U32 u32Opcode, U32 u32ParameterLength,
             const FileData& data) {
    const I32 rc = transact(s, pRequest, u32Opcode, u32ParameterLength, data);
    return rc < 0 ? rc : takeResult();
}

I32 managerConnect(CONNECT_PARAMS* pcp) {
    const char* pszPort = std::getenv("KXSRV_CTRL_PORT");
    const long port = pszPort != nullptr ? std::strtol(pszPort, nullptr, 10) : DEFAULT_PORT;
    return managerConnectToPort(pcp, static_cast<U16>(port));
}

/// Up to ManagerConnectRetries attempts a second apart, each failure overwriting one line.
static I32 connectWithRetries(const char* host, U16 port) {
    I32 s = -1;
    U32 retries = ManagerConnectRetries;
    for (; retries != 0; --retries) {
        s = socketConnectToHost(host, port);
        if (s >= 0)
            break;
        displayProgress("\rConnection to [%s] port [%d] failed.  Retrying [%u]  ", host, port,
                        retries);
        if (retries != 1 || fStrict == 0)
            sleep(1);
    }
    if (retries != ManagerConnectRetries)
        displayProgress(s >= 0 ? "\r%-63s\n" : "\r%63s\r", s >= 0 ? "Connected" : "");
    return s;
}

/// One attempt, whose failure is told in the report file of test.
static I32 connectForReport(const char* host, U16 port) {
    const I32 s = socketConnectToHost(host, port);
    if (s < 0) {
        recordEnding(ENDING_UNREACHED);
        logTempFileMessage(testInfo.hTempFile, "1\n");
        logTempFileMessage(testInfo.hTempFile, // "an KXSRV" is what readers of reports know
                           "Could not connect to an KXSRV on %s:%d. Ensure that you have the "
                           "correct server address and port number and that KXSRV is running on "
                           "that machine.\n",
                           host, KXSRVPort);
        closeTempFile(&testInfo);
    }
    return s;
}

/// What the server says first: its identifier for the connection, which must not be 0.
static I32 receiveGreeting(const CONNECT_PARAMS* pcp) {
    U32 connectionID;
    if (socketReceiveBuffer(pcp->s, &connectionID, sizeof connectionID) != sizeof connectionID) {
        noteEnding(ENDING_UNREACHED, "[%s] did not greet the connection", pcp->host);
        return loseConnection(pcp->s, LOCAL_GREETING_FAILED);
    }
    if (socketNtoHL(connectionID) == 0) {
        noteEnding(ENDING_UNREACHED, "[%s] refused the connection", pcp->host);
        return loseConnection(pcp->s, LOCAL_REFUSED);
    }
    return 0;
}

I32 managerConnectToPort(CONNECT_PARAMS* pcp, U16 portNumber) {
    pcp->s = -1;
    if (pcp->host == nullptr)
        return localFailure(LOCAL_BAD_ARGUMENT);
    if (socketInitialize() != 0)
        return localFailure(LOCAL_SOCKETS_NOT_READY);

    pcp->s = testInfo.fOutputToFile == 1 ? connectForReport(pcp->host, portNumber)
                                         : connectWithRetries(pcp->host, portNumber);
    if (pcp->s >= 0 && !holdSocket(pcp->s)) {
        socketClose(pcp->s);
        pcp->s = -1;
        errno = EMFILE;
    }
    if (pcp->s < 0)
        return localFailure(LOCAL_NOT_CONNECTED);

    const I32 rc = receiveGreeting(pcp);
    if (rc < 0)
        return rc;
    U8 buffer10[10];
    if (managerGetInternetAddress(pcp->s, buffer10) < 0)
        return localFailure(LOCAL_GREETING_FAILED);
    return 0;
}

I32 getServerInfo(CONNECT_PARAMS* pcp) {
    char szVersion[SERVER_VERSION_SIZE];
    const I32 type = BasicQueryServerType(pcp->s, szVersion);
    pcp->serverType = static_cast<U32>(type);
    if (type < 0) {
        displayFailure("Error querying server");
        return -1;
    }
    if (managerGetMaxData(pcp->s) <= 0) {
        noteEnding(ENDING_FAILED, "[%s] gave no data limit", pcp->host);
        return localFailure(LOCAL_GREETING_FAILED);
    }
    return 0;
}

I32 BasicQueryServerType(I32 s, char* serverVersion) {
    const I32 type = managerQueryServerType(s, serverVersion);
    return type < 0 ? -1 : type & 3;
}

I32 managerQueryServerType(I32 s, char* serverVersion) {
    if (serverVersion == nullptr)
        return localFailure(LOCAL_BAD_ARGUMENT);
    const I32 rc = exchange(s, &Request.Header, REQUEST_QUERY_SERVER_TYPE, 0);
    if (rc < 0)
        return rc;
    if (Reply.Header.Result_Length < 4)
        return localFailure(LOCAL_BAD_ARGUMENT);
    const std::size_t length =
        std::min<std::size_t>(Reply.Header.Result_Length - 4, SERVER_VERSION_SIZE - 1);
    std::memcpy(serverVersion, Reply.Padding + 4, length);
    serverVersion[length] = '\0';
    return static_cast<I32>(getNumber(Reply.Padding));
}

I32 managerGetMaxData(I32 s) {
    const I32 rc = exchange(s, &Request.Header, REQUEST_GET_MAX_DATA, 0);
    if (rc < 0)
        return rc;
    if (Reply.Header.Result_Length != 4)
        return localFailure(LOCAL_WRONG_LENGTH);
    if (ManagerDataLimit == 0)
        ManagerDataLimit = MAX_FILE_DATA;
    ManagerDataLimit = std::min(ManagerDataLimit, getNumber(Reply.Padding));
    return static_cast<I32>(ManagerDataLimit);
}

U32 managerFileMaxData() {
    return ManagerDataLimit;
}

I32 managerReplyResult() {
    const I32 result = Reply.Header.Result;
    return result > 0 ? -result : result;
}

I32 managerDisconnect(I32 s) {
    const I32 rc = transact(s, &Request.Header, REQUEST_DISCONNECT, 0);
    managerAbandon(s);
    return rc;
}
