#pragma once

// What orvelctl needs from the operating system besides sockets: the console,
// Ctrl-C, and reading a file by a UTF-8 name. main_win.cpp and main_posix.cpp
// hold these and the program's entry point; the build picks one.

#include <string>

namespace orvel::orvelctl {

// Whether standard output is a terminal (then progress lines and in-place
// refreshes are drawn; otherwise plain lines).
bool StdoutIsTerminal();

// Ctrl-C (and Ctrl-Break on Windows, SIGINT and SIGTERM elsewhere) only set a
// flag from here on; the commands look at it and end cleanly.
void WatchForInterrupt();
bool InterruptRequested();

// The whole file. False with a message such as "cannot open ...".
bool ReadFileBytes(const std::string& pathUtf8, std::string& bytes, std::string& error);

}  // namespace orvel::orvelctl
