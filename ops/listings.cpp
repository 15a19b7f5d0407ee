#include "client/kxclient.h"
#include "front/console.h"
#include "front/settings.h"
#include "ops/ops.h"

// The buffers for texts are clear from the program's start, at no cost; a run shows only one.

static void openFrame() {
    displayEmptyLine();
    displayConsoleMessage("%s", Separator);
}

static void printText(const GETSTATS_BUFFER& text) {
    parseAndPrintBuffer(text.pszStatsBuffer, sizeof text.pszStatsBuffer);
}

static void getStats(CONNECT_PARAMS* pcp) {
    static GETSTATS_BUFFER stats;
    openFrame();
    if (managerGetKXSRVStats(pcp->s, stats.pszStatsBuffer) != 0) {
        displayFailure("Failed receiving statistics.");
        return;
    }
    printText(stats);
    displaySuccess("%s", Separator);
}

static void getList(CONNECT_PARAMS* pcp) {
    static GETSTATS_BUFFER connInfo;
    openFrame();
    if (managerGetConnectionList(pcp->s, connInfo.pszStatsBuffer) < 0) {
        displayFailure("Could not get connection list on %s.", pcp->host);
        return;
    }
    printText(connInfo);
    displaySuccess("%s", Separator);
}

/// A text about one connection, `pszWhat` in the message when there is none.
static void getConnText(I32 s, U32 conn, I32 (*request)(I32, U32, char*), const char* pszWhat) {
    openFrame();
    static GETSTATS_BUFFER connInfo;
    if (request(s, conn, connInfo.pszStatsBuffer) != 0) {
        displayFailure("Connection %d is not active, could not get %s.", static_cast<int>(conn),
                       pszWhat);
        return;
    }
    printText(connInfo);
    displayEmptyLine();
    recordEnding(ENDING_DONE);
}

static void getConnStats(I32 s, U32 conn) {
    getConnText(s, conn, managerGetConnectionStats, "connection stats");
}

static void getConnLockList(I32 s, U32 conn) {
    getConnText(s, conn, managerGetLockList, "lock list");
}

I32 OperationStats(CONNECT_PARAMS* pcp) {
    getStats(pcp);
    return 0;
}

I32 OperationList(CONNECT_PARAMS* pcp, char listcommand, U16 connNum) {
    switch (listcommand) {
    case 0: getList(pcp); break;
    case 's': getConnStats(pcp->s, connNum); break;
    case 'l': getConnLockList(pcp->s, connNum); break;
    default: break;
    }
    return 0;
}

I32 activeConnections(CONNECT_PARAMS* pcp) {
    static GETSTATS_BUFFER connInfo;
    return std::max(managerGetConnectionList(pcp->s, connInfo.pszStatsBuffer), 0);
}
