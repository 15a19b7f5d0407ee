// The password prompt on a terminal: what it shows, and that the terminal echoes again.
#include "tests/run_program.h"
#include "tests/scripted_server.h"

#include <gtest/gtest.h>

static const std::string prompt = "Enter the password for the account used to start KXSRV : ";
static const std::string shown = // on a terminal
    "\r\nKXADMIN 7.0a\r\nBy the kxadmin authors\r\nLocale: C\r\n" + prompt;

TEST(Prompt, HidesWhatIsTyped) {
    ScriptedServer server;
    server.on(14, {reply(3)});
    TerminalRun run(KXADMIN_PROGRAM, {"stop"}, {{"KXSRV_CTRL_PORT", std::to_string(server.port)}});
    ASSERT_TRUE(run.waitFor(prompt) && run.waitForEcho(false));
    run.type("secret\n");
    ASSERT_TRUE(run.waitFor("(Y/N)?") && run.echoes());
    run.type("n\n");
    EXPECT_EQ(run.finish(), 0);
    EXPECT_EQ(run.output, shown +
                              "\r\n\r\nThere are 3 active connections.\r\nAre you sure you "
                              "want to stop the server? (Y/N)?\r\nn\r\n\r\nStop cancelled.\r\n");
    EXPECT_EQ(server.codes(), "12 28 9 11 14");
}
