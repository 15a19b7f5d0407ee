#include "client/kxclient.h"
#include "front/console.h"
#include "front/settings.h"
#include "ops/ops.h"

static constexpr int HIGHEST_LOG_LEVEL = 3;

static void getOptions(CONNECT_PARAMS* pcp) {
    static char opt[MAX_REPLY_DATA]; // clear from the start; a run shows one text
    if (managerGetOptions(pcp->s, opt) < 0) {
        displayConsoleMessage("Error retrieving KXSRV options.");
        return;
    }
    displayEmptyLine();
    displayConsoleMessage("%s", Separator);
    parseAndPrintBuffer(opt, sizeof opt);
    displayConsoleMessage("%s", Separator);
}

I32 OperationOptions(CONNECT_PARAMS* pcp, int changeLogFlag, int logLevel, PasswordStruct* passwd) {
    if (changeLogFlag == 0) {
        getOptions(pcp);
        return 0;
    }
    if (verifyPassword(pcp, passwd) != 0) {
        displayConsoleMessage("Change logging level cancelled.");
        return -1;
    }
    if (logLevel > HIGHEST_LOG_LEVEL) {
        displayConsoleMessage("Invalid log level specified, change logging level cancelled.");
        return -1;
    }
    LogLevel = logLevel;
    displayConsoleMessage("Logging level set to [%s].",
                          logLevelDescription(static_cast<U32>(LogLevel)));
    managerSetLogLevel(pcp->s, static_cast<U32>(LogLevel));
    return 0;
}
