#include "client/exchange.h"
#include "front/console.h"

#include <algorithm>
#include <cstring>

/// A request on a name, behind a mode.
static I32 exchangeName(I32 s, U32 u32Opcode, U32 u32Mode, const char* fileName) {
    const std::size_t length = fileName != nullptr ? std::strlen(fileName) : MAX_FILE_NAME + 1;
    if (length > MAX_FILE_NAME)
        return localFailure(LOCAL_BAD_ARGUMENT);
    constexpr std::size_t nameOffset = offsetof(OPEN_PARAMETERS, pathname);
    putNumber(Request.Padding, u32Mode);
    std::memcpy(Request.Padding + nameOffset, fileName, length);
    return exchange(s, &Request.Header, u32Opcode, static_cast<U32>(nameOffset + length));
}

I32 managerFileOpen(const char* fileName, U16 accessMode, I32 s) {
    const I32 rc = exchangeName(s, REQUEST_FILE_OPEN, accessMode, fileName);
    return rc < 0 ? rc : s;
}

I32 managerFileCreate(const char* fileName, I32 s) {
    const I32 rc = exchangeName(s, REQUEST_FILE_CREATE, 0, fileName);
    return rc < 0 ? rc : managerFileClose(s);
}

I32 managerFileClose(I32 s) {
    return exchange(s, &Request.Header, REQUEST_FILE_CLOSE, 0);
}

/// What every read and write needs: a buffer, and the data limit. 0 or a negated local code.
static I32 prepareTransfer(I32 s, const void* byteBuffer) {
    if (byteBuffer == nullptr)
        return localFailure(LOCAL_BAD_ARGUMENT);
    if (ManagerDataLimit == 0 && managerGetMaxData(s) <= 0)
        return localFailure(LOCAL_LIMIT_UNKNOWN);
    return 0;
}

/// Reads in requests of at most `limit` bytes: `ask(done, data)` exchanges the one for the bytes
/// that `data` has room for, behind the first `done`. Returns the bytes read; a reply of fewer than
/// asked ends it.
template<class Ask>
static I32 readInRequests(void* pTarget, U32 nBytesToRead, U32 limit, const Ask& ask) {
    for (U32 done = 0;;) {
        const U32 amount = std::min(limit, nBytesToRead - done);
        FileData data;
        data.pReceived = static_cast<U8*>(pTarget) + done;
        data.u32Room = amount;
        const I32 rc = ask(done, data);
        if (rc < 0)
            return rc;
        const U32 received = Reply.Header.Result_Length;
        if (received > amount)
            return localFailure(LOCAL_WRONG_LENGTH);
        done += received;
        if (received < amount || done >= nBytesToRead)
            return static_cast<I32>(done);
    }
}

/// Writes in requests of at most `limit` bytes: `ask(done, data)` exchanges the one that sends
/// `data`, behind the first `done`. Returns the bytes written.
template<class Ask>
static I32 writeInRequests(const void* pSource, U32 nBytesToWrite, U32 limit, const Ask& ask) {
    U32 done = 0;
    do {
        const U32 amount = std::min(limit, nBytesToWrite - done);
        FileData data;
        data.pSent = static_cast<const U8*>(pSource) + done;
        data.u32Sent = amount;
        const I32 rc = ask(done, data);
        if (rc < 0)
            return rc;
        done += amount;
    } while (done < nBytesToWrite);
    return static_cast<I32>(done);
}

I32 managerFileRead(I32 s, U32 filePosition, void* byteBuffer, U32 nBytesToRead, U32 bufferOffset) {
    const I32 rc = prepareTransfer(s, byteBuffer);
    if (rc < 0)
        return rc;
    const auto ask = [&](U32 done, const FileData& data) {
        putNumber(&Request2Param.P1, filePosition + done);
        putNumber(&Request2Param.P2, data.u32Room);
        return exchange(s, &Request2Param.Header, REQUEST_FILE_READ, sizeof(READ_PARAMETERS), data);
    };
    return readInRequests(static_cast<U8*>(byteBuffer) + bufferOffset, nBytesToRead,
                          ManagerDataLimit, ask);
}

I32 managerFileWrite(I32 s, U32 filePosition, const void* byteBuffer, U32 nBytesToWrite,
                     U32 bufferOffset) {
    const I32 rc = prepareTransfer(s, byteBuffer);
    if (rc < 0)
        return rc;
    const auto ask = [&](U32 done, const FileData& data) {
        putNumber(&Request2Param.P1, filePosition + done);
        putNumber(&Request2Param.P2, data.u32Sent);
        return exchange(s, &Request2Param.Header, REQUEST_FILE_WRITE, sizeof(WRITE_PARAMETERS),
                        data);
    };
    return writeInRequests(static_cast<const U8*>(byteBuffer) + bufferOffset, nBytesToWrite,
                           ManagerDataLimit, ask);
}

