#include "front/settings.h"

const char* const LocalHost = "localhost";
const char* const Separator =
    "==============================================================================";

CONNECT_PARAMS cp = {
    .s = -1, .serverType = SERVER_TYPE_KXSRV, .versionId = 0, .host = LocalHost, .versionStr = {}};
CopyParams copyParams;
TestInfo testInfo;
char Manager[PATH_SIZE] = "testlib.dat";
U16 KXSRVPort = DEFAULT_PORT;
U16 Quiet = 0;
int fBypassFreeSpaceChecking = 0;
int fBypassActiveConnectionPrompting = 0;
U32 ServerType = SERVER_TYPE_KXSRV;
I32 LogLevel = -1;
Ending CommandEnding = ENDING_OPEN;
int EndingSignal = 0;
int fStrict = 0;
int fProgress = 1;
int fVerify = 0;
const char* PasswordFile = nullptr;
int TimeoutAttempts = 30;
