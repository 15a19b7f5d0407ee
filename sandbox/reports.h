// The texts that administrators read: statistics, connections, locks, options. Each ends in a line
// feed and fits a reply; lines for which there is no room are counted in a last line "(n more)".
#pragma once

#include "sandbox/state.h"

// Call the ones that take the server with its mutex held.
std::string statisticsText(const Server& server);
std::string connectionListText(const Server& server);
std::string connectionText(const Connection& connection);
std::string lockListText(const Connection& connection);
std::string optionsText(const Server& server);

/// Name and version of what this server plays.
std::string versionText(const Options& options);

/// Hours, minutes and seconds: "25:00:01".
std::string ageText(Clock::duration age);
