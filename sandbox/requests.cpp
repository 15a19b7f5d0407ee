#include "sandbox/requests.h"

#include "sandbox/files.h"
#include "sandbox/log.h"
#include "sandbox/reports.h"

#include <cerrno>
#include <string>
#include <string_view>
#include <system_error>

static void replyNumber(Exchange& x, U32 u32) {
    putNumber(x.pReply + x.u32ReplyLength, u32);
    x.u32ReplyLength += 4;
}

/// Appends as much of the text as a reply has room for.
static void replyText(Exchange& x, std::string_view text) {
    const std::size_t length =
        std::min(text.size(), std::size_t{MAX_REPLY_DATA - x.u32ReplyLength});
    std::memcpy(x.pReply + x.u32ReplyLength, text.data(), length);
    x.u32ReplyLength += static_cast<U32>(length);
}

/// The open connection of that number, or null. Call with the mutex held.
static Connection* findConnection(Server& server, U32 u32Number) {
    const auto found = server.connections.find(u32Number);
    return found == server.connections.end() ? nullptr : found->second.get();
}

// File requests

/// Open and create: the mode, then the name without a NUL.
static Outcome openOrCreate(Exchange& x) {
    const U32 u32Mode = getNumber(x.pParameters);
    const std::string path(reinterpret_cast<const char*>(x.pParameters + 4), x.u32Length - 4);
    const bool fCreate = x.u32Code == REQUEST_FILE_CREATE;
    const bool fModeFits = fCreate ? u32Mode == 0 : isOpenMode(u32Mode);
    if (!fModeFits || path.find('\0') != std::string::npos)
        return {ERROR_MALFORMED};
    return fCreate ? createFile(x.server, x.connection, path)
                   : openFile(x.server, x.connection, path, u32Mode);
}

static Outcome closeFile(Exchange& x) {
    std::unique_ptr<OpenFile> closing;
    const std::lock_guard guard(x.server.mutex);
    closing = detachFile(x.server, x.connection);
    return {};
}

namespace {

/// The parameters of a read or write, plain or 16 GB: where, how much, the data.
struct Transfer {
    U64 u64Offset;
    U32 u32Length;
    const U8* pData;
    U32 u32DataLength;
};

} // namespace

static Transfer transferOf(const Exchange& x) {
    const bool fWide = x.u32Code == REQUEST_16GB_FILE_READ || x.u32Code == REQUEST_16GB_FILE_WRITE;
    const U8* p = x.pParameters + (fWide ? 8 : 4);
    const U64 u64Offset = fWide ? getWideNumber(x.pParameters) : getNumber(x.pParameters);
    return {u64Offset, getNumber(p), p + 4, x.u32Length - (fWide ? 12u : 8u)};
}

static Outcome read(Exchange& x) {
    const Transfer transfer = transferOf(x);
    // A client that is told the limit 1 asks a 16 GB read for all it wants at once, so the limit
    // that clients are told does not bind here.
    if (transfer.u32Length > MAX_REPLY_DATA)
        return {ERROR_OUT_OF_RANGE};
    return readFile(x.server, *x.connection.file, transfer.u64Offset, x.pReply, transfer.u32Length,
                    x.u32ReplyLength);
}

static Outcome write(Exchange& x) {
    const Transfer transfer = transferOf(x);
    if (transfer.u32Length != transfer.u32DataLength)
        return {ERROR_MALFORMED};
    return writeFile(x.server, *x.connection.file, transfer.u64Offset, transfer.pData,
                     transfer.u32Length);
}

/// End of file in bytes, or in units of 16 bytes rounded up.
static Outcome fileSize(Exchange& x) {
    U64 u64Size = 0;
    const Outcome outcome = endOfFile(*x.connection.file, u64Size);
    if (outcome.iResult != 0)
        return outcome;
    if (x.u32Code == REQUEST_16GB_FILE_GET_EOF)
        u64Size = u64Size / 16 + (u64Size % 16 != 0);
    if (u64Size > UINT32_MAX)
        return {EFBIG};
    replyNumber(x, static_cast<U32>(u64Size));
    return {};
}

