#include "tests/expect.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <unistd.h>

static const char* const pszChosen = std::getenv("KX_ROW");
static bool fFound = pszChosen == nullptr;

namespace {

struct AfterAllTests : testing::Environment {
    void TearDown() override {
        EXPECT_TRUE(fFound) << "no row of these tests has KX_ROW in its name: " << pszChosen;
    }
};

} // namespace

static const auto* const afterAllTests = testing::AddGlobalTestEnvironment(new AfterAllTests);

bool isChosen(const Name& name) {
    const bool fChosen = pszChosen == nullptr || name.text.find(pszChosen) != string::npos;
    fFound = fFound || fChosen;
    return fChosen;
}

int failureCount() {
    return testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count();
}

void eventually(const std::function<bool()>& condition, const string& words) {
    using namespace std::chrono;
    for (const auto end = steady_clock::now() + minutes(1); !condition(); usleep(1000))
        if (steady_clock::now() > end) {
            ADD_FAILURE() << "not within a minute: " << words;
            return;
        }
}

/// The line at that place, as a string literal; of a long one what surrounds the place.
static string lineAt(const string& text, std::size_t at) {
    const std::size_t begin = at == 0 ? 0 : text.rfind('\n', at - 1) + 1;
    const std::size_t from = std::max(begin, at - std::min<std::size_t>(at, 100));
    const string line = text.substr(from, std::min(text.find('\n', at), at + 100) - from);
    return at == text.size() && line.empty() ? "the end of the text" : testing::PrintToString(line);
}

void expectText(const string& expected, const string& got, const char* pszFile, int iLine) {
    if (got == expected)
        return;
    std::size_t at = 0;
    while (at < expected.size() && at < got.size() && expected[at] == got[at])
        ++at;
    ADD_FAILURE_AT(pszFile, iLine)
        << "line " << 1 + std::count(got.begin(), got.begin() + static_cast<long>(at), '\n')
        << " of the text\n  expected: " << lineAt(expected, at)
        << "\n       got: " << lineAt(got, at);
}
