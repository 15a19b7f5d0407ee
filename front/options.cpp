#include "front/options.h"

#include "client/kxclient.h"
#include "front/cmdline.h"
#include "front/console.h"
#include "front/mbcs.h"
#include "front/settings.h"
#include "front/version.h"
#include "ops/ops.h"
#include "ops/platform.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

/// What the modifiers ask for, beyond the process-wide settings.
struct Modifiers {
    U16 logLevel = 0; // of opts -s, when changeLogFlag is 1
    U16 changeLogFlag = 0;
    U16 connNum = 0; // of list -s or -l
    char listcommand = 0;
    int killconn = -1;
    PasswordStruct passwd{};
    U32 sweepSize = 4096;
    I32 largestChunkSize = 4096;
    char benchLog[PATH_SIZE] = "kxbench.log";
};

constexpr char optionString[] = "c:f:hP:oqbpr:s:l:t:k:Z:";

/// Bounds of a number in bytes, and what is said of one outside.
struct Limits {
    I32 least, most;
    const char* pszMessage;
};

constexpr Limits chunkLimits = {1024, 36864,
                                "largest read chunk size must be between 1024 and 36864\n"};
constexpr Limits sweepLimits = {4096, 65536, "Sweep size must be between 4096 and 65536"};

/// The numbers of -Z.
constexpr I32 BYPASS_SPACE_CHECK = 99;
constexpr I32 BYPASS_STOP_QUESTION = 100;

constexpr I32 ACCEPTED = 0; // beside SHOW_USAGE and -1: go on

/// Reads the option's argument as a number of at most `iSize` characters; what follows its leading
/// digits is ignored.
template<class Number> I32 readNumber(int iSize, Number* pValue) {
    if (isValidNumber(pszOptArg, iSize) != 0)
        return SHOW_USAGE;
    *pValue = static_cast<Number>(std::strtol(pszOptArg, nullptr, 10));
    return ACCEPTED;
}

/// Reads one of bench's sizes, a number of at most 5 digits within its limits.
template<class Number> I32 readSize(const Limits& limits, Number* pSize) {
    I32 size;
    if (readNumber(5, &size) != ACCEPTED)
        return SHOW_USAGE;
    if (size < limits.least || size > limits.most) {
        displayConsoleMessage("%s", limits.pszMessage);
        return -1;
    }
    *pSize = static_cast<Number>(size);
    return ACCEPTED;
}

/// -f: the report file of test, the system command of copy.
I32 readFileOption(int operation) {
    if (operation == OPERATION_TEST) {
        if (!storeText(testInfo.szTempFile, pszOptArg)) {
            printTo(stdout, "Temporary file path is too long.\n");
            return -1;
        }
        testInfo.fOutputToFile = 1;
        return ACCEPTED;
    }
    if (operation != OPERATION_COPY)
        return SHOW_USAGE;
    if (!storeText(copyParams.szSysCommand, pszOptArg)) {
        displayConsoleMessage("System copy command length is too long.");
        return -1;
    }
    return ACCEPTED;
}

I32 readRepositoryPath() {
    if (storeText(testInfo.szTestRep, pszOptArg))
        return ACCEPTED;
    displayConsoleMessage("Repository path is too long.");
    return -1;
}

I32 readBenchPath(char (&szPath)[PATH_SIZE]) {
    if (storeText(szPath, pszOptArg))
        return ACCEPTED;
    displayConsoleMessage("Path [%s] is too long.", pszOptArg);
    return -1;
}

/// -s and -l of list: one of them, once.
I32 readListCommand(char command, Modifiers* pModifiers) {
    if (pModifiers->listcommand != 0) {
        displayConsoleMessage("Only one of -s or -l can be specified.");
        displayEmptyLine();
        return SHOW_USAGE;
    }
    pModifiers->listcommand = command;
    return readNumber(4, &pModifiers->connNum);
}

I32 readOptionS(int operation, Modifiers* pModifiers) {
    switch (operation) {
    case OPERATION_OPTIONS:
        pModifiers->changeLogFlag = 1;
        return readNumber(1, &pModifiers->logLevel);
    case OPERATION_LIST: return readListCommand('s', pModifiers);
    case OPERATION_BENCH: return readSize(sweepLimits, &pModifiers->sweepSize);
    default: return ACCEPTED;
    }
}

I32 readOptionL(int operation, Modifiers* pModifiers) {
    if (operation == OPERATION_LIST)
        return readListCommand('l', pModifiers);
    if (operation != OPERATION_BENCH)
        return ACCEPTED;
    if (readBenchPath(pModifiers->benchLog) != ACCEPTED)
        return -1;
    const char cFirst = pszOptArg[0];
    if (cFirst == '\n' || cFirst == '\r' || cFirst == ' ') {
        displayConsoleMessage("File name [%s] is invalid.", pszOptArg);
        return -1;
    }
    return ACCEPTED;
}

I32 readOptionZ() {
    I32 number;
    if (readNumber(3, &number) != ACCEPTED)
        return SHOW_USAGE;
    if (number == BYPASS_SPACE_CHECK)
        fBypassFreeSpaceChecking = 1;
    else if (number == BYPASS_STOP_QUESTION)
        fBypassActiveConnectionPrompting = 1;
    else
        return SHOW_USAGE;
    return ACCEPTED;
}

