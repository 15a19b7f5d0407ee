// Runs a built program as the administrator does, and hands back all that he would see.
#pragma once

#include <map>
#include <string>
#include <vector>

#include <sys/types.h>

struct Outcome {
    int status = -1; // exit status; 128 and the signal when one ended it
    std::string out; // standard output
    std::string err; // standard error
};

using Arguments = std::vector<std::string>;
using Environment = std::map<std::string, std::string>;

/// Where a client finds the server on `port`.
Environment serverAt(unsigned port);

/// Runs the program to its end with `input` on standard input. Its environment is PATH, LC_ALL=C
/// and `environment`.
Outcome runProgram(const std::string& program, const Arguments& arguments,
                   const Environment& environment = {}, const std::string& input = "");

/// kxadmin, for the server on `port`.
Outcome runKxadmin(const Arguments& arguments, unsigned port, const std::string& input = "");

/// The banner in the C locale.
inline const std::string banner = "\nKXADMIN 7.0a\nBy the kxadmin authors\nLocale: C\n";

/// A program on a terminal of its own.
class TerminalRun {
public:
    TerminalRun(const std::string& program, const Arguments& arguments,
                const Environment& environment);
    ~TerminalRun();
    TerminalRun(TerminalRun&&) = delete;

    /// Collects output until it holds `text` or the program ends; whether it came.
    bool waitFor(const std::string& text);
    /// Waits until the terminal's echo is as asked, or the program has ended; whether it is.
    bool waitForEcho(bool fOn);
    void type(const std::string& keys) const;
    bool echoes() const;
    /// Collects the rest of the output and the exit status.
    int finish();

    std::string output;
    pid_t process = -1;

private:
    bool readMore();
    int terminal = -1;
};
