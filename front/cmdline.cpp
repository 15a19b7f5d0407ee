#include "front/cmdline.h"

#include "front/console.h"
#include "front/mbcs.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

char* pszOptArg = nullptr;
int iOptInd = 0;
int iOptErr = 1;
int iOptOpt = '?';

// Where the parser stands between two calls.
static enum { REQUIRE_ORDER, PERMUTE, RETURN_IN_ORDER } ordering;
static char* pszNextChar = nullptr; // rest of the cluster being scanned
static int iFirstNonOpt;            // bounds of the run of other arguments skipped so far
static int iLastNonOpt;

static constexpr int NO_MORE_OPTIONS = -1;
static constexpr int IN_CLUSTER = 0; // the search below found a cluster to scan

static void initialise(char cFirst) {
    iOptInd = iFirstNonOpt = iLastNonOpt = 1;
    pszNextChar = nullptr;
    ordering = cFirst == '-' ? RETURN_IN_ORDER : cFirst == '+' ? REQUIRE_ORDER : PERMUTE;
}

static bool isNonOption(const char* pszArg) {
    return pszArg[0] != '-' || pszArg[1] == '\0';
}

/// Moves the skipped run behind the options that were scanned since.
static void moveSkippedBehindOptions(char** argv) {
    if (iFirstNonOpt == iLastNonOpt) {
        iFirstNonOpt = iOptInd;
    } else if (iLastNonOpt != iOptInd) {
        std::reverse(argv + iFirstNonOpt, argv + iLastNonOpt);
        std::reverse(argv + iLastNonOpt, argv + iOptInd);
        std::reverse(argv + iFirstNonOpt, argv + iOptInd);
        iFirstNonOpt += iOptInd - iLastNonOpt;
    }
    iLastNonOpt = iOptInd;
}

/// Finds the next argument to scan: IN_CLUSTER, or what cmdline is to return.
static int findCluster(int argc, char** argv) {
    if (ordering == PERMUTE) {
        moveSkippedBehindOptions(argv);
        while (iOptInd < argc && isNonOption(argv[iOptInd]))
            ++iOptInd;
        iLastNonOpt = iOptInd;
    }
    if (iOptInd < argc && std::strcmp(argv[iOptInd], "--") == 0) {
        ++iOptInd;
        moveSkippedBehindOptions(argv);
        iLastNonOpt = argc;
        iOptInd = argc;
    }
    if (iOptInd >= argc) {
        if (iFirstNonOpt != iLastNonOpt)
            iOptInd = iFirstNonOpt;
        return NO_MORE_OPTIONS;
    }
    if (isNonOption(argv[iOptInd])) {
        if (ordering == REQUIRE_ORDER)
            return NO_MORE_OPTIONS;
        pszOptArg = argv[iOptInd++];
        return 1;
    }
    pszNextChar = argv[iOptInd] + 1;
    return IN_CLUSTER;
}

/// Takes the character at pszNextChar, a multibyte one whole, and returns its first byte.
static int takeCharacter() {
    const int c = static_cast<signed char>(*pszNextChar);
    char* const pszBehind = MBNextChar(pszNextChar);
    // A byte that is no character of the locale is stepped over all the same: no option is
    // reported twice.
    pszNextChar = pszBehind != pszNextChar ? pszBehind : pszNextChar + 1;
    if (*pszNextChar == '\0')
        ++iOptInd;
    return c;
}

static int refuse(const char* pszCommand, const char* pszWhy, int c) {
    if (iOptErr != 0)
        printTo(stderr, "%s: %s -- %c\n", pszCommand, pszWhy, c);
    iOptOpt = c;
    return '?';
}

/// Sets pszOptArg for option `c`: the rest of the cluster or, unless the argument is optional, the
/// next argument. The cluster is finished either way.
static int takeArgument(int argc, char** argv, int c, bool fOptional, bool fColonFirst) {
    const bool fRest = *pszNextChar != '\0';
    char* const pszRest = pszNextChar;
    pszNextChar = nullptr;
    if (fRest) {
        pszOptArg = pszRest;
        ++iOptInd;
    } else if (!fOptional) {
        if (iOptInd >= argc) {
            refuse(argv[0], "option requires an argument", c);
            return fColonFirst ? ':' : '?';
        }
        pszOptArg = argv[iOptInd++];
    }
    return c;
}

int cmdline(int argc, char** argv, const char* pszOptString) {
    pszOptArg = nullptr;
    if (iOptInd == 0)
        initialise(pszOptString[0]);
    if (pszOptString[0] == '-' || pszOptString[0] == '+')
        ++pszOptString;

    if (pszNextChar == nullptr || *pszNextChar == '\0') {
        const int found = findCluster(argc, argv);
        if (found != IN_CLUSTER)
            return found;
    }

    const int c = takeCharacter();
    const char* pszOption = c == ':' ? nullptr : MBstrchr(pszOptString, c);
    if (pszOption == nullptr)
        return refuse(argv[0], "invalid option", c);
    if (pszOption[1] != ':')
        return c;
    return takeArgument(argc, argv, c, pszOption[2] == ':', pszOptString[0] == ':');
}
