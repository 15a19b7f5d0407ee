// The option parser: what it returns, how it reorders the arguments, what it says.
#include "front/cmdline.h"

#include "tests/expect.h"

#include <clocale>
#include <sstream>
#include <vector>

/// Parses the words of `line`: each result with its argument, then the reordered words with a bar
/// where iOptInd stands. As the program does, it takes the password behind 'p' itself.
static std::string parse(const std::string& line, const char* options) {
    std::istringstream in(line);
    std::vector<std::string> words{std::istream_iterator<std::string>(in), {}};
    std::vector<char*> argv;
    for (std::string& word : words)
        argv.push_back(word.data());
    const int argc = static_cast<int>(argv.size());
    std::string result;
    iOptInd = 0;
    for (int c; (c = cmdline(argc, argv.data(), options)) != -1; result += ' ') {
        result += c == 1 ? "other" : std::string(1, static_cast<char>(c));
        if (pszOptArg != nullptr)
            result += std::string("=") + pszOptArg;
        if (c == '?' || c == ':')
            result += static_cast<char>(iOptOpt);
        if (c == 'p' && iOptInd < argc && *argv[static_cast<std::size_t>(iOptInd)] != '-')
            ++iOptInd;
    }
    result += "->";
    for (int i = 0; i < argc; ++i)
        result += (i == iOptInd ? " | " : " ") + std::string(argv[static_cast<std::size_t>(i)]);
    return result;
}

TEST(Cmdline, Parses) {
    // clang-format off
    const struct {
        Name name; // the command line
        const char *result, *err = "", *options = "c:f:hP:oqbpr:s:l:t:k:Z:";
    } rows[] = {
        {"stat -oq -P5000 -P 5001", "o q P=5000 P=5001 -> stat -oq -P5000 -P 5001"},
        {"test -qr -x", "q r=-x -> test -qr -x"},
        {"stat a -q -- b -o", "q -> stat -q -- | a b -o"},
        {"stat a - -o b -q c", "o q -> stat -o -q | a - b c"},
        {"stop a -p pw b -p -k 3", "p p k=3 -> stop -p pw -p -k 3 | a b"},
        {"stat -ox -q", "o ?x q -> stat -ox -q", "stat: invalid option -- x\n"},
        {"stat -P: -:", "P=: ?: -> stat -P: -:", "stat: invalid option -- :\n"},
        {"stat -q -P", "q ?P -> stat -q -P", "stat: option requires an argument -- P\n"},
        {"stat -\xC3\xA9q", "?\xC3 q -> stat -\xC3\xA9q", "stat: invalid option -- \xC3\n"},
        {"x -a -v1 -v 2", "a v=1 v -> x -a -v1 -v | 2", "", "av::"},
        {"x -P", ":P -> x -P", "x: option requires an argument -- P\n", ":P:"},
    };
    // clang-format on
    std::setlocale(LC_ALL, "C.UTF-8");
    forEachRow(rows, [](const auto& row) {
        for (iOptErr = 0; iOptErr < 2; ++iOptErr) {
            testing::internal::CaptureStderr();
            const std::string result = parse(row.name.text, row.options);
            const std::string err = testing::internal::GetCapturedStderr();
            EXPECT_EQ(result, row.result);
            EXPECT_EQ(err, iOptErr != 0 ? row.err : "");
        }
    });
    iOptErr = 1;
    std::setlocale(LC_ALL, "C");
}
