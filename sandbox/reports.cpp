#include "sandbox/reports.h"

#include "sandbox/log.h"
#include "sandbox/paths.h"
#include "sandbox/requests.h"

#include <cinttypes>
#include <cstdarg>

static constexpr const char* SERVER_TYPES[] = {"KXSRV", "PXSRV", "unnamed", "unnamed"};

namespace {

/// A text that grows by lines, and the lines that found no room in it.
struct Report {
    std::string text;
    U32 u32Left = 0;
};

} // namespace

/// Room for "(4294967295 more)" and its line feed.
static constexpr std::size_t ROOM_FOR_REST = 20;

[[gnu::format(printf, 2, 3)]] static void addLine(Report& report, const char* pszFormat, ...) {
    char szLine[4400]; // a directory of PATH_MAX characters and its label
    va_list arguments;
    va_start(arguments, pszFormat);
    std::vsnprintf(szLine, sizeof szLine, pszFormat, arguments);
    va_end(arguments);
    const std::size_t length = std::strlen(szLine) + 1;
    if (report.u32Left != 0 || report.text.size() + length > MAX_REPLY_DATA - ROOM_FOR_REST)
        ++report.u32Left;
    else
        report.text.append(szLine).append("\n");
}

/// A line of the two-column kind.
static void addValue(Report& report, const char* pszLabel, const std::string& value) {
    addLine(report, "%-24s  %s", pszLabel, value.c_str());
}

static void addCount(Report& report, const char* pszLabel, U64 u64Value) {
    addValue(report, pszLabel, std::to_string(u64Value));
}

static std::string finish(Report&& report) {
    if (report.u32Left != 0)
        report.text.append("(").append(std::to_string(report.u32Left)).append(" more)\n");
    return std::move(report.text);
}

std::string ageText(Clock::duration age) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(age).count();
    char szAge[40];
    std::snprintf(szAge, sizeof szAge, "%" PRId64 ":%02d:%02d", std::int64_t{seconds / 3600},
                  static_cast<int>(seconds / 60 % 60), static_cast<int>(seconds % 60));
    return szAge;
}

static std::string serverTypeText(const Options& options) {
    return std::to_string(options.u32ServerType) + " (" + SERVER_TYPES[options.u32ServerType] + ")";
}

static std::string openFileText(const Connection& connection) {
    return connection.file == nullptr ? "-" : printable(connection.file->path);
}

/// The end of `text` in at most `columns` bytes, no character of it torn.
static std::string tailOf(const std::string& text, std::size_t columns) {
    if (text.size() <= columns)
        return text;
    std::size_t begin = text.size() - (columns - 3);
    while (begin < text.size() && (text[begin] & '\xc0') == '\x80')
        ++begin;
    return "..." + text.substr(begin);
}

static U64 requestsOf(const Counters& counters) {
    U64 u64Sum = 0;
    for (const U64 u64Requests : counters.requests)
        u64Sum += u64Requests;
    return u64Sum;
}

static void addRequests(Report& report, const Counters& counters) {
    addLine(report, "%s", "");
    addLine(report, "Code  %-30s  %12s  %12s", "Request", "Requests", "Errors");
    for (U32 u32Code = 0; u32Code < CODE_LIMIT; ++u32Code)
        if (counters.requests[u32Code] != 0)
            addLine(report, "%4u  %-30s  %12" PRIu64 "  %12" PRIu64, u32Code, requestName(u32Code),
                    counters.requests[u32Code], counters.errors[u32Code]);
}

std::string statisticsText(const Server& server) {
    Report report;
    addValue(report, "Uptime", ageText(Clock::now() - server.start));
    addValue(report, "Server type", serverTypeText(server.options));
    addValue(report, "Version", versionText(server.options));
    addCount(report, "Process id", static_cast<U64>(getpid()));
    addCount(report, "Connections open", server.connections.size());
    addCount(report, "Connections accepted", server.u64Accepted);
    addCount(report, "Connections refused", server.u64Refused);
    addCount(report, "Bytes received", server.counters.u64BytesReceived);
    addCount(report, "Bytes sent", server.counters.u64BytesSent);
    addRequests(report, server.counters);
    return finish(std::move(report));
}

std::string connectionListText(const Server& server) {
    Report report;
    addLine(report, "Number  %-21s  %10s  %10s  %s", "Peer", "Age", "Requests", "Open file");
    for (const auto& [u32Number, connection] : server.connections)
        addLine(report, "%6u  %-21s  %10s  %10" PRIu64 "  %s", u32Number, connection->peer.c_str(),
                ageText(Clock::now() - connection->start).c_str(), requestsOf(connection->counters),
                tailOf(openFileText(*connection), 22).c_str());
    return finish(std::move(report));
}

std::string connectionText(const Connection& connection) {
    Report report;
    addCount(report, "Connection", connection.u32Number);
    addValue(report, "Peer", connection.peer);
    addValue(report, "Local address", connection.local);
    addValue(report, "Age", ageText(Clock::now() - connection.start));
    addValue(report, "Password proved", connection.fProved ? "yes" : "no");
    addValue(report, "Open file", openFileText(connection));
    addCount(report, "Bytes received", connection.counters.u64BytesReceived);
    addCount(report, "Bytes sent", connection.counters.u64BytesSent);
    addRequests(report, connection.counters);
    return finish(std::move(report));
}

std::string lockListText(const Connection& connection) {
    Report report;
    if (connection.file == nullptr || connection.file->locks.empty()) {
        addLine(report, "Connection %u holds no locks.", connection.u32Number);
        return finish(std::move(report));
    }
    addLine(report, "Connection %u holds locks on %s", connection.u32Number,
            openFileText(connection).c_str());
    addLine(report, "%20s  %20s", "Offset", "Length");
    for (const Range& lock : connection.file->locks)
        addLine(report, "%20" PRIu64 "  %20" PRIu64, lock.u64Offset, lock.u64Length);
    return finish(std::move(report));
}

std::string optionsText(const Server& server) {
    const Options& options = server.options;
    const U32 u32Level = logLevel();
    Report report;
    addCount(report, "Port", server.u32Port);
    addValue(report, "Directory", printable(options.directory));
    addValue(report, "Administrator's password", options.password.empty() ? "none" : "set");
    addValue(report, "Server type", serverTypeText(options));
    addCount(report, "Data limit", options.u32DataLimit);
    addCount(report, "Most connections", options.u32MostConnections);
    addValue(report, "Logging level",
             std::to_string(u32Level) + " (" + logLevelName(u32Level) + ")");
    for (const std::string& address : options.addresses)
        addValue(report, "Address", address);
    return finish(std::move(report));
}

std::string versionText(const Options& options) {
    return std::string(SERVER_TYPES[options.u32ServerType]) + " " + VERSION_TEXT;
}
