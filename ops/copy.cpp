#include "client/kxclient.h"
#include "front/console.h"
#include "front/settings.h"
#include "ops/ops.h"
#include "ops/platform.h"
#include "ops/source_lock.h"

#include <algorithm>
#include <cstdlib>

static constexpr std::size_t TRANSFER_BUFFER_SIZE = 0x40000;

/// Where in the buffer the chunk lies. The allocator's place, a few bytes behind the beginning of a
/// page, is like that of the data in the kernel's buffers, and processors that compare addresses
/// within a page only then take the one copy for an overlapping one: half a page away the copies to
/// and from the kernel take a third less time (scripts/bench.sh, system time of copy).
static constexpr std::size_t CHUNK_OFFSET = 2048;

/// Progress is shown at positions whose low half is a multiple of this.
static constexpr U32 PROGRESS_STEP = 16384;

namespace {

/// What became of a step of the copy. Where it is not DONE a message has told, but for
/// NOT_CREATED, which is told when everything is closed.
enum CopyStep { DONE, FAILED, NOT_CREATED };

} // namespace

static U32 highHalf(U64 u64Offset) {
    return static_cast<U32>(u64Offset >> 32);
}

static U32 lowHalf(U64 u64Offset) {
    return static_cast<U32>(u64Offset);
}

static void showProgress(U64 u64Position) {
    if (Quiet == 0)
        displayProgress("\r[%u:%u]    ", highHalf(u64Position), lowHalf(u64Position));
}

static U64 lockEnd() {
    return U64{highLockLength} << 32 | lowLockLength;
}

/// Whether the position is so far in front of the lock's end that the source's last unit, which
/// need not be full, cannot account for it.
static bool isShortOfLock(U64 u64Position) {
    return u64Position + UNIT_SIZE <= lockEnd();
}

static I32 readAt(I32 s, U64 u64Position, U8* buffer, U16 amount) {
    return manager16GbFileRead(s, highHalf(u64Position), lowHalf(u64Position), buffer, amount, 0);
}

/// Moves chunks of `maxAmt` bytes from source `ss` to destination `ds` by way of `buffer`, until a
/// read brings less than that or a chunk ends where the lock does. The position behind the last
/// chunk is then in *pu64Position; false after a message.
static bool transfer(I32 ss, I32 ds, U8* buffer, U16 maxAmt, U64* pu64Position) {
    U64 u64Position = 0;
    for (bool fMore = true; fMore;) {
        const U32 high = highHalf(u64Position), low = lowHalf(u64Position);
        const I32 n = readAt(ss, u64Position, buffer, maxAmt);
        if (n < 0) {
            displayFailure("Error %d reading source repository.  Attempted to read %u "
                           "bytes at [%lu:%lu].",
                           n, maxAmt, static_cast<unsigned long>(high),
                           static_cast<unsigned long>(low));
            return false;
        }
        const U32 amount = static_cast<U32>(n);
        if (manager16GbFileWrite(ds, high, low, buffer, amount, 0) < n) {
            displayFailure("Error writing destination repository.");
            return false;
        }
        u64Position += amount;
        if (u64Position % PROGRESS_STEP == 0)
            showProgress(u64Position);
        fMore = n != 0 && amount == maxAmt && u64Position != lockEnd();
    }
    showProgress(u64Position);
    *pu64Position = u64Position;
    return true;
}

/// How the files differ behind their first `same` bytes, of which the source has `n` and the copy
/// has `m`.
static const char* differenceText(std::ptrdiff_t same, I32 n, I32 m) {
    if (same == n)
        return "copy goes on where the source ends,";
    if (same == m)
        return "copy ends before the source,";
    return "copy differs from the source";
}

/// Compares the chunks of both files at the position and advances it by what is the same. 1 when
/// more may follow, 0 at the end of both, -1 after a message.
static I32 compareChunk(I32 ss, I32 ds, U8* source, U8* dest, U16 maxAmt, U64* pu64Position) {
    const I32 n = readAt(ss, *pu64Position, source, maxAmt);
    const I32 m = n < 0 ? n : readAt(ds, *pu64Position, dest, maxAmt);
    if (m < 0) {
        noteEnding(ENDING_FAILED, "error %d reading the %s again at [%u:%u]", m,
                   n < 0 ? "source" : "copy", highHalf(*pu64Position), lowHalf(*pu64Position));
        return -1;
    }
    const auto same = std::mismatch(source, source + std::min(n, m), dest).first - source;
    *pu64Position += static_cast<U64>(same);
    if (same == n && same == m)
        return n != 0 ? 1 : 0; // a short answer is not yet the end
    noteEnding(ENDING_FAILED, "the %s at [%u:%u]", differenceText(same, n, m),
               highHalf(*pu64Position), lowHalf(*pu64Position));
    return -1;
}

/// Compares what each server says of its file's length; false after a message.
static bool verifyLengths(I32 ss, I32 ds) {
    U32 units, unitsCopied;
    if (!getUnits(ss, &units) || !getUnits(ds, &unitsCopied)) {
        noteEnding(ENDING_FAILED, "the lengths of source and copy could not be compared");
        return false;
    }
    if (units != unitsCopied) {
        noteEnding(ENDING_FAILED, "the source has %u units of 16 bytes, the copy %u", units,
                   unitsCopied);
        return false;
    }
    return true;
}

/// Reads both files again, beyond the lock's end too, and compares them and then their lengths.
/// False after a message.
static bool verify(I32 ss, I32 ds, U8* source, U8* dest, U16 maxAmt) {
    U64 u64Position = 0;
    I32 rc;
    while ((rc = compareChunk(ss, ds, source, dest, maxAmt, &u64Position)) == 1)
        if (u64Position % PROGRESS_STEP == 0)
            showProgress(u64Position);
    if (rc != 0)
        return false;
    showProgress(u64Position);
    if (isShortOfLock(u64Position)) {
        noteEnding(ENDING_FAILED, "%u:%u of %u:%u bytes were compared", highHalf(u64Position),
                   lowHalf(u64Position), highLockLength, lowLockLength);
        return false;
    }
    return verifyLengths(ss, ds);
}

