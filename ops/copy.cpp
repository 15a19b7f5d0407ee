#include "client/kxclient.h"
#include "front/console.h"
#include "front/settings.h"
#include "ops/ops.h"
#include "ops/platform.h"
#include "ops/source_lock.h"

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
    printTo(stderr, "\r[%u:%u]    ", position.high, position.low);
}

/// Moves chunks of `maxAmt` bytes from source `ss` to destination `ds` by way of `buffer`, until a
/// read brings less than that or a chunk ends where the lock does. 0, or -1 after a message.
static I32 transfer(I32 ss, I32 ds, U8* buffer, U16 maxAmt) {
    Position position{};
    for (bool fMore = true; fMore;) {
        const I32 n = manager16GbFileRead(ss, position.high, position.low, buffer, maxAmt, 0);
        if (n < 0) {
            displayConsoleMessage("Error %d reading source repository.  Attempted to read %u "
                                  "bytes at [%lu:%lu].",
                                  n, maxAmt, static_cast<unsigned long>(position.high),
                                  static_cast<unsigned long>(position.low));
            return -1;
        }
        const U32 amount = static_cast<U32>(n);
        if (manager16GbFileWrite(ds, position.high, position.low, buffer, amount, 0) < n) {
            displayConsoleMessage("Error writing destination repository.");
            return -1;
        }
        advance(&position, amount);
        if (Quiet == 0 && position.low % PROGRESS_STEP == 0)
            showProgress(position);
        const bool fAtLockEnd = position.high == highLockLength && position.low == lowLockLength;
        fMore = n != 0 && amount == maxAmt && !fAtLockEnd;
    }
    if (Quiet == 0)
        showProgress(position);
    return 0;
}

static I32 copyDataUsingKXSRV(I32 ss, I32 ds) {
    const U16 maxAmt = static_cast<U16>(managerFileMaxData());
    auto* const buffer = static_cast<U8*>(std::malloc(TRANSFER_BUFFER_SIZE));
    if (buffer == nullptr) {
        displayConsoleMessage("Error allocating transfer buffer.");
        return -1;
    }
    const I32 rc = transfer(ss, ds, buffer + CHUNK_OFFSET, maxAmt);
    std::free(buffer);
    return rc;
}

/// Gives back what the copy has once it is connected to its destination, in this order.
static void cleanUp(const CONNECT_PARAMS* pcpSource, const CONNECT_PARAMS& cpDest,
                    bool fCloseDestination) {
    managerFileClose(pcpSource->s);
    if (fCloseDestination)
        managerFileClose(cpDest.s);
    managerDisconnect(cpDest.s);
}

/// Makes sure that the destination exists and may be written, and opens it. 0, or after a message
/// and the clean-up what the copy returns.
static I32 openDestination(const CONNECT_PARAMS* pcpSource, const CONNECT_PARAMS& cpDest,
                           const CopyParams* cP) {
    if (managerFileOpen(cP->destFile, KXSRVSourceOpenMode, cpDest.s) >= 0) {
        if (cP->overwrite == 0 && confirm("WARNING: Destination file exists - overwrite") == 0) {
            displayConsoleMessage("Copy cancelled.");
            cleanUp(pcpSource, cpDest, true);
            return 1;
        }
        managerFileClose(cpDest.s);
    } else {
        // Whatever kept the probe from opening it: creating the file finds out.
        const I32 rc = managerFileCreate(cP->destFile, cpDest.s);
        if (rc != 0) {
            cleanUp(pcpSource, cpDest, false);
            displayConsoleMessage("Destination path invalid or inaccessible.");
            return rc;
        }
    }
    const I32 rc = managerFileOpen(cP->destFile, KXSRVWriteMode, cpDest.s);
    if (rc < 0) {
        displayConsoleMessage("Destination path invalid or inaccessible \n");
        cleanUp(pcpSource, cpDest, false);
        return rc;
    }
    return 0;
}

/// Copies between the two open files while the source is locked. 0, -1 when the transfer failed,
/// or 1 when the lock or its release did.
static I32 copyUnderLock(I32 ss, I32 ds) {
    if (lockSourceHeader(ss) != 0)
        return 1;
    const I32 result = copyDataUsingKXSRV(ss, ds);
    return unlockSourceHeader(ss) != 0 ? 1 : result;
}

static I32 copyViaKXSRV(CONNECT_PARAMS* pcpSource, CopyParams* cP) {
    displayConsoleMessage("Copying %s:%s => %s:%s", cP->sourceHost, cP->sourceFile, cP->destHost,
                          cP->destFile);
    if (managerFileOpen(cP->sourceFile, KXSRVSourceOpenMode, pcpSource->s) < 0) {
        displayConsoleMessage("Source path invalid or inaccessible.");
        return 1;
    }
    CONNECT_PARAMS cpDest{};
    cpDest.host = cP->destHost;
    if (connectToKxsrv(&cpDest) != 0)
        return -1; // the source is closed with its connection
    I32 result = openDestination(pcpSource, cpDest, cP);
    if (result != 0)
        return result;
    if (fBypassFreeSpaceChecking == 0) {
        result = checkDestSpace(pcpSource->s, cpDest.s, cP->destFile);
        if (result != 0) {
            cleanUp(pcpSource, cpDest, false);
            return result;
        }
    }
    result = copyUnderLock(pcpSource->s, cpDest.s);
    cleanUp(pcpSource, cpDest, true);
    if (result == 0 && Quiet == 0)
        displayConsoleMessage("\nRepository %s:%s copied to %s:%s.", cP->sourceHost, cP->sourceFile,
                              cP->destHost, cP->destFile);
    return result;
}

I32 OperationCopy(CONNECT_PARAMS* pcp, PasswordStruct* passwd, CopyParams* cP) {
    if (pcp->serverType == SERVER_TYPE_PXSRV) {
        displayConsoleMessage("PXSRV does not support KXADMIN Copy.");
        return -1;
    }
    if (validateSource(pcp, cP->sourceFile) != 0) {
        displayConsoleMessage("Source must be a valid repository file.");
        return 1;
    }
    if (verifyPassword(pcp, passwd) != 0)
        return 1;
    const I32 rc = cP->szSysCommand[0] == '\0' ? copyViaKXSRV(pcp, cP) : copyViaOS(pcp, cP);
    return rc != 0 ? 1 : 0;
}
