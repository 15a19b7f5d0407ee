// The check of a number that was typed: what is accepted, and what is said of the rest.
#include "front/console.h"

#include <gtest/gtest.h>

/// The result of `action`, and what it printed.
template<class Action> static std::string outcome(const Action& action) {
    testing::internal::CaptureStdout();
    const int result = action();
    std::fflush(stdout);
    return std::to_string(result) + " " + testing::internal::GetCapturedStdout();
}

TEST(Console, ChecksNumbers) {
    const struct {
        const char* number;
        std::string outcome;
    } rows[] = {{"4800", "0 "},
                {"0048", "0 "},
                {"12ab", "0 "},
                {"00480", "-1 [00480] is out of range.\n"},
                {"12abc", "-1 [12abc] is out of range.\n"},
                {" -12345", "-1 [ -12345] must be a positive number.\n"}};
    for (const auto& row : rows)
        EXPECT_EQ(outcome([&] { return isValidNumber(row.number, 4); }), row.outcome);
    for (const char* const number : {"-0", "+5", " 5", "x1", "", static_cast<const char*>(nullptr)})
        EXPECT_EQ(outcome([&] { return isValidNumber(number, 4); }),
                  "-1 A numeric value is required.\n");
}
