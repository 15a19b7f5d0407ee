#include "front/options.h"

#include "client/protocol.h"
#include "front/cmdline.h"
#include "front/console.h"
#include "front/dispatch.h"
#include "front/version.h"
#include "ops/ops.h"
#include "ops/platform.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr char optionString[] = "c:f:hP:oqbpr:s:l:t:k:Z:";

/// Bounds of a number in bytes, and what is said of one outside.
struct Limits {
    I32 least, most;
    const char* pszMessage;
};

constexpr Limits chunkLimits = {BENCH_FIRST_SIZE, BENCH_LAST_SIZE,
                                "largest read chunk size must be between 1024 and 36864\n"};
constexpr Limits sweepLimits = {4096, 65536, "Sweep size must be between 4096 and 65536"};

/// The numbers of -Z.
constexpr I32 BYPASS_SPACE_CHECK = 99;
constexpr I32 BYPASS_STOP_QUESTION = 100;

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
        displayMisuse("%s", limits.pszMessage);
        return -1;
    }
    *pSize = static_cast<Number>(size);
    return ACCEPTED;
}

/// -f: the report file of test, the system command of copy.
I32 readFileOption(int operation) {
    if (operation == OPERATION_TEST) {
        if (!storeText(testInfo.szTempFile, pszOptArg)) {
            recordEnding(ENDING_MISUSED);
            printTo(stdout, "Temporary file path is too long.\n");
            return -1;
        }
        testInfo.fOutputToFile = 1;
        return ACCEPTED;
    }
    if (operation != OPERATION_COPY)
        return SHOW_USAGE;
    if (!storeText(copyParams.szSysCommand, pszOptArg)) {
        displayMisuse("System copy command length is too long.");
        return -1;
    }
    return ACCEPTED;
}

I32 readRepositoryPath() {
    if (storeText(testInfo.szTestRep, pszOptArg))
        return ACCEPTED;
    displayMisuse("Repository path is too long.");
    return -1;
}

I32 readBenchPath(char (&szPath)[PATH_SIZE]) {
    if (storeText(szPath, pszOptArg))
        return ACCEPTED;
    displayMisuse("Path [%s] is too long.", pszOptArg);
    return -1;
}

/// -s and -l of list: one of them, once.
I32 readListCommand(char command, Modifiers* pModifiers) {
    if (pModifiers->listcommand != 0) {
        displayMisuse("Only one of -s or -l can be specified.");
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
        displayMisuse("File name [%s] is invalid.", pszOptArg);
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
            displayMisuse("duplicate parameter for password");
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
        displayMisuse("%s", fTooLong ? "duplicate parameter for password"
                                     : "Duplicate parameter for password");
        return SHOW_USAGE;
    }
    if (fTooLong) {
        displayMisuse("Password is too long.");
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
        displayMisuse("Invalid parameter [%s]", iOptInd < argc ? argv[iOptInd] : "");
        return SHOW_USAGE;
    }
}

/// What test needs before it may connect; in file mode its report file is created here.
I32 prepareTest() {
    if (testInfo.szTestRep[0] == '\0') {
        displayMisuse("Repository path must be specified using -r for test command.");
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
        recordEnding(ENDING_FAILED);
        printTo(stderr, "Error creating temporary file %s.\n", testInfo.szTempFile);
        return -1;
    }
    return ACCEPTED;
}

/// The long options of kxadmin-strict that depend on the command and its modifiers.
I32 checkStrictOptions(int operation, PasswordStruct* pPasswd) {
    if (fVerify != 0 && (operation != OPERATION_COPY || copyParams.szSysCommand[0] != '\0')) {
        noteEnding(ENDING_MISUSED, "--verify goes with a copy through the servers only");
        return -1;
    }
    if (PasswordFile == nullptr)
        return ACCEPTED;
    if (pPasswd->name[0] != '\0' || pPasswd->noPassword == 1) {
        noteEnding(ENDING_MISUSED, "-p and --password-file exclude each other");
        return -1;
    }
    return readPasswordFile(PasswordFile, pPasswd);
}

I32 readAndRun(int argc, char** argv, int operation, Modifiers* pModifiers) {
    for (int c; (c = cmdline(argc, argv, optionString)) != -1;) {
        const I32 rc = readOption(c, argc, argv, operation, pModifiers);
        if (rc != ACCEPTED)
            return rc;
    }
    if (checkStrictOptions(operation, &pModifiers->passwd) != ACCEPTED)
        return -1;
    displayKxadminBanner();

    const I32 rc = operation == OPERATION_TEST ? prepareTest() : ACCEPTED;
    return rc != ACCEPTED ? rc : connectAndRun(argc, argv, operation, pModifiers);
}

} // namespace

I32 processCommandLine(int argc, char** argv, int operation) {
    Modifiers modifiers;
    const I32 rc = readAndRun(argc, argv, operation, &modifiers);
    explicit_bzero(&modifiers.passwd, sizeof modifiers.passwd);
    return rc;
}
