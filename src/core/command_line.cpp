#include "core/command_line.h"

namespace orvel {

std::wstring QuoteCommandLineArgument(std::wstring_view argument) {
  std::wstring quoted;
  quoted.reserve(argument.size() + 2);
  quoted += L'"';
  std::size_t backslashes = 0;
  for (const wchar_t c : argument) {
    if (c == L'\\') {
      ++backslashes;
      continue;
    }
    // Backslashes before a quote escape each other, and one more escapes the
    // quote; before anything else they stand for themselves.
    quoted.append(c == L'"' ? backslashes * 2 + 1 : backslashes, L'\\');
    backslashes = 0;
    quoted += c;
  }
  // A trailing run sits before the closing quote: doubled, or the last one
  // would escape it and the next argument would run into this one.
  quoted.append(backslashes * 2, L'\\');
  quoted += L'"';
  return quoted;
}

std::wstring BuildCommandLine(std::wstring_view program,
                              std::initializer_list<std::wstring_view> arguments) {
  std::wstring line = L"\"";
  line.append(program);
  line += L'"';
  for (const std::wstring_view argument : arguments) {
    line += L' ';
    line += QuoteCommandLineArgument(argument);
  }
  return line;
}

}  // namespace orvel
