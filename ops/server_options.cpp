#include "client/kxclient.h"
#include "front/console.h"
#include "front/settings.h"
#include "ops/ops.h"

static constexpr int HIGHEST_LOG_LEVEL = 3;

static void getOptions(CONNECT_PARAMS* pcp) {
    static char opt[MAX_REPLY_DATA]; // clear from the start; a run shows one text
    if (managerGetOptions(pcp->s, opt) < 0) {
        displayFailure("Error retrieving KXSRV options.");
        return;
    }
    displayEmptyLine();
    displayConsoleMessage("%s", Separator);
    parseAndPrintBuffer(opt, sizeof opt);
    displaySuccess("%s", Separator);
}

I32 OperationOptions(CONNECT_PARAMS* pcp, int changeLogFlag, int logLevel, PasswordStruct* passwd) {
    if (changeLogFlag == 0) {
        getOptions(pcp);
        return 0;
    }
    if (verifyPassword(pcp, passwd) != 0) {
        displayFailure("Change logging level cancelled.");
        return -1;
    }
    if (logLevel > HIGHEST_LOG_LEVEL) {
        displayMisuse("Invalid log level specified, change logging level cancelled.");
        return -1;
    }
    LogLevel = logLevel;
    displayConsoleMessage("Logging level set to [%s].",
                          logLevelDescription(static_cast<U32>(LogLevel)));
    const I32 rc = managerSetLogLevel(pcp->s, static_cast<U32>(LogLevel));
    if (rc != 0)
        noteEnding(ENDING_FAILED, "[%s] did not set its logging level (%d)", pcp->host, rc);
    else
        recordEnding(ENDING_DONE);
    return 0;
}
