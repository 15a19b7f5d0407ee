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

/// A byte offset of 64 bits, in the halves in which it travels.
struct Position {
    U32 high, low;
};

} // namespace

static void advance(Position* pPosition, U32 n) {
    pPosition->low += n;
    if (pPosition->low < n)
        ++pPosition->high;
}

static void showProgress(const Position& position) {
    if (Quiet == 0)
        displayProgress("\r[%u:%u]    ", position.high, position.low);
}

static bool isAtLockEnd(const Position& position) {
    return position.high == highLockLength && position.low == lowLockLength;
}

static U64 bytes(U32 high, U32 low) {
    return U64{high} << 32 | low;
}

/// Whether the position is so far in front of the lock's end that the source's last unit, which
/// need not be full, cannot account for it.
static bool isShortOfLock(const Position& position) {
    return bytes(position.high, position.low) + UNIT_SIZE <= bytes(highLockLength, lowLockLength);
}

/// Moves chunks of `maxAmt` bytes from source `ss` to destination `ds` by way of `buffer`, until a
/// read brings less than that or a chunk ends where the lock does. 0 and the position behind the
/// last chunk, or -1 after a message.
static I32 transfer(I32 ss, I32 ds, U8* buffer, U16 maxAmt, Position* pEnd) {
    Position position{};
    for (bool fMore = true; fMore;) {
        const I32 n = manager16GbFileRead(ss, position.high, position.low, buffer, maxAmt, 0);
        if (n < 0) {
            displayFailure("Error %d reading source repository.  Attempted to read %u "
                           "bytes at [%lu:%lu].",
                           n, maxAmt, static_cast<unsigned long>(position.high),
                           static_cast<unsigned long>(position.low));
            return -1;
        }
        const U32 amount = static_cast<U32>(n);
        if (manager16GbFileWrite(ds, position.high, position.low, buffer, amount, 0) < n) {
            displayFailure("Error writing destination repository.");
            return -1;
        }
        advance(&position, amount);
        if (position.low % PROGRESS_STEP == 0)
            showProgress(position);
        fMore = n != 0 && amount == maxAmt && !isAtLockEnd(position);
    }
    showProgress(position);
    *pEnd = position;
    return 0;
}

/// Compares the chunks of both files at the position and advances it by what is the same. 1 when
/// more may follow, 0 at the end of both, -1 after a message.
static I32 compareChunk(I32 ss, I32 ds, U8* source, U8* dest, U16 maxAmt, Position* pPosition) {
    const I32 n = manager16GbFileRead(ss, pPosition->high, pPosition->low, source, maxAmt, 0);
    const I32 m =
        n < 0 ? n : manager16GbFileRead(ds, pPosition->high, pPosition->low, dest, maxAmt, 0);
    if (n < 0 || m < 0) {
        noteEnding(ENDING_FAILED, "error %d reading the %s again at [%u:%u]", std::min(n, m),
                   n < 0 ? "source" : "copy", pPosition->high, pPosition->low);
        return -1;
    }
    const auto common = std::min(n, m);
    const auto same = std::mismatch(source, source + common, dest).first - source;
    advance(pPosition, static_cast<U32>(same));
    if (same == n && same == m)
        return n != 0 ? 1 : 0; // a short answer is not yet the end
    noteEnding(ENDING_FAILED, "the %s at [%u:%u]",
               same == n   ? "copy goes on where the source ends,"
               : same == m ? "copy ends before the source,"
                           : "copy differs from the source",
               pPosition->high, pPosition->low);
    return -1;
}

/// Reads both files again, beyond the lock's end too, and compares them and then their lengths. 0
/// when they are equal, or -1 after a message.
static I32 verify(I32 ss, I32 ds, U8* source, U8* dest, U16 maxAmt) {
    Position position{};
    I32 rc;
    while ((rc = compareChunk(ss, ds, source, dest, maxAmt, &position)) == 1)
        if (position.low % PROGRESS_STEP == 0)
            showProgress(position);
    if (rc != 0)
        return rc;
    showProgress(position);
    if (isShortOfLock(position)) {
        noteEnding(ENDING_FAILED, "%u:%u of %u:%u bytes were compared", position.high, position.low,
                   highLockLength, lowLockLength);
        return -1;
    }
    U32 units, unitsCopied;
    if (!getUnits(ss, &units) || !getUnits(ds, &unitsCopied)) {
        noteEnding(ENDING_FAILED, "the lengths of source and copy could not be compared");
        return -1;
    }
    if (units != unitsCopied) {
        noteEnding(ENDING_FAILED, "the source has %u units of 16 bytes, the copy %u", units,
                   unitsCopied);
        return -1;
    }
    return 0;
}

