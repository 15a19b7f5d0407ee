// What the server does for each request: one table of codes, names, parameter sizes, conditions
// and handlers. A handler finds parameters of a size within its bounds and appends its reply data.
#pragma once

#include "sandbox/state.h"

/// What is to happen to the connection once the reply is on its way.
enum After { AFTER_GO_ON, AFTER_LEAVE, AFTER_STOP };

/// One request and the reply to it.
struct Exchange {
    Server& server;
    Connection& connection;
    U32 u32Code;
    const U8* pParameters;
    U32 u32Length; ///< of the parameters, without pad bytes
    U8* pReply;    ///< MAX_REPLY_DATA bytes
    U32 u32ReplyLength = 0;
    I32 iSuccess = 0; ///< Result of a success; the connection list puts its count there
    After after = AFTER_GO_ON;
};

/// The name of a request, or null for a code that is none.
const char* requestName(U32 u32Code);

/// Carries out the request, whose code is known. Returns the Result for the reply, whose data are
/// in place, a system error's text included.
I32 carryOut(Exchange& exchange);
