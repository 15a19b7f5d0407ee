#include "client/kxclient.h"
#include "front/console.h"
#include "front/settings.h"
#include "ops/ops.h"

static void sendKill(CONNECT_PARAMS* pcp, int connNum) {
    if (managerKillConnection(pcp->s, static_cast<U32>(connNum)) == 0)
        displaySuccess("Connection %d on host %s killed.", connNum, pcp->host);
    else
        displayFailure("Connection %d is not active on host %s.", connNum, pcp->host);
}

/// Whether the server may be stopped with the connections that it has.
static bool mayStop(CONNECT_PARAMS* pcp) {
    if (ServerType != SERVER_TYPE_KXSRV || fBypassActiveConnectionPrompting != 0)
        return true;
    const I32 count = activeConnections(pcp);
    if (count == 0)
        return true;
    char sz[150];
    if (count == 1)
        std::snprintf(sz, sizeof sz,
                      "There is 1 active connection.\nAre you sure you want to stop the server?");
    else
        std::snprintf(sz, sizeof sz,
                      "There are %d active connections.\nAre you sure you want to stop the server?",
                      count);
    return confirm(sz) != 0;
}

/// 1 when the stop request was sent, 0 when the administrator declined.
static BOOL sendStop(CONNECT_PARAMS* pcp) {
    if (!mayStop(pcp)) {
        displayDeclined("\nStop cancelled.");
        return 0;
    }
    const I32 rc = managerStopServer(pcp->s);
    displayConsoleMessage("\nServer has been scheduled to stop.");
    if (rc < 0)
        noteEnding(ENDING_FAILED, "[%s] did not answer the request to stop", pcp->host);
    else if (managerReplyResult() != 0)
        noteEnding(ENDING_FAILED, "[%s] refused to stop (%d)", pcp->host, managerReplyResult());
    else
        recordEnding(ENDING_DONE);
    return 1;
}

I32 OperationStop(CONNECT_PARAMS* pcp, int killconn, PasswordStruct* passwd) {
    if (verifyPassword(pcp, passwd) != 0)
        return 0;
    if (killconn >= 0 && ServerType == SERVER_TYPE_PXSRV)
        displayFailure("PXSRV command STOP -k is not supported.");
    else if (killconn >= 0)
        sendKill(pcp, killconn);
    else if (sendStop(pcp) != 0)
        managerAbandon(pcp->s);
    return 0;
}
