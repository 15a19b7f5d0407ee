#include "client/exchange.h"

#include <cstring>

/// Room for the largest password block: two texts, each with its NUL.
static constexpr std::size_t PASSWORD_BLOCK_SIZE = MAX_USER_ID + 1 + MAX_PASSWORD + 1;

static I32 exchangeNumber(I32 s, U32 u32Opcode, U32 u32Number) {
    putNumber(Request.Padding, u32Number);
    return exchange(s, &Request.Header, u32Opcode, sizeof u32Number);
}

/// A request that is answered by a text, with `u32ParameterLength` bytes already in Request.
static I32 exchangeText(I32 s, U32 u32Opcode, U32 u32ParameterLength, char* sb) {
    if (sb == nullptr)
        return localFailure(LOCAL_BAD_ARGUMENT);
    const I32 rc = exchange(s, &Request.Header, u32Opcode, u32ParameterLength);
    if (rc == 0)
        std::memcpy(sb, Reply.Padding, Reply.Header.Result_Length);
    return rc;
}

I32 managerGetKXSRVStats(I32 s, char* sb) {
    return exchangeText(s, REQUEST_GET_KXSRV_STATS, 0, sb);
}

I32 managerGetOptions(I32 s, char* buf) {
    return exchangeText(s, REQUEST_GET_OPTIONS, 0, buf);
}

I32 managerGetConnectionStats(I32 s, U32 connNum, char* sb) {
    putNumber(Request.Padding, connNum);
    return exchangeText(s, REQUEST_GET_CONNECTION_STATS, sizeof connNum, sb);
}

I32 managerGetLockList(I32 s, U32 connNum, char* sb) {
    putNumber(Request.Padding, connNum);
    return exchangeText(s, REQUEST_GET_LOCK_LIST, sizeof connNum, sb);
}

I32 managerKillConnection(I32 s, U32 connNum) {
    return exchangeNumber(s, REQUEST_KILL_CONNECTION, connNum);
}

I32 managerSetLogLevel(I32 s, U32 logLevel) {
    return exchangeNumber(s, REQUEST_SET_LOG_LEVEL, logLevel);
}

I32 managerGetConnectionList(I32 s, char* sb) {
    if (sb == nullptr)
        return localFailure(LOCAL_BAD_ARGUMENT);
    const I32 rc = transact(s, &Request.Header, REQUEST_GET_CONNECTION_LIST, 0);
    if (rc < 0)
        return rc;
    std::memcpy(sb, Reply.Padding, Reply.Header.Result_Length);
    return Reply.Header.Result;
}

I32 managerStopServer(I32 s) {
    return transact(s, &Request.Header, REQUEST_STOP_SERVER, 0);
}

I32 managerVerifyPassword(I32 s, const char* userId, U32 userIdLength, const char* passwd,
                          U32 passwdLength) {
    if (userIdLength > MAX_USER_ID || passwdLength > MAX_PASSWORD)
        return localFailure(LOCAL_BAD_ARGUMENT);
    U8* const pBlock = Request.Padding;
    std::memset(pBlock, 0, PASSWORD_BLOCK_SIZE);
    std::memcpy(pBlock, userId, userIdLength);
    std::memcpy(pBlock + userIdLength + 1, passwd, passwdLength);
    const I32 rc =
        exchange(s, &Request.Header, REQUEST_VERIFY_PASSWORD, userIdLength + passwdLength + 2);
    explicit_bzero(pBlock, PASSWORD_BLOCK_SIZE); // the buffer outlives the check
    return rc;
}

I32 managerGetInternetAddress(I32 s, U8* buffer10) {
    if (buffer10 == nullptr)
        return localFailure(LOCAL_BAD_ARGUMENT);
    const I32 rc = exchange(s, &Request.Header, REQUEST_GET_INTERNET_ADDRESS, 0);
    if (rc < 0)
        return rc;
    if (Reply.Header.Result_Length != sizeof ManagerLocalIP)
        return localFailure(LOCAL_WRONG_LENGTH);
    std::memcpy(&ManagerLocalIP, Reply.Padding, sizeof ManagerLocalIP);
    return managerInternetAddress(buffer10);
}

I32 managerInternetAddress(U8* buffer10) {
    if (buffer10 == nullptr)
        return localFailure(LOCAL_BAD_ARGUMENT);
    std::memset(buffer10, 0, 10);
    std::memcpy(buffer10, &ManagerLocalIP, sizeof ManagerLocalIP);
    return 0;
}

I32 managerGetVersion(CONNECT_PARAMS* pcp) {
    const I32 rc = exchange(pcp->s, &Request.Header, REQUEST_GET_VERSION, 0);
    if (rc < 0)
        return rc;
    const U32 u32Length = Reply.Header.Result_Length;
    const auto* pText = reinterpret_cast<const char*>(Reply.Padding);
    const std::size_t length = textLength(pText, u32Length);
    storeCutText(pcp->versionStr, pText, length);
    const std::size_t behind = length + 1;
    pcp->versionId = 0;
    if (behind + sizeof pcp->versionId <= u32Length)
        std::memcpy(&pcp->versionId, pText + behind, sizeof pcp->versionId);
    return 0;
}