static Range rangeOf(const Exchange& x) {
    return {getWideNumber(x.pParameters), getWideNumber(x.pParameters + 8)};
}

static Outcome lock(Exchange& x) {
    return lockRange(x.server, *x.connection.file, rangeOf(x));
}

static Outcome unlock(Exchange& x) {
    return unlockRange(x.server, *x.connection.file, rangeOf(x));
}

/// The name comes with its NUL, here alone.
static Outcome freeSpace(Exchange& x) {
    std::string path(reinterpret_cast<const char*>(x.pParameters), x.u32Length);
    if (path.find('\0') != path.size() - 1)
        return {ERROR_MALFORMED};
    path.pop_back();
    U32 u32Blocks = 0, u32BlockSize = 0;
    const Outcome outcome = volumeSpace(x.server, path, u32Blocks, u32BlockSize);
    if (outcome.iResult != 0)
        return outcome;
    replyNumber(x, u32Blocks);
    replyNumber(x, u32BlockSize);
    return {};
}

// Administrative requests

static Outcome dataLimit(Exchange& x) {
    replyNumber(x, x.server.options.u32DataLimit);
    return {};
}

static Outcome disconnect(Exchange& x) {
    x.after = AFTER_LEAVE;
    return {};
}

/// User identification, NUL, password, NUL. There is one administrator, so any identification does.
static Outcome verifyPassword(Exchange& x) {
    const std::string_view block(reinterpret_cast<const char*>(x.pParameters), x.u32Length);
    const std::size_t userEnd = block.find('\0');
    const std::string_view rest = block.substr(std::min(userEnd, block.size() - 1) + 1);
    if (rest.find('\0') != rest.size() - 1 || userEnd > MAX_USER_ID ||
        rest.size() - 1 > MAX_PASSWORD)
        return {ERROR_MALFORMED};
    const bool fMatches = rest.substr(0, rest.size() - 1) == x.server.options.password;
    const std::lock_guard guard(x.server.mutex);
    x.connection.fProved = fMatches;
    if (fMatches)
        return {};
    logLine(LEVEL_WARNING, "connection %u gave a wrong password", x.connection.u32Number);
    return {ERROR_NOT_AUTHORISED};
}

static Outcome clientAddress(Exchange& x) {
    replyNumber(x, socketNtoHL(x.connection.u32PeerAddress));
    return {};
}

static Outcome statistics(Exchange& x) {
    const std::lock_guard guard(x.server.mutex);
    replyText(x, statisticsText(x.server));
    return {};
}

static Outcome listConnections(Exchange& x) {
    const std::lock_guard guard(x.server.mutex);
    replyText(x, connectionListText(x.server));
    x.iSuccess = static_cast<I32>(x.server.connections.size());
    return {};
}

/// Statistics or locks of the connection that the parameter names.
static Outcome describeConnection(Exchange& x) {
    const std::lock_guard guard(x.server.mutex);
    const Connection* pConnection = findConnection(x.server, getNumber(x.pParameters));
    if (pConnection == nullptr)
        return {ERROR_NO_SUCH_CONNECTION};
    replyText(x, x.u32Code == REQUEST_GET_LOCK_LIST ? lockListText(*pConnection)
                                                    : connectionText(*pConnection));
    return {};
}

