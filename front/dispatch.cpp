#include "front/dispatch.h"

#include "client/kxclient.h"
#include "front/cmdline.h"
#include "front/console.h"
#include "front/mbcs.h"
#include "front/options.h"
#include "ops/ops.h"

namespace {

/// Splits "<host>:<path>" at its first colon, in place. Without one, and where a drive letter
/// stands before it, all is the path and the host is this one.
void splitServerPath(char* pszArg, const char** ppszHost, const char** ppszPath) {
    const bool fDriveLetter = pszArg[0] != '\0' && pszArg[1] == ':';
    char* pszColon = fDriveLetter ? nullptr : MBstrchr(pszArg, ':');
    if (pszColon == nullptr) {
        *ppszHost = LocalHost;
        *ppszPath = pszArg;
        return;
    }
    *pszColon = '\0';
    *ppszHost = pszArg;
    *ppszPath = pszColon + 1;
}

I32 getVersion(CONNECT_PARAMS* pcp) {
    if (managerGetVersion(pcp) == 0)
        return ACCEPTED;
    noteEnding(ENDING_FAILED, "[%s] did not tell its version", pcp->host);
    return -1;
}

/// Connects to one of copy's two servers and learns its type. `pszRole` is "source" or
/// "destination", `pszRefusal` what is said of a server type that cannot copy.
I32 connectCopyServer(CONNECT_PARAMS* pcp, const char* pszRole, const char* pszRefusal) {
    if (connectToKxsrv(pcp) != 0) {
        displayUnreached("\nFailed to connect to %s server", pszRole);
        return -1;
    }
    displayConsoleMessage("\nConnected to %s server", pszRole);
    if (getServerInfo(pcp) != 0)
        return -1;
    if (pcp->serverType == SERVER_TYPE_PXSRV) {
        displayFailure("%s", pszRefusal);
        return -1;
    }
    return getVersion(pcp);
}

constexpr char notOnPxsrv[] = "Supported PXSRV commands are OPTS and STOP only.";

/// Connects to copy's source for the operation, and to its destination to check its type; the
/// operation makes a destination connection of its own.
I32 connectForCopy(int argc, char** argv) {
    if (argc - iOptInd < 2) {
        displayMisuse("Source and destination repositories must be specified.");
        return SHOW_USAGE;
    }
    splitServerPath(argv[iOptInd], &copyParams.sourceHost, &copyParams.sourceFile);
    splitServerPath(argv[iOptInd + 1], &copyParams.destHost, &copyParams.destFile);

    cp.host = copyParams.sourceHost;
    if (connectCopyServer(&cp, "source", notOnPxsrv) != ACCEPTED)
        return -1;
    ServerType = cp.serverType;

    CONNECT_PARAMS cpDest{};
    cpDest.host = copyParams.destHost;
    if (connectCopyServer(&cpDest, "destination", "PXSRV does not support KXADMIN Copy") !=
        ACCEPTED)
        return -1;
    displayEmptyLine();
    managerDisconnect(cpDest.s);
    return ACCEPTED;
}

/// Connects for the commands that talk to one server.
I32 connectForCommand(int argc, char** argv, int operation) {
    if (iOptInd < argc)
        cp.host = argv[iOptInd];
    if (connectToKxsrv(&cp) != 0 || getServerInfo(&cp) != 0)
        return -1;
    ServerType = cp.serverType;
    if (ServerType == SERVER_TYPE_PXSRV && operation != OPERATION_OPTIONS &&
        operation != OPERATION_STOP) {
        displayFailure("%s", notOnPxsrv);
        return -1;
    }
    return ServerType != SERVER_TYPE_KXSRV ? getVersion(&cp) : ACCEPTED;
}

I32 runOperation(int operation, Modifiers* pModifiers) {
    switch (operation) {
    case OPERATION_STATS: return OperationStats(&cp);
    case OPERATION_LIST: return OperationList(&cp, pModifiers->listcommand, pModifiers->connNum);
    case OPERATION_STOP: return OperationStop(&cp, pModifiers->killconn, &pModifiers->passwd);
    case OPERATION_COPY: return OperationCopy(&cp, &pModifiers->passwd, &copyParams);
    case OPERATION_OPTIONS:
        return OperationOptions(&cp, pModifiers->changeLogFlag, pModifiers->logLevel,
                                &pModifiers->passwd);
    case OPERATION_BENCH:
        return OperationBench(&cp, pModifiers->sweepSize, pModifiers->largestChunkSize,
                              pModifiers->benchLog);
    case OPERATION_TEST: return OperationTest(&cp, &testInfo);
    default: displayFailure("Unknown Operation in ProcessCommandLine"); return -1;
    }
}

} // namespace

I32 connectAndRun(int argc, char** argv, int operation, Modifiers* pModifiers) {
    I32 rc = operation == OPERATION_COPY ? connectForCopy(argc, argv)
                                         : connectForCommand(argc, argv, operation);
    if (rc != ACCEPTED)
        return rc;
    rc = runOperation(operation, pModifiers);
    // stop leaves its connection to the operation and the server.
    if (operation != OPERATION_STOP)
        managerDisconnect(cp.s);
    return rc;
}
