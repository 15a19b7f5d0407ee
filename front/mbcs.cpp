#include "front/mbcs.h"

#include <cstdlib>
#include <cstring>

/// The walk of both searches: the first match, or with `fLast` the last one.
static const char* search(const char* string, int c, bool fLast) {
    const char* const pszEnd = string + std::strlen(string);
    if (c == 0)
        return pszEnd;
    const char* pszLast = nullptr;
    std::mblen(nullptr, 0);
    for (const char* psz = string; psz < pszEnd;) {
        const int iCharSize = std::mblen(psz, static_cast<std::size_t>(pszEnd - psz));
        if (iCharSize < 0)
            return nullptr;
        if (iCharSize == 1 && static_cast<signed char>(*psz) == c) {
            if (!fLast)
                return psz;
            pszLast = psz;
        }
        psz += iCharSize;
    }
    return pszLast;
}

const char* MBstrchr(const char* string, int c) {
    return search(string, c, false);
}

char* MBstrchr(char* string, int c) {
    return const_cast<char*>(search(string, c, false));
}

char* MBstrrchr(char* string, int c) {
    return const_cast<char*>(search(string, c, true));
}

char* MBNextChar(char* string) {
    const int iCharSize = std::mblen(string, MB_CUR_MAX);
    return iCharSize > 0 ? string + iCharSize : string;
}