/// Answers when the other connection has left, so that its number, file and locks are free by then.
static Outcome killConnection(Exchange& x) {
    const U32 u32Number = getNumber(x.pParameters);
    if (u32Number == x.connection.u32Number)
        return disconnect(x);
    std::unique_lock guard(x.server.mutex);
    Connection* pVictim = findConnection(x.server, u32Number);
    if (pVictim == nullptr)
        return {ERROR_NO_SUCH_CONNECTION};
    const U64 u64Serial = pVictim->u64Serial;
    pVictim->fKilled = true;
    SocketShutdown(pVictim->socket.fd);
    x.server.left.notify_all(); // the victim may itself be waiting for one that it kills
    x.server.left.wait(guard, [&] {
        const Connection* p = findConnection(x.server, u32Number);
        return x.connection.fKilled || p == nullptr || p->u64Serial != u64Serial;
    });
    logLine(LEVEL_INFORMATION, "connection %u killed connection %u", x.connection.u32Number,
            u32Number);
    return {};
}

static Outcome stopServer(Exchange& x) {
    logLine(LEVEL_INFORMATION, "connection %u stops the server", x.connection.u32Number);
    x.after = AFTER_STOP;
    return {};
}

static Outcome changeLogLevel(Exchange& x) {
    const U32 u32Level = getNumber(x.pParameters);
    if (u32Level >= LEVEL_COUNT)
        return {ERROR_OUT_OF_RANGE};
    setLogLevel(static_cast<LogLevel>(u32Level));
    logLine(LEVEL_INFORMATION, "connection %u set the logging level to %s", x.connection.u32Number,
            logLevelName(u32Level));
    return {};
}

static Outcome options(Exchange& x) {
    replyText(x, optionsText(x.server));
    return {};
}

static Outcome version(Exchange& x) {
    const std::string text = versionText(x.server.options);
    replyText(x, {text.c_str(), text.size() + 1});
    replyNumber(x, VERSION_NUMBER);
    return {};
}

static Outcome serverType(Exchange& x) {
    replyNumber(x, x.server.options.u32ServerType);
    replyText(x, versionText(x.server.options));
    return {};
}

// The table

namespace {

/// When a connection may ask: at any time, with the password proved, with or without an open file.
enum Condition { ALWAYS, PROVED, WITH_FILE, NO_FILE };

struct RequestKind {
    U32 u32Code;
    const char* pszName;
    U32 u32Least, u32Most; ///< parameter bytes
    Condition condition;
    Outcome (*handler)(Exchange&);
};

} // namespace

static constexpr U32 MOST_OPEN = 4 + MAX_FILE_NAME;
static constexpr U32 MOST_WRITE = 8 + MAX_FILE_DATA;
static constexpr U32 MOST_WIDE_WRITE = 12 + MAX_FILE_DATA;
static constexpr U32 MOST_SPACE = MAX_VOLUME_NAME + 1;
static constexpr U32 MOST_PROOF = MAX_USER_ID + 1 + MAX_PASSWORD + 1;

