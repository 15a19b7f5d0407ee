// The modifiers of each command are the same in the program, its manual page and the completions.
#include "tests/run_program.h"

#include <gtest/gtest.h>

#include <cctype>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>

using Modifiers = std::map<std::string, std::set<std::string>>; // of each command

static const char commands[] = "stat opts list stop copy test bench";

/// The `letter` expression's matches in each piece of the file that follows a match of `start`, to
/// the commands named in that, or to all there are when it names none.
static Modifiers read(const std::string& file, const char* start, const char* letter) {
    std::ifstream stream(KX_SOURCE_DIR "/" + file);
    const std::string text{std::istreambuf_iterator(stream), {}};
    const std::regex starts(start), letters(letter);
    Modifiers modifiers;
    const std::sregex_iterator end;
    for (std::sregex_iterator i(text.begin(), text.end(), starts); i != end; ++i) {
        std::string piece = i->suffix();
        std::smatch next;
        if (std::regex_search(piece, next, starts))
            piece = next.prefix();
        piece = piece.substr(0, piece.find(";;"));
        std::istringstream names((*i)[1].matched ? (*i)[1].str() : commands);
        for (std::string name; names >> name;)
            for (std::sregex_iterator j(piece.begin(), piece.end(), letters); j != end; ++j)
                modifiers[name].insert((*j)[1].str());
    }
    return modifiers;
}

TEST(Modifiers, AreTheSameEverywhere) {
    const Modifiers onPage =
        read("docs/kxadmin.1", R"(\n\.S[sh] (?:Common modifiers|(.*)))", R"(\n\.It Fl (\w) ?)");
    EXPECT_EQ(read("completion/kxadmin.bash", R"((\w+)\) modifiers=)", R"(-(\w)\b)"), onPage);
    EXPECT_EQ(read("completion/_kxadmin", R"((\w+)\) modifiers\+=|modifiers=)",
                   R"('(?:\([^)]*\))?-(\w))"),
              onPage);
    EXPECT_EQ(read("completion/kxadmin.fish", "'__kxadmin_in ([a-z ]+)'", " -s (\\w) "), onPage);

    std::set<std::string> ofPage, ofProgram;
    for (const auto& [command, letters] : onPage)
        ofPage.insert(letters.begin(), letters.end());
    for (char c = '0'; c <= 'z'; ++c) {
        if (isalnum(c) == 0)
            continue;
        const Outcome outcome = runProgram(KXADMIN_PROGRAM, {"stat", {'-', c}, "2048", "-:"});
        ASSERT_EQ(outcome.status, 1);
        if (outcome.err.find(std::string("invalid option -- ") + c) == std::string::npos)
            ofProgram.insert(std::string(1, c));
    }
    EXPECT_EQ(ofPage, ofProgram);
}
