// The types that every room of the house shares: integers of stated width, the records that one
// room fills and another reads, and the helpers by which a text is measured and stored in a fixed
// array. Nothing here runs on its own and nothing here is state; the instances live in settings.h.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>

using I32 = std::int32_t;
using U8 = std::uint8_t;
using U16 = std::uint16_t;
using U32 = std::uint32_t;
using U64 = std::uint64_t;
using ULONG = std::uint32_t; // of the version record
using BOOL = int;
using BOOLEAN = char;

/// Sizes of the fixed arrays below, each with its terminating NUL.
inline constexpr std::size_t PASSWORD_SIZE = 31;
inline constexpr std::size_t PATH_SIZE = 1024;
inline constexpr std::size_t SYSTEM_COMMAND_SIZE = 80;
inline constexpr std::size_t VERSION_TEXT_SIZE = 129;

/// Server types as the server reports them; 2 and 3 are accepted and carry no name.
inline constexpr U32 SERVER_TYPE_KXSRV = 0;
inline constexpr U32 SERVER_TYPE_PXSRV = 1;

/// One server that a command talks to.
struct CONNECT_Params {
    I32 s;            ///< socket of the connection; negative when none could be made
    U32 serverType;   ///< learned by getServerInfo
    U32 versionId;    ///< learned by managerGetVersion, in wire order
    const char* host; ///< name or dotted address; not owned, set before connecting
    char versionStr[VERSION_TEXT_SIZE]; ///< learned by managerGetVersion
};
using CONNECT_PARAMS = CONNECT_Params;

/// The administrator's password, from -p, --password-file or the prompt.
struct PasswordStruct {
    char name[PASSWORD_SIZE]; ///< empty until one is given
    I32 noPassword;           ///< 1: -p stood without a value, the empty password is sent
};

/// What `copy` was asked to do.
struct CopyParams {
    const char* sourceHost; ///< the four texts point into the argument strings
    const char* sourceFile;
    const char* destHost;
    const char* destFile;
    char overwrite;                         ///< nonzero: replace the destination without asking
    char szSysCommand[SYSTEM_COMMAND_SIZE]; ///< empty: copy through the servers
};

/// What `test` was asked to do, and what it found.
struct TestInfo {
    int fOutputToFile; ///< 1: file mode, the report goes to hTempFile, the console is silent
    char szTestRep[PATH_SIZE];  ///< the repository as the server names it
    char szTempFile[PATH_SIZE]; ///< local path of the report
    std::FILE* hTempFile;
    U8 u8RepVersion; ///< version byte of the last header with the check pattern
};

/// Stores `psz` with its NUL; a text that does not fit is refused: false, and the array keeps what
/// it held.
template<std::size_t N> bool storeText(char (&szTarget)[N], const char* psz) {
    const std::size_t length = std::strlen(psz);
    if (length >= N)
        return false;
    std::memcpy(szTarget, psz, length + 1);
    return true;
}

/// The first byte `c` from `pBegin` on, or `pEnd`.
inline const char* findByte(const char* pBegin, const char* pEnd, char c) {
    const void* const p = std::memchr(pBegin, c, static_cast<std::size_t>(pEnd - pBegin));
    return p != nullptr ? static_cast<const char*>(p) : pEnd;
}

/// How much of the `size` bytes at `pText` is text: what stands before a NUL, or all of it.
inline std::size_t textLength(const char* pText, std::size_t size) {
    return static_cast<std::size_t>(findByte(pText, pText + size, '\0') - pText);
}

/// Stores as much of the `length` bytes at `pText` as fits, and a NUL.
template<std::size_t N>
void storeCutText(char (&szTarget)[N], const void* pText, std::size_t length) {
    const std::size_t kept = std::min(length, N - 1);
    std::memcpy(szTarget, pText, kept);
    szTarget[kept] = '\0';
}
