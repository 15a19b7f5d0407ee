#include "client/kxclient.h"
#include "front/console.h"
#include "front/settings.h"
#include "ops/ops.h"
#include "ops/platform.h"

#include <cerrno>
#include <sys/time.h>

/// The scratch data: blocks behind the place of a repository header.
static constexpr U32 SCRATCH_START = 1280;
static constexpr U32 SCRATCH_BLOCK = 4095;
static constexpr int SCRATCH_BLOCKS = 100;

/// Request sizes grow by so many bytes.
static constexpr I32 SIZE_STEP = 64;

static constexpr int PASSES = 8;

static bool openScratch(I32 s) {
    if (managerFileOpen(Manager, KXSRVWriteMode, s) >= 0)
        return true;
    displayFailure("Error opening repository.");
    return false;
}

static std::FILE* openResults(const char* benchLog) {
    std::FILE* hf = nullptr;
    if (benchLog[0] != '\0') {
        hf = openResultsFile(benchLog);
        if (hf == nullptr)
            printTo(stderr, "open: %s\n", std::strerror(errno));
    }
    if (hf == nullptr) {
        displayFailure("Error creating log file.");
        displayConsoleMessage("Please check path.");
    }
    return hf;
}

/// Results that were lost on their way to the file are told on standard error.
static void closeResults(std::FILE* hf, const char* benchLog) {
    const bool fWritten = std::ferror(hf) == 0;
    const bool fClosed = std::fclose(hf) == 0;
    if (!fWritten || !fClosed) {
        recordEnding(ENDING_FAILED);
        printTo(stderr, "Error writing log file %s.\n", benchLog);
    }
}

/// Of a server that does not take the data kxadmin says nothing: the reads find out what is there.
static void writeScratch(I32 s) {
    char writeBuffer[SCRATCH_BLOCK + 1];
    std::memset(writeBuffer, 't', SCRATCH_BLOCK);
    I32 failure = 0; // the first
    for (U32 i = 0; i < SCRATCH_BLOCKS; ++i) {
        const I32 n =
            managerFileWrite(s, SCRATCH_START + i * SCRATCH_BLOCK, writeBuffer, SCRATCH_BLOCK, 0);
        if (failure == 0 && n < 0)
            failure = n;
    }
    const I32 rc = managerFileClose(s);
    if (failure == 0)
        failure = rc;
    if (failure != 0)
        noteEnding(ENDING_FAILED, "the data could not be written (%d)", failure);
}

static long long milliseconds() {
    timeval now;
    gettimeofday(&now, nullptr);
    return 1000LL * now.tv_sec + now.tv_usec / 1000;
}

/// One pass: reads again and again at `offset`, until the amounts asked for add up to `SweepSize`
/// at least. A request asks for `size` bytes, but for no more than the previous reply left of the
/// sweep.
static bool readPass(I32 s, U32 offset, U32 size, U32 SweepSize) {
    static U8 readBuffer[BENCH_LAST_SIZE];
    U32 asked = 0;
    U32 previous = 0;
    do {
        const U32 amount = std::min(size, SweepSize - previous);
        const I32 n = managerFileRead(s, offset, readBuffer, amount, 0);
        if (n <= 0) {
            displayFailure("Error reading source repository.");
            return false;
        }
        asked += amount;
        previous = static_cast<U32>(n);
    } while (asked < SweepSize);
    return true;
}

/// Times one request size and writes its line.
static bool measure(I32 s, I32 size, U32 SweepSize, std::FILE* hf) {
    const long long start = milliseconds();
    U32 offset = 1;
    for (int i = 0; i < PASSES; ++i) {
        offset += SweepSize;
        if (!readPass(s, offset, static_cast<U32>(size), SweepSize))
            return false;
    }
    const int elapsed = static_cast<int>(milliseconds() - start);
    printTo(hf, "%d , %d \n", size, elapsed);
    displayConsoleMessage(".");
    return true;
}

/// Writes the scratch data to the open scratch file, and every request size's time to `hf`. Leaves
/// the file open when it has measured them all; false after a message.
static bool writeAndMeasure(I32 s, U32 SweepSize, I32 largestChunkSize, std::FILE* hf) {
    displayConsoleMessage("Writing data to %s.", Manager);
    writeScratch(s);
    if (!openScratch(s))
        return false;
    displayConsoleMessage("Bench test running, please wait.");
    for (I32 size = BENCH_FIRST_SIZE; size <= largestChunkSize; size += SIZE_STEP)
        if (!measure(s, size, SweepSize, hf))
            return false;
    return true;
}

static void benchKXSRV(I32 s, U32 SweepSize, I32 largestChunkSize, const char* benchLog) {
    if (managerFileCreate(Manager, s) != 0) {
        displayFailure("Error creating repository.");
        return;
    }
    if (!openScratch(s))
        return;
    std::FILE* const hf = openResults(benchLog);
    if (hf == nullptr) {
        managerFileClose(s);
        return;
    }
    if (writeAndMeasure(s, SweepSize, largestChunkSize, hf)) {
        managerFileClose(s);
        displayConsoleMessage("\nBench test finished.");
        displaySuccess("\nResults have been written to [%s].", benchLog);
    }
    closeResults(hf, benchLog);
}

I32 OperationBench(CONNECT_PARAMS* pcp, U32 sweepSize, I32 largestChunkSize, const char* benchLog) {
    displayConsoleMessage("Connecting to KXSRV at host [%s]", pcp->host);
    benchKXSRV(pcp->s, sweepSize, largestChunkSize, benchLog);
    return 0;
}