/// Fills in the place of a 16 GB read or write: `done` bytes behind high:low, for `amount` bytes.
static void putRange(REQUEST_3PARAMETER* pRequest, U32 highOffset, U32 lowOffset, U32 done,
                     U32 amount) {
    const U32 low = lowOffset + done;
    putNumber(&pRequest->P1, low < lowOffset ? highOffset + 1 : highOffset);
    putNumber(&pRequest->P2, low);
    putNumber(&pRequest->P3, amount);
}

I32 manager16GbFileRead(I32 s, U32 highOffset, U32 lowOffset, void* byteBuffer, U32 nBytesToRead,
                        U32 bufferOffset) {
    const I32 rc = prepareTransfer(s, byteBuffer);
    if (rc < 0)
        return rc;
    REQUEST_3PARAMETER request3Param;
    const auto ask = [&](U32 done, const FileData& data) {
        putRange(&request3Param, highOffset, lowOffset, done, data.u32Room);
        return exchange(s, &request3Param.Header, REQUEST_16GB_FILE_READ,
                        sizeof(READ_16GB_PARAMETERS), data);
    };
    // A limit of 1 is no limit here: the whole remainder is asked for at once.
    const U32 limit = ManagerDataLimit != 1 ? ManagerDataLimit : UINT32_MAX;
    return readInRequests(static_cast<U8*>(byteBuffer) + bufferOffset, nBytesToRead, limit, ask);
}

I32 manager16GbFileWrite(I32 s, U32 highOffset, U32 lowOffset, const void* byteBuffer,
                         U32 nBytesToWrite, U32 bufferOffset) {
    const I32 rc = prepareTransfer(s, byteBuffer);
    if (rc < 0)
        return rc;
    REQUEST_3PARAMETER request3Param;
    const auto ask = [&](U32 done, const FileData& data) {
        putRange(&request3Param, highOffset, lowOffset, done, data.u32Sent);
        return exchange(s, &request3Param.Header, REQUEST_16GB_FILE_WRITE,
                        sizeof(WRITE_16GB_PARAMETERS), data);
    };
    return writeInRequests(static_cast<const U8*>(byteBuffer) + bufferOffset, nBytesToWrite,
                           ManagerDataLimit, ask);
}

static I32 exchangeEOF(I32 s, U32 u32Opcode, U8* eofPosition) {
    if (eofPosition == nullptr)
        return localFailure(LOCAL_BAD_ARGUMENT);
    const I32 rc = exchange(s, &Request.Header, u32Opcode, 0);
    if (rc < 0)
        return rc;
    if (Reply.Header.Result_Length != 4)
        return localFailure(LOCAL_WRONG_LENGTH);
    std::memcpy(eofPosition, Reply.Padding, 4);
    return 0;
}

I32 managerFileGetEOF(I32 s, U8* eofPosition) {
    return exchangeEOF(s, REQUEST_FILE_GET_EOF, eofPosition);
}

I32 manager16GbFileGetEOF(I32 s, U8* eofPosition) {
    return exchangeEOF(s, REQUEST_16GB_FILE_GET_EOF, eofPosition);
}

static I32 exchangeLock(I32 s, U32 u32Opcode, U32 highOffset, U32 lowOffset, U32 highLength,
                        U32 lowLength) {
    putNumber(&Request4Param.P1, highOffset);
    putNumber(&Request4Param.P2, lowOffset);
    putNumber(&Request4Param.P3, highLength);
    putNumber(&Request4Param.P4, lowLength);
    return exchange(s, &Request4Param.Header, u32Opcode, sizeof(LARGE_LOCK_16GB_PARAMETERS));
}

I32 managerFile16GbLargeLock(I32 s, U32 highOffset, U32 lowOffset, U32 highLength, U32 lowLength) {
    return exchangeLock(s, REQUEST_16GB_LARGE_LOCK, highOffset, lowOffset, highLength, lowLength);
}

I32 managerFile16GbLargeUnlock(I32 s, U32 highOffset, U32 lowOffset, U32 highLength,
                               U32 lowLength) {
    return exchangeLock(s, REQUEST_16GB_LARGE_UNLOCK, highOffset, lowOffset, highLength, lowLength);
}

I32 managerFileGetVolSpace(I32 s, const char* file, U32* freeBlocks, U32* bytesPerBlock) {
    const std::size_t length = file != nullptr ? std::strlen(file) : MAX_VOLUME_NAME + 1;
    if (length > MAX_VOLUME_NAME)
        return localFailure(LOCAL_BAD_ARGUMENT);
    std::memcpy(Request.Padding, file, length + 1);
    const I32 rc =
        exchange(s, &Request.Header, REQUEST_FILE_GET_VOL_SPACE, static_cast<U32>(length + 1));
    if (rc < 0)
        return rc;
    if (Reply.Header.Result_Length != 8)
        return localFailure(LOCAL_WRONG_LENGTH);
    *freeBlocks = getNumber(Reply.Padding);
    *bytesPerBlock = getNumber(Reply.Padding + 4);
    if (*bytesPerBlock == 0) {
        displayFailure("\nError: KXSRV returned 0 for the bytes per block.");
        return -1;
    }
    return 0;
}
