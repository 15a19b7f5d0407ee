// kxsandbox: a small real server on loopback addresses, for trying kxadmin out and for its
// end-to-end tests.
#include "net/socket.h"
#include "sandbox/server.h"

int main(int argc, char** argv) {
    socketSpareStandardStreams();
    Options options;
    const int iStatus = readCommandLine(argc, argv, options);
    return iStatus >= 0 ? iStatus : runServer(options);
}
