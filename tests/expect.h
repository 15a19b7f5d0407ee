// How a test says what broke: a row of a table by its name and line, a text by its first line that
// differs.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

using std::string;

/// The name of a row, which remembers where in the source it stands.
struct Name {
    Name(const char* psz, const char* pszFile = __builtin_FILE(), int iLine = __builtin_LINE())
        : text(psz), file(pszFile), line(iLine) {}
    string text;
    const char* file;
    int line;
};

/// Runs the test on the rows one by one, under their names. With KX_ROW set, only on those that
/// have it in their names.
template<class Rows, class Test> void forEachRow(const Rows& rows, const Test& test) {
    const char* const pszOnly = std::getenv("KX_ROW");
    for (const auto& row : rows) {
        if (pszOnly != nullptr && row.name.text.find(pszOnly) == string::npos)
            continue;
        const testing::ScopedTrace trace(row.name.file, row.name.line, row.name.text);
        test(row);
    }
}

/// Expects the text; if it is another, tells the first line that differs.
void expectText(const string& expected, const string& got, const char* pszFile = __builtin_FILE(),
                int iLine = __builtin_LINE());