// clang-format off
static constexpr RequestKind KINDS[] = {
    {REQUEST_FILE_OPEN,            "open file",             5,  MOST_OPEN,       NO_FILE,   openOrCreate},
    {REQUEST_FILE_CLOSE,           "close file",            0,  0,               WITH_FILE, closeFile},
    {REQUEST_FILE_READ,            "read",                  8,  8,               WITH_FILE, read},
    {REQUEST_FILE_WRITE,           "write",                 8,  MOST_WRITE,      WITH_FILE, write},
    {REQUEST_FILE_CREATE,          "create file",           5,  MOST_OPEN,       NO_FILE,   openOrCreate},
    {REQUEST_FILE_GET_EOF,         "end of file",           0,  0,               WITH_FILE, fileSize},
    {REQUEST_GET_MAX_DATA,         "data limit",            0,  0,               ALWAYS,    dataLimit},
    {REQUEST_DISCONNECT,           "disconnect",            0,  0,               ALWAYS,    disconnect},
    {REQUEST_VERIFY_PASSWORD,      "verify password",       2,  MOST_PROOF,      ALWAYS,    verifyPassword},
    {REQUEST_GET_INTERNET_ADDRESS, "client address",        0,  0,               ALWAYS,    clientAddress},
    {REQUEST_GET_KXSRV_STATS,      "server statistics",     0,  0,               ALWAYS,    statistics},
    {REQUEST_GET_CONNECTION_LIST,  "connection list",       0,  0,               ALWAYS,    listConnections},
    {REQUEST_GET_CONNECTION_STATS, "connection statistics", 4,  4,               ALWAYS,    describeConnection},
    {REQUEST_KILL_CONNECTION,      "kill connection",       4,  4,               PROVED,    killConnection},
    {REQUEST_STOP_SERVER,          "stop server",           0,  0,               PROVED,    stopServer},
    {REQUEST_SET_LOG_LEVEL,        "set logging level",     4,  4,               PROVED,    changeLogLevel},
    {REQUEST_GET_LOCK_LIST,        "lock list",             4,  4,               ALWAYS,    describeConnection},
    {REQUEST_GET_OPTIONS,          "server options",        0,  0,               ALWAYS,    options},
    {REQUEST_GET_VERSION,          "server version",        0,  0,               ALWAYS,    version},
    {REQUEST_FILE_GET_VOL_SPACE,   "volume space",          2,  MOST_SPACE,      ALWAYS,    freeSpace},
    {REQUEST_QUERY_SERVER_TYPE,    "server type",           0,  0,               ALWAYS,    serverType},
    {REQUEST_16GB_FILE_GET_EOF,    "16 GB end of file",     0,  0,               WITH_FILE, fileSize},
    {REQUEST_16GB_FILE_READ,       "16 GB read",            12, 12,              WITH_FILE, read},
    {REQUEST_16GB_FILE_WRITE,      "16 GB write",           12, MOST_WIDE_WRITE, WITH_FILE, write},
    {REQUEST_16GB_LARGE_LOCK,      "16 GB lock",            16, 16,              WITH_FILE, lock},
    {REQUEST_16GB_LARGE_UNLOCK,    "16 GB unlock",          16, 16,              WITH_FILE, unlock},
};
// clang-format on

static_assert(std::all_of(std::begin(KINDS), std::end(KINDS),
                          [](const auto& kind) { return kind.u32Code < CODE_LIMIT; }),
              "the counters of state.h have no room for the code");

static const RequestKind* findKind(U32 u32Code) {
    const auto pFound = std::find_if(std::begin(KINDS), std::end(KINDS),
                                     [=](const auto& kind) { return kind.u32Code == u32Code; });
    return pFound == std::end(KINDS) ? nullptr : pFound;
}

const char* requestName(U32 u32Code) {
    const RequestKind* pKind = findKind(u32Code);
    return pKind == nullptr ? nullptr : pKind->pszName;
}

/// 0, or why the connection is not in a state for such a request.
static I32 refusal(const Connection& connection, Condition condition) {
    switch (condition) {
    case PROVED: return connection.fProved ? 0 : ERROR_NOT_AUTHORISED;
    case WITH_FILE: return connection.file != nullptr ? 0 : ERROR_NO_FILE_OPEN;
    case NO_FILE: return connection.file == nullptr ? 0 : ERROR_FILE_OPEN;
    default: return 0;
    }
}

static Outcome handle(Exchange& x) {
    const RequestKind& kind = *findKind(x.u32Code);
    if (x.u32Length < kind.u32Least || x.u32Length > kind.u32Most)
        return {ERROR_MALFORMED};
    if (const I32 iRefusal = refusal(x.connection, kind.condition); iRefusal != 0)
        return {iRefusal};
    return kind.handler(x);
}

I32 carryOut(Exchange& exchange) {
    const Outcome outcome = handle(exchange);
    if (outcome.iResult == 0)
        return exchange.iSuccess;
    exchange.u32ReplyLength = 0;
    if (outcome.iResult > 0) {
        const std::string text = outcome.pszText != nullptr
                                     ? outcome.pszText
                                     : std::generic_category().message(outcome.iResult);
        replyText(exchange, {text.c_str(), text.size() + 1});
    }
    return outcome.iResult;
}