/// -p takes the argument at iOptInd as the password, unless there is none or it begins with '-'.
I32 readPassword(int argc, char** argv, PasswordStruct* pPasswd) {
    if (iOptInd == argc || argv[iOptInd][0] == '-') {
        if (pPasswd->noPassword == 1) {
            displayConsoleMessage("duplicate parameter for password");
            return SHOW_USAGE;
        }
        pPasswd->noPassword = 1;
        return ACCEPTED;
    }
    char* const pszPassword = argv[iOptInd];
    const std::size_t length = std::strlen(pszPassword);
    const bool fDuplicate = pPasswd->name[0] != '\0';
    const bool fTooLong = length > MAX_PASSWORD;
    if (!fDuplicate && !fTooLong)
        storeText(pPasswd->name, pszPassword);
    explicit_bzero(pszPassword, length); // other users of this machine can list our arguments
    if (fDuplicate) {
        displayConsoleMessage("%s", fTooLong ? "duplicate parameter for password"
                                             : "Duplicate parameter for password");
        return SHOW_USAGE;
    }
    if (fTooLong) {
        displayConsoleMessage("Password is too long.");
        return -1;
    }
    ++iOptInd;
    return ACCEPTED;
}

/// Takes in one option that the parser returned.
I32 readOption(int c, int argc, char** argv, int operation, Modifiers* pModifiers) {
    switch (c) {
    case 'c': return readSize(chunkLimits, &pModifiers->largestChunkSize);
    case 'f': return readFileOption(operation);
    case 'h': return SHOW_USAGE;
    case 'P': return readNumber(4, &KXSRVPort);
    case 'o': copyParams.overwrite = 1; return ACCEPTED;
    case 'q': Quiet = 1; return ACCEPTED;
    case 'b': fBypassFreeSpaceChecking = 1; return ACCEPTED;
    case 'p': return readPassword(argc, argv, &pModifiers->passwd);
    case 'r': return readRepositoryPath();
    case 's': return readOptionS(operation, pModifiers);
    case 'l': return readOptionL(operation, pModifiers);
    case 't': return readBenchPath(Manager);
    case 'k': return readNumber(3, &pModifiers->killconn);
    case 'Z': return readOptionZ();
    case '?': return SHOW_USAGE;
    default:
        displayConsoleMessage("Invalid parameter [%s]", iOptInd < argc ? argv[iOptInd] : "");
        return SHOW_USAGE;
    }
}

/// What test needs before it may connect; in file mode its report file is created here.
I32 prepareTest() {
    if (testInfo.szTestRep[0] == '\0') {
        displayConsoleMessage("Repository path must be specified using -r for test command.");
        return SHOW_USAGE;
    }
    if (testInfo.fOutputToFile != 1)
        return ACCEPTED;
    if (testInfo.szTempFile[0] == '\0') {
        printTo(stdout, "Temporary file path must be specified using -f for test command.\n");
        return SHOW_USAGE;
    }
    testInfo.hTempFile = basicOpenTempFile(testInfo.szTempFile);
    if (testInfo.hTempFile == nullptr) {
        printTo(stderr, "Error creating temporary file %s.\n", testInfo.szTempFile);
        return -1;
    }
    return ACCEPTED;
}

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

/// Connects to one of copy's two servers and learns its type. `pszRole` is "source" or
/// "destination", `pszRefusal` what is said of a server type that cannot copy.
I32 connectCopyServer(CONNECT_PARAMS* pcp, const char* pszRole, const char* pszRefusal) {
    if (connectToKxsrv(pcp) != 0) {
        displayConsoleMessage("\nFailed to connect to %s server", pszRole);
        return -1;
    }
    displayConsoleMessage("\nConnected to %s server", pszRole);
    if (getServerInfo(pcp) != 0)
        return -1;
    if (pcp->serverType == SERVER_TYPE_PXSRV) {
        displayConsoleMessage("%s", pszRefusal);
        return -1;
    }
    return managerGetVersion(pcp) != 0 ? -1 : ACCEPTED;
}

constexpr char notOnPxsrv[] = "Supported PXSRV commands are OPTS and STOP only.";

/// Connects to copy's source for the operation, and to its destination to check its type; the
/// operation makes a destination connection of its own.
I32 connectForCopy(int argc, char** argv) {
    if (argc - iOptInd < 2) {
        displayConsoleMessage("Source and destination repositories must be specified.");
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
        displayConsoleMessage("%s", notOnPxsrv);
        return -1;
    }
    if (ServerType != SERVER_TYPE_KXSRV && managerGetVersion(&cp) != 0)
        return -1;
    return ACCEPTED;
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
    default: displayConsoleMessage("Unknown Operation in ProcessCommandLine"); return -1;
    }
}

I32 readAndRun(int argc, char** argv, int operation, Modifiers* pModifiers) {
    for (int c; (c = cmdline(argc, argv, optionString)) != -1;) {
        const I32 rc = readOption(c, argc, argv, operation, pModifiers);
        if (rc != ACCEPTED)
            return rc;
    }
    displayKxadminBanner();

    I32 rc = operation == OPERATION_TEST ? prepareTest() : ACCEPTED;
    if (rc == ACCEPTED)
        rc = operation == OPERATION_COPY ? connectForCopy(argc, argv)
                                         : connectForCommand(argc, argv, operation);
    if (rc != ACCEPTED)
        return rc;

    rc = runOperation(operation, pModifiers);
    // stop leaves its connection to the operation and the server.
    if (operation != OPERATION_STOP)
        managerDisconnect(cp.s);
    return rc;
}

} // namespace

I32 processCommandLine(int argc, char** argv, int operation) {
    Modifiers modifiers;
    const I32 rc = readAndRun(argc, argv, operation, &modifiers);
    explicit_bzero(&modifiers.passwd, sizeof modifiers.passwd);
    return rc;
}
