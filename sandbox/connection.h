// The life of one connection on its thread: greeting, requests and replies, leaving.
#pragma once

#include "sandbox/state.h"

/// Serves until the client leaves, is killed or sends rubbish, or the server stops. When it
/// returns the connection has moved to Server::ended and the main thread has been woken.
void serveConnection(Server& server, Connection& connection);

/// Makes the main thread look after what has changed.
void wakeMainThread(const Server& server);
