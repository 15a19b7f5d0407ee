// Runs a built program as the administrator does, and hands back all that he would see.
#pragma once

#include <map>
#include <string>
#include <vector>

#include <sys/types.h>

using std::string;

struct RunResult {
    int status = -1; // exit status; 128 and the signal when one ended it
    string out;      // standard output
    string err;      // standard error
};

using Arguments = std::vector<string>;
using Environment = std::map<string, string>;

/// Where a client finds the server on `port`.
Environment serverAt(unsigned port);

/// Runs the program to its end with `input` on standard input. Its environment is PATH, LC_ALL=C
/// and `environment`.
RunResult runProgram(const string& program, const Arguments& arguments,
                     const Environment& environment = {}, const string& input = "");

/// kxadmin with this command line of the shell, for the server on `port`, in the directory. $x30
/// and the like are as many times x. What the command leaves of its input is written behind its
/// output, which is abridged.
RunResult runKxadmin(const string& line, unsigned port, const string& input = "",
                     const string& directory = "/");

/// The text with "[usage]\n" for the banner and the usage text, "[banner]\n" for a banner alone:
/// their words are the business of one test.
string abridged(string text);

/// A program on a terminal of its own. When the test fails, it tells what one printed that was not
/// finished or had to be ended, as it was silent for a minute.
class TerminalRun {
public:
    TerminalRun(const string& program, const Arguments& arguments, const Environment& environment);
    ~TerminalRun();
    TerminalRun(TerminalRun&&) = delete;

    /// Collects output until it holds `text` or the program ends; whether it came.
    bool waitFor(const string& text);
    /// Waits until the terminal's echo is as asked, or the program has ended; whether it is.
    bool waitForEcho(bool fOn);
    void type(const string& keys) const;
    bool echoes() const;
    bool hasEnded() const;
    /// Collects the rest of the output and the exit status.
    int finish();
    /// Takes the terminal away and collects the exit status.
    int hangUp();

    string output; // without the terminal's carriage returns at the ends of lines
    pid_t process = -1;

private:
    bool readMore();
    int collectStatus();
    int terminal = -1;
};
