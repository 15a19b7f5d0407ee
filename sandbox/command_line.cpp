#include "sandbox/command_line.h"

#include "net/socket.h"
#include "sandbox/log.h"

#include <arpa/inet.h>
#include <charconv>
#include <getopt.h>
#include <unistd.h>

static constexpr char USAGE[] =
    "Usage: kxsandbox [-a <address>]... [-A <address>] [-P <port>] [-d <directory>]\n"
    "                 [-p <password>] [-t <type>] [-m <bytes>] [-c <connections>]\n"
    "                 [-- <command> [<argument>...]]\n"
    "Serves the files below a directory to kxadmin, on loopback addresses only.\n"
    "\n"
    "  -a <address>      listen on this loopback address too; 127.0.0.2 makes a second host\n"
    "  -A <address>      listen on this loopback address instead of 127.0.0.1\n"
    "  -P <port>         port of all addresses, 0 for a free one (4800; 0 with a command)\n"
    "  -d <directory>    directory that holds the files (the current one)\n"
    "  -p <password>     the administrator's password, at most 30 characters (none)\n"
    "  -t <type>         server type, 0 to 3; 1 plays a PXSRV (0)\n"
    "  -m <bytes>        data limit that clients are told, 1 to 32768 (32768)\n"
    "  -c <connections>  most connections at a time, 1 to 999 (100)\n"
    "  -h, --help        show this text\n"
    "  -V, --version     show the version\n"
    "\n"
    "With a command the sandbox serves as long as the command runs, tells it the port in\n"
    "KXSRV_CTRL_PORT, and ends with its status. Otherwise it serves until it is stopped by\n"
    "a client, SIGINT, SIGTERM or SIGHUP.\n";

/// The value of `iOption` as a number within its bounds; complains and returns false otherwise.
static bool takeNumber(int iOption, const char* pszMeaning, U32 u32Least, U32 u32Most,
                       U32& u32Target) {
    const char* pszEnd = optarg + std::strlen(optarg);
    U32 u32Value = 0;
    const auto [pszRest, error] = std::from_chars(optarg, pszEnd, u32Value);
    if (error == std::errc{} && pszRest == pszEnd && u32Value >= u32Least && u32Value <= u32Most) {
        u32Target = u32Value;
        return true;
    }
    complain("-%c: the %s '%s' is not a number from %u to %u", iOption, pszMeaning, optarg,
             u32Least, u32Most);
    return false;
}

/// Adds the address, or puts it in the place of the default one. A repeated address counts once.
static bool takeAddress(int iOption, Options& options) {
    in_addr address{};
    if (inet_pton(AF_INET, optarg, &address) != 1) {
        complain("-%c: '%s' is not a dotted address", iOption, optarg);
        return false;
    }
    if (socketNtoHL(address.s_addr) >> 24 != 127) {
        complain("-%c: '%s' is not a loopback address; the sandbox listens below 127.0.0.0/8 only",
                 iOption, optarg);
        return false;
    }
    auto& addresses = options.addresses;
    if (iOption == 'A')
        addresses.front() = optarg;
    else if (std::find(addresses.begin(), addresses.end(), optarg) == addresses.end())
        addresses.push_back(optarg);
    return true;
}

static bool takePassword(Options& options) {
    const std::size_t length = std::strlen(optarg);
    options.password = optarg;
    std::memset(optarg, 0, length); // other users can read the arguments of a process
    if (length <= MAX_PASSWORD)
        return true;
    complain("-p: the password is longer than %u characters", MAX_PASSWORD);
    return false;
}

static bool takeOption(int iOption, Options& options) {
    switch (iOption) {
    case 'a':
    case 'A': return takeAddress(iOption, options);
    case 'P': return takeNumber(iOption, "port", 0, 65535, options.u32Port);
    case 'd': options.directory = optarg; return true;
    case 'p': return takePassword(options);
    case 't': return takeNumber(iOption, "server type", 0, 3, options.u32ServerType);
    case 'm': return takeNumber(iOption, "data limit", 1, MAX_FILE_DATA, options.u32DataLimit);
    case 'c':
        return takeNumber(iOption, "number of connections", 1, 999, options.u32MostConnections);
    case ':': complain("option -%c needs a value", optopt); return false;
    default: return false;
    }
}

/// What the parser returns for the long options, or leaves in optopt when one has a value.
enum LongOption { LONG_HELP = 256, LONG_VERSION };

/// Shows what the option asks for; false when it asks for nothing to be shown.
static bool showText(int iOption) {
    switch (iOption) {
    case 'h':
    case LONG_HELP: std::fputs(USAGE, stdout); return true;
    case 'V':
    case LONG_VERSION: std::printf("kxsandbox (%s)\n", VERSION_TEXT); return true;
    default: return false;
    }
}

static void complainUnknown(char** argv) {
    if (optopt != 0 && optopt < LONG_HELP)
        complain("unknown option -%c", optopt);
    else
        complain("unknown option %s", argv[optind - 1]);
}

/// What follows the options: nothing, or "--" (`fDashes`) and a command.
static bool takeCommand(int argc, char** argv, bool fDashes, Options& options) {
    if (optind == argc && !fDashes)
        return true;
    if (optind == argc) {
        complain("there is no command behind --");
        return false;
    }
    if (!fDashes) {
        complain("unexpected argument '%s' (a command to run stands behind --)", argv[optind]);
        return false;
    }
    options.ppszCommand = argv + optind;
    return true;
}

static int usageError() {
    std::fputs("Try 'kxsandbox --help'\n", stderr);
    return 2;
}

int readCommandLine(int argc, char** argv, Options& options) {
    static constexpr option LONG_OPTIONS[] = {{"help", no_argument, nullptr, LONG_HELP},
                                              {"version", no_argument, nullptr, LONG_VERSION},
                                              {}};
    options.u32Port = 65536; // until it is known which default applies
    opterr = 0;
    int iNext = optind;
    for (int i;
         (i = getopt_long(argc, argv, "+:a:A:P:d:p:t:m:c:hV", LONG_OPTIONS, nullptr)) != -1;) {
        if (showText(i))
            return 0;
        if (i == '?')
            complainUnknown(argv);
        if (!takeOption(i, options))
            return usageError();
        iNext = optind;
    }
    if (!takeCommand(argc, argv, optind > iNext, options))
        return usageError();
    if (options.u32Port == 65536)
        options.u32Port = options.ppszCommand != nullptr ? 0 : 4800;
    return -1;
}
