// How a test says what broke: a row of a table by its name and line, a text by its first line that
// differs, a wait in vain by what was waited for.
#pragma once

#include <gtest/gtest.h>

#include <functional>
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

/// Whether KX_ROW, if it is set, is in the name. A run that chooses no row fails.
bool isChosen(const Name& name);

/// How many failures the running test has had.
int failureCount();

/// Runs the test on the chosen rows one by one, under their names, until three have failed.
template<class Rows, class Test> void forEachRow(const Rows& rows, const Test& test) {
    int run = 0, failed = 0;
    for (const auto& row : rows) {
        if (!isChosen(row.name))
            continue;
        const testing::ScopedTrace trace(row.name.file, row.name.line, row.name.text);
        const int before = failureCount();
        test(row);
        ++run;
        failed += failureCount() > before;
        if (failed == 3)
            FAIL() << "three rows have failed: those behind this one are left out";
    }
    if (run == 0)
        GTEST_SKIP() << "no row has KX_ROW in its name";
}

/// Waits until the condition holds. Fails after a minute, lest a test hangs.
void eventually(const std::function<bool()>& condition, const string& words);

/// Expects the text; if it is another, tells the first line that differs.
void expectText(const string& expected, const string& got, const char* pszFile = __builtin_FILE(),
                int iLine = __builtin_LINE());
