// test: whether a file is a repository, told on the console or in the report file.
#include "tests/expect.h"
#include "tests/run_program.h"
#include "tests/scratch.h"
#include "tests/scripted_server.h"

TEST(Repository, IsJudgedOnTheConsoleAndInTheReport) {
    const string header = repository(1280), path = "127.0.0.1:/a.rep";
    const auto version = [&](char c) { return reply(0, string(header).replace(4, 1, 1, c)); };
    const string valid = path + " appears to be a valid repository with a maximum size of ";
    const string noOpen = "Could not open repository " + path + ". ";
    const string noRead = "Could not read from the repository " + path + ". ";
    const string denied = "Access was denied - another process may have the repository opened "
                          "in an exclusive mode.";
    const string notOne = path + " does not appear to be a valid repository";
    const string tooSmall =
        notOne + " as it is too small.  All repositories must be at least 1280 bytes in size.";
    // clang-format off
    const struct {
        Name name;
        I32 opened; // the result of the open
        Answer read;
        char code; // in the report; the message follows it, but for an 8
        string message;
        bool fBlankLine = true; // behind the message on the console
    } rows[] = {
        {"of 1 GB", 0, version(5), '0', valid + "1 GB.", false},
        {"of 16 GB", 0, version(6), '0',
         valid + "16 GB (subject to limitations of the hosting file system).", false},
        {"not there", 2, {}, '2', noOpen + "The repository does not exist or could not be found."},
        {"open elsewhere", 5, {}, '3', noOpen + denied},
        {"not to be opened", 13, {}, '8',
         "Unexpected error rc=-13 opening repository " + path + "."},
        {"locked elsewhere", 0, reply(33), '4', noRead + denied},
        {"a byte too small", 0, reply(0, header.substr(1)), '5', tooSmall, false},
        {"of another pattern", 0, reply(0, "4320" + header.substr(4)), '6',
         notOne + ". Check pattern missing in header."},
        {"of a later version", 0, version('\xff'), '7',
         path + " has an unknown version number (255)."},
    };
    // clang-format on
    forEachRow(rows, [](const auto& row) {
        for (const bool fReport : {false, true}) {
            SCOPED_TRACE(fReport ? "in the report" : "on the console");
            const Scratch scratch;
            ScriptedServer server;
            server.on(REQUEST_FILE_OPEN, {reply(row.opened)});
            server.on(REQUEST_FILE_READ, {row.read});
            const string line = "test -r/a.rep 127.0.0.1" + string(fReport ? " -f report" : "");
            const RunResult run = runKxadmin(line, server.port, "", scratch.directory);
            const string console = row.message + (row.fBlankLine ? "\n\n" : "\n");
            const string report = row.code == '8' ? "\n" : "\n" + row.message + "\n";
            expectText(fReport ? "" : "[banner]\n" + console, run.out + run.err);
            expectText(fReport ? row.code + report : "(none)", scratch.read("report"));
            const string read = row.opened == 0 ? "READ 0 1280\nCLOSE\n" : "";
            expectText(hello + "OPEN 66 /a.rep\n" + read + "DISCONNECT\n", server.trace());
        }
    });
}
