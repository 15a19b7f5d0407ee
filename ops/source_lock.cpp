#include "ops/source_lock.h"

#include "client/kxclient.h"
#include "front/console.h"
#include "front/settings.h"

#include <unistd.h>

U32 highLockLength = 0;
U32 lowLockLength = 0;

/// Largest repository, in units of 16 bytes: 16 GB.
static constexpr U32 MOST_UNITS = 0x40000000;

static constexpr I32 RETRY = 1; // result of an attempt, beside 0 and -1

bool getUnits(I32 s, U32* pUnits) {
    U8 eof[4];
    if (manager16GbFileGetEOF(s, eof) != 0)
        return false;
    *pUnits = U32{eof[0]} << 24 | U32{eof[1]} << 16 | U32{eof[2]} << 8 | U32{eof[3]};
    return true;
}

/// Tells and records the range that is locked now.
static void recordLock(U32 high, U32 low) {
    displayConsoleMessage("Locked library of size %lu:%lu bytes.", static_cast<unsigned long>(high),
                          static_cast<unsigned long>(low));
    if (highLockLength == 0 && lowLockLength == 0) {
        highLockLength = high;
        lowLockLength = low;
    }
}

/// One attempt: 0 when the file is locked at the size it has, RETRY after a second's wait, or -1.
static I32 tryLock(I32 s) {
    U32 units;
    if (!getUnits(s, &units)) {
        displayFailure("Failed checking repository EOF.");
        return -1;
    }
    if (units > MOST_UNITS) {
        displayFailure("Repository greater than 16 GB.");
        return -1;
    }
    const U32 high = units >> 28;
    const U32 low = units << 4;
    const I32 rc = managerFile16GbLargeLock(s, 0, 0, high, low);
    if (rc == SERVER_RANGE_LOCKED) {
        sleep(1);
        displayConsoleMessage("Lock attempt failed - retrying");
        return RETRY;
    }
    if (rc != 0) {
        displayFailure("Failed getting lock.");
        displayConsoleMessage("Repository file is locked by another process.");
        return -1;
    }

    U32 unitsLocked;
    if (!getUnits(s, &unitsLocked)) {
        displayFailure("Failed checking repository EOF.");
        return -1;
    }
    if (unitsLocked == units) {
        recordLock(high, low);
        return 0;
    }
    if (managerFile16GbLargeUnlock(s, 0, 0, high, low) != 0) {
        displayFailure("Attempt to unlock repository failed.");
        return -1;
    }
    sleep(1);
    displayConsoleMessage("File size changed between check and lock - retrying");
    return RETRY;
}

I32 lockSourceHeader(I32 s) {
    if (Quiet == 0)
        displayConsoleMessage("\nLocking entire source file.");
    I32 rc;
    do
        rc = tryLock(s);
    while (rc == RETRY);
    return rc;
}

I32 unlockSourceHeader(I32 s) {
    if (Quiet == 0)
        displayConsoleMessage("\nUnlocking source.");
    if (managerFile16GbLargeUnlock(s, 0, 0, highLockLength, lowLockLength) != 0) {
        displayFailure("Attempt to unlock repository failed.");
        return -1;
    }
    return 0;
}

I32 checkDestSpace(I32 s, I32 d, const char* dest) {
    U32 units;
    if (!getUnits(s, &units)) {
        displayFailure("Failed checking repository file size.");
        return -1;
    }
    U32 freeBlocks;
    U32 bytesPerBlock;
    if (managerFileGetVolSpace(d, dest, &freeBlocks, &bytesPerBlock) < 0) {
        displayFailure("Failed checking volume space.");
        return -1;
    }
    // Blocks smaller than a unit are counted by 16: none of them would hold a whole unit.
    const bool fSmallBlocks = bytesPerBlock < UNIT_SIZE;
    const U32 available = fSmallBlocks ? freeBlocks / 16 : freeBlocks;
    const U32 needed = units / (fSmallBlocks ? bytesPerBlock : bytesPerBlock / UNIT_SIZE);
    if (available > needed)
        return 0;

    displayConsoleMessage("\nWARNING\n\tSource file size %d blocks.\n"
                          "\tDestination volume has %d blocks available",
                          static_cast<I32>(needed), static_cast<I32>(available));
    displayConsoleMessage("\twhere 1 block = %d bytes", static_cast<I32>(bytesPerBlock));
    displayEmptyLine();
    if (Quiet != 0)
        return 0;
    if (confirm("Do you wish to continue") != 0)
        return 0;
    recordEnding(ENDING_DECLINED);
    return -1;
}
