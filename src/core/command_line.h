#pragma once

// The one command line a Windows child gets. The child's C runtime (and Go's,
// which the core is built with) splits it back into arguments by the
// CommandLineToArgvW rules, so each argument is quoted and escaped for those
// rules here. Text a client sent (a node tag, a test URL) must never be able
// to close its quotes and add arguments of its own.

#include <initializer_list>
#include <string>
#include <string_view>

namespace orvel {

// `argument` in double quotes, which the C runtime reads back as exactly
// `argument`: a quote becomes \", and a run of backslashes is doubled where it
// stands before a quote (an escaped one or the closing one); elsewhere
// backslashes are literal. Always quoted, so an empty argument survives too.
std::wstring QuoteCommandLineArgument(std::wstring_view argument);

// `program` in plain quotes (the program name is read up to the next quote,
// without escapes; a Windows path holds no quote), then each argument quoted
// as above, separated by single spaces.
std::wstring BuildCommandLine(std::wstring_view program,
                              std::initializer_list<std::wstring_view> arguments);

}  // namespace orvel
