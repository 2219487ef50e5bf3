#pragma once

#include <string>
#include <vector>

namespace orvel::orvelctl {

// Exit codes; a person or a script can act on each one differently.
constexpr int kExitOk = 0;
constexpr int kExitDisconnected = 1;   // the helper answered "disconnected"
constexpr int kExitUsage = 2;          // the command line is wrong
constexpr int kExitNoHelper = 3;       // nothing answers on the address
constexpr int kExitBadConfig = 4;      // the configuration cannot be read or is not JSON
constexpr int kExitNoNodes = 5;        // urltest: no proxy outbound to test
constexpr int kExitRefused = 6;        // the helper refused the request (403)
constexpr int kExitUnexpected = 7;     // an answer that is not what the helper sends
constexpr int kExitPortTaken = 8;      // another account listens there: nothing was sent
constexpr int kExitInterrupted = 130;  // Ctrl-C

// The whole program; `args` are the arguments after the program name, UTF-8.
int RunOrvelctl(const std::vector<std::string>& args);

}  // namespace orvel::orvelctl
