// The parser of short options, after the conventions of getopt: clusters, arguments attached or
// next, "--" as the end, options and other arguments in any order, its own messages on standard
// error. It is initialised by its first call and serves one argument vector a process; the caller
// may advance iOptInd between calls to take an argument for itself.
#pragma once

//         name         holds                                         written by      read by
extern char* pszOptArg; // argument of the option just returned       parser          options
extern int iOptInd;     // next argument to scan, 0 before the start  parser, options options
extern int iOptErr;     // nonzero: the parser prints its messages    caller          parser
extern int iOptOpt;     // character that caused the last '?'         parser          caller

/// Next option character of argv, which is reordered in place. '?' for an unknown character and
/// for a missing argument, after a message that begins with argv[0] (a missing argument is ':'
/// when pszOptString begins with ':'); -1 at the end, when iOptInd indexes the first argument that
/// is no option. In pszOptString a character followed by ':' takes an argument, by "::" an optional
/// one from its own cluster; a leading '+' ends the options at the first other argument, a leading
/// '-' returns each other argument as the value 1.
int cmdline(int argc, char** argv, const char* pszOptString);