/// As transfer; then verifies where that was asked for.
static I32 copyDataUsingKXSRV(I32 ss, I32 ds, Position* pEnd) {
    const U16 maxAmt = static_cast<U16>(managerFileMaxData());
    auto* const buffer = static_cast<U8*>(std::malloc(TRANSFER_BUFFER_SIZE));
    if (buffer == nullptr) {
        displayFailure("Error allocating transfer buffer.");
        return -1;
    }
    U8* const chunk = buffer + CHUNK_OFFSET;
    I32 rc = transfer(ss, ds, chunk, maxAmt, pEnd);
    if (rc == 0 && fVerify != 0)
        rc = verify(ss, ds, chunk, chunk + TRANSFER_BUFFER_SIZE / 2, maxAmt);
    std::free(buffer);
    return rc;
}

/// Makes sure that the destination exists and may be written, and opens it. 0, or after a message
/// what the copy returns; *pfOpen tells whether the destination is left open.
static I32 openDestination(I32 ds, const CopyParams* cP, bool* pfOpen) {
    *pfOpen = managerFileOpen(cP->destFile, KXSRVSourceOpenMode, ds) >= 0;
    if (*pfOpen) {
        if (cP->overwrite == 0 && confirm("WARNING: Destination file exists - overwrite") == 0) {
            displayDeclined("Copy cancelled.");
            return 1;
        }
        managerFileClose(ds);
        *pfOpen = false;
    } else {
        // Whatever kept the probe from opening it: creating the file finds out.
        const I32 rc = managerFileCreate(cP->destFile, ds);
        if (rc != 0) {
            displayFailure("Destination path invalid or inaccessible.");
            return rc;
        }
    }
    const I32 rc = managerFileOpen(cP->destFile, KXSRVWriteMode, ds);
    if (rc < 0) {
        // With a blank and an empty line, unlike the one above: what is shown stays as it is.
        displayFailure("Destination path invalid or inaccessible \n");
        return rc;
    }
    *pfOpen = true;
    return 0;
}

/// Copies between the two open files while the source is locked. 0, -1 when the transfer failed,
/// or 1 when the lock or its release did. A server that answered short leaves the copy short,
/// which is no failure to kxadmin.
static I32 copyUnderLock(I32 ss, I32 ds) {
    if (lockSourceHeader(ss) != 0)
        return 1;
    Position end{};
    const I32 result = copyDataUsingKXSRV(ss, ds, &end);
    if (unlockSourceHeader(ss) != 0)
        return 1;
    if (result == 0 && isShortOfLock(end))
        noteEnding(ENDING_FAILED, "%u:%u of %u:%u bytes were copied", end.high, end.low,
                   highLockLength, lowLockLength);
    return result;
}

/// Copies from the open source; *pfCloseDest tells whether the destination is to be closed then.
static I32 copyToDestination(I32 ss, I32 ds, const CopyParams* cP, bool* pfCloseDest) {
    I32 result = openDestination(ds, cP, pfCloseDest);
    if (result == 0 && fBypassFreeSpaceChecking == 0) {
        result = checkDestSpace(ss, ds, cP->destFile);
        if (result != 0)
            *pfCloseDest = false; // it is closed with its connection
    }
    return result != 0 ? result : copyUnderLock(ss, ds);
}

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
    const I32 result = copyToDestination(pcpSource->s, cpDest.s, cP, &fCloseDest);

    managerFileClose(pcpSource->s);
    if (fCloseDest && managerFileClose(cpDest.s) != 0 && result == 0)
        noteEnding(ENDING_FAILED, "[%s] did not close the copy", cP->destHost);
    managerDisconnect(cpDest.s);
    if (result != 0)
        return result;
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