/// As transfer; then verifies where that was asked for.
static bool copyDataUsingKXSRV(I32 ss, I32 ds, U64* pu64Position) {
    const U16 maxAmt = static_cast<U16>(managerFileMaxData());
    auto* const buffer = static_cast<U8*>(std::malloc(TRANSFER_BUFFER_SIZE));
    if (buffer == nullptr) {
        displayFailure("Error allocating transfer buffer.");
        return false;
    }
    U8* const chunk = buffer + CHUNK_OFFSET;
    bool fCopied = transfer(ss, ds, chunk, maxAmt, pu64Position);
    if (fCopied && fVerify != 0)
        fCopied = verify(ss, ds, chunk, chunk + TRANSFER_BUFFER_SIZE / 2, maxAmt);
    std::free(buffer);
    return fCopied;
}

/// Makes sure that the destination exists and may be written, and opens it; *pfOpen tells whether
/// it is left open.
static CopyStep openDestination(I32 ds, const CopyParams* cP, bool* pfOpen) {
    *pfOpen = managerFileOpen(cP->destFile, KXSRVSourceOpenMode, ds) >= 0;
    if (*pfOpen) {
        if (cP->overwrite == 0 && confirm("WARNING: Destination file exists - overwrite") == 0) {
            displayDeclined("Copy cancelled.");
            return FAILED;
        }
        managerFileClose(ds);
        *pfOpen = false;
    } else if (managerFileCreate(cP->destFile, ds) != 0) {
        return NOT_CREATED; // by whatever kept the probe from opening it
    }
    if (managerFileOpen(cP->destFile, KXSRVWriteMode, ds) < 0) {
        // With a blank and an empty line, unlike that of NOT_CREATED: what is shown stays as it is.
        displayFailure("Destination path invalid or inaccessible \n");
        return FAILED;
    }
    *pfOpen = true;
    return DONE;
}

/// Copies between the two open files while the source is locked. A server that answered short
/// leaves the copy short, which is no failure to kxadmin.
static CopyStep copyUnderLock(I32 ss, I32 ds) {
    if (lockSourceHeader(ss) != 0)
        return FAILED;
    U64 u64Position = 0;
    const bool fCopied = copyDataUsingKXSRV(ss, ds, &u64Position);
    if (unlockSourceHeader(ss) != 0 || !fCopied)
        return FAILED;
    if (isShortOfLock(u64Position))
        noteEnding(ENDING_FAILED, "%u:%u of %u:%u bytes were copied", highHalf(u64Position),
                   lowHalf(u64Position), highLockLength, lowLockLength);
    return DONE;
}

/// Copies from the open source; *pfCloseDest tells whether the destination is to be closed then.
static CopyStep copyToDestination(I32 ss, I32 ds, const CopyParams* cP, bool* pfCloseDest) {
    const CopyStep reached = openDestination(ds, cP, pfCloseDest);
    if (reached != DONE)
        return reached;
    if (fBypassFreeSpaceChecking == 0 && checkDestSpace(ss, ds, cP->destFile) != 0) {
        *pfCloseDest = false; // it is closed with its connection
        return FAILED;
    }
    return copyUnderLock(ss, ds);
}

/// 0, or -1 or 1 when it failed or was declined.
static I32 copyViaKXSRV(CONNECT_PARAMS* pcpSource, CopyParams* cP) {
    displayConsoleMessage("Copying %s:%s => %s:%s", cP->sourceHost, cP->sourceFile, cP->destHost,
                          cP->destFile);
    if (managerFileOpen(cP->sourceFile, KXSRVSourceOpenMode, pcpSource->s) < 0) {
        displayFailure("Source path invalid or inaccessible.");
        return 1;
    }
    CONNECT_PARAMS cpDest{};
    cpDest.host = cP->destHost;
    if (connectToKxsrv(&cpDest) != 0)
        return -1; // the source is closed with its connection
    bool fCloseDest;
    const CopyStep reached = copyToDestination(pcpSource->s, cpDest.s, cP, &fCloseDest);

    managerFileClose(pcpSource->s);
    if (fCloseDest && managerFileClose(cpDest.s) != 0 && reached == DONE)
        noteEnding(ENDING_FAILED, "[%s] did not close the copy", cP->destHost);
    managerDisconnect(cpDest.s);
    if (reached == NOT_CREATED)
        displayFailure("Destination path invalid or inaccessible.");
    if (reached != DONE)
        return 1;
    recordEnding(ENDING_DONE);
    if (Quiet == 0)
        displayConsoleMessage("\nRepository %s:%s copied to %s:%s.", cP->sourceHost, cP->sourceFile,
                              cP->destHost, cP->destFile);
    return 0;
}

I32 OperationCopy(CONNECT_PARAMS* pcp, PasswordStruct* passwd, CopyParams* cP) {
    if (pcp->serverType == SERVER_TYPE_PXSRV) {
        displayFailure("PXSRV does not support KXADMIN Copy.");
        return -1;
    }
    if (validateSource(pcp, cP->sourceFile) != 0) {
        displayFailure("Source must be a valid repository file.");
        return 1;
    }
    if (verifyPassword(pcp, passwd) != 0)
        return 1;
    const I32 rc = cP->szSysCommand[0] == '\0' ? copyViaKXSRV(pcp, cP) : copyViaOS(pcp, cP);
    return rc != 0 ? 1 : 0;
}
