#include "tests/expect.h"

#include <algorithm>

/// The line that holds `at`, or what surrounds it where the line is long, as a string literal.
static std::string lineAround(const std::string& text, std::size_t at) {
    if (at >= text.size() && (at == 0 || text[at - 1] == '\n'))
        return "the end of the text";
    const std::size_t before = at == 0 ? text.npos : text.rfind('\n', at - 1);
    std::size_t begin = before == text.npos ? 0 : before + 1;
    begin = std::max(begin, at - std::min<std::size_t>(at, 100));
    const std::size_t end = std::min(text.find('\n', at), at + 100);
    return testing::PrintToString(text.substr(begin, end - begin));
}

void expectText(const std::string& expected, const std::string& got, const char* pszFile,
                int iLine) {
    if (got == expected)
        return;
    const auto at = static_cast<std::size_t>(
        std::mismatch(expected.begin(), expected.end(), got.begin(), got.end()).first -
        expected.begin());
    const auto line = 1 + std::count(got.begin(), got.begin() + static_cast<long>(at), '\n');
    ADD_FAILURE_AT(pszFile, iLine)
        << "line " << line << " of the text\n  expected: " << lineAround(expected, at)
        << "\n       got: " << lineAround(got, at);
}
