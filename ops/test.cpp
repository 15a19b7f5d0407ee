#include "client/kxclient.h"
#include "front/console.h"
#include "front/settings.h"
#include "ops/ops.h"

static constexpr char checkPattern[] = {'4', '3', '2', '1'};
static constexpr U32 REPOSITORY_HEADER_SIZE = 1280; // of a repository, at least
static constexpr U32 VERSION_OFFSET = 4;
static constexpr U8 VERSION_1GB = 5;
static constexpr U8 VERSION_16GB = 6;

namespace {

enum Verdict {
    VALID_1GB,
    VALID_16GB,
    OPEN_NOT_FOUND,
    OPEN_DENIED,
    READ_DENIED,
    TOO_SMALL,
    NO_PATTERN,
    UNKNOWN_VERSION,
    OPEN_FAILED,
};

/// What a test reports: a code and a message in the report file, or a text on the console.
struct Report {
    int iCode;
    bool fInFile;          ///< the file gets the message below its code
    bool fBlankBehind;     ///< an empty line follows on the console
    const char* pszFormat; ///< of the host, the path and a number, in this order
};

} // namespace

static constexpr Report reports[] = {
    /* VALID_1GB */
    {0, true, false, "%s:%s appears to be a valid repository with a maximum size of 1 GB."},
    /* VALID_16GB */
    {0, true, false,
     "%s:%s appears to be a valid repository with a maximum size of 16 GB (subject to "
     "limitations of the hosting file system)."},
    /* OPEN_NOT_FOUND */
    {2, true, true,
     "Could not open repository %s:%s. The repository does not exist or could not be found."},
    /* OPEN_DENIED */
    {3, true, true,
     "Could not open repository %s:%s. Access was denied - another process may have the "
     "repository opened in an exclusive mode."},
    /* READ_DENIED */
    {4, true, true,
     "Could not read from the repository %s:%s. Access was denied - another process may have "
     "the repository opened in an exclusive mode."},
    /* TOO_SMALL */
    {5, true, false,
     "%s:%s does not appear to be a valid repository as it is too small.  All repositories "
     "must be at least 1280 bytes in size."},
    /* NO_PATTERN */
    {6, true, true,
     "%s:%s does not appear to be a valid repository. Check pattern missing in header."},
    /* UNKNOWN_VERSION */
    {7, true, true, "%s:%s has an unknown version number (%d)."},
    /* OPEN_FAILED */
    {8, false, true, "Unexpected error rc=%3$d opening repository %1$s:%2$s."},
};

static_assert(std::size(reports) == OPEN_FAILED + 1);

static bool isValid(Verdict verdict) {
    return verdict == VALID_1GB || verdict == VALID_16GB;
}

// The formats are the rows above, and all of them take what these calls give.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

/// Reports the verdict in the file or on the console; `iNumber` is the version or the open's
/// result.
static void report(Verdict verdict, const CONNECT_PARAMS* pcp, const TestInfo* pti, int iNumber) {
    const Report& row = reports[verdict];
    recordEnding(isValid(verdict) ? ENDING_DONE : ENDING_FAILED);
    logTempFileMessage(pti->hTempFile, "%d\n", row.iCode);
    if (row.fInFile) {
        logTempFileMessage(pti->hTempFile, row.pszFormat, pcp->host, pti->szTestRep, iNumber);
        logTempFileMessage(pti->hTempFile, "\n");
    }
    displayConsoleMessage(row.pszFormat, pcp->host, pti->szTestRep, iNumber);
    if (row.fBlankBehind)
        displayEmptyLine();
}

#pragma GCC diagnostic pop

static bool hasCheckPattern(const U8* pHeader) {
    return std::memcmp(pHeader, checkPattern, sizeof checkPattern) == 0;
}

static Verdict verdictOfOpen(I32 rc) {
    switch (rc) {
    case SERVER_NOT_FOUND: return OPEN_NOT_FOUND;
    case SERVER_ACCESS_DENIED:
    case SERVER_RANGE_LOCKED: return OPEN_DENIED;
    default: return OPEN_FAILED;
    }
}

/// Reads the header of the open file, takes its version, and judges both.
static Verdict testHeader(I32 s, TestInfo* pti) {
    static U8 buf[REPOSITORY_HEADER_SIZE];
    const I32 n = managerFileRead(s, 0, buf, sizeof buf, 0);
    if (n == SERVER_ACCESS_DENIED || n == SERVER_RANGE_LOCKED)
        return READ_DENIED;
    if (n != sizeof buf)
        return TOO_SMALL;
    if (!hasCheckPattern(buf))
        return NO_PATTERN;
    pti->u8RepVersion = buf[VERSION_OFFSET];
    switch (pti->u8RepVersion) {
    case VERSION_1GB: return VALID_1GB;
    case VERSION_16GB: return VALID_16GB;
    default: return UNKNOWN_VERSION;
    }
}

/// Reports every failure itself. 0 for a valid repository, of which u8RepVersion then tells the
/// size; -1 otherwise.
static I32 validateTestRep(CONNECT_PARAMS* pcp, TestInfo* pti) {
    const I32 rc = managerFileOpen(pti->szTestRep, KXSRVSourceOpenMode, pcp->s);
    if (rc < 0) {
        report(verdictOfOpen(rc), pcp, pti, rc);
        return -1;
    }
    const Verdict verdict = testHeader(pcp->s, pti);
    const bool fValid = isValid(verdict);
    if (!fValid)
        report(verdict, pcp, pti, pti->u8RepVersion);
    managerFileClose(pcp->s);
    return fValid ? 0 : -1;
}

I32 OperationTest(CONNECT_PARAMS* pcp, TestInfo* pti) {
    if (pcp->serverType == SERVER_TYPE_PXSRV) {
        displayFailure("PXSRV does not support KXADMIN Test.");
        return -1;
    }
    if (validateTestRep(pcp, pti) == 0)
        report(pti->u8RepVersion == VERSION_1GB ? VALID_1GB : VALID_16GB, pcp, pti,
               pti->u8RepVersion);
    if (pti->fOutputToFile == 1)
        closeTempFile(pti);
    return 0;
}

/// The check of validateSource on the open file, less strict than the test's.
static bool looksLikeRepository(I32 s) {
    U8 buf[256];
    if (managerFileRead(s, 0, buf, sizeof buf, 0) != sizeof buf) {
        displayFailure("Error reading source repository.");
        return false;
    }
    if (!hasCheckPattern(buf)) {
        displayFailure("Source file not a valid repository.");
        return false;
    }
    return true;
}

I32 validateSource(CONNECT_PARAMS* pcp, const char* path) {
    I32 rc = 0;
    if (managerFileOpen(path, KXSRVSourceOpenMode, pcp->s) < 0) {
        displayFailure("Source path invalid or inaccessible.");
        rc = -1;
    } else if (!looksLikeRepository(pcp->s)) {
        rc = -1;
    }
    managerFileClose(pcp->s); // after a failed open as well
    return rc;
}
