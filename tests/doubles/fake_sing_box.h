#pragma once

// What the core double needs of its system, one file per platform
// (fake_sing_box_win.cpp, fake_sing_box_posix.cpp); the behaviour table is in
// fake_sing_box.cpp.

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace fake {

using Socket = std::intptr_t;
constexpr Socket kNoSocket = -1;

// The double's whole life: `args` are the arguments after the program name.
int RunFakeCore(const std::vector<std::string>& args);

void SleepMs(unsigned long ms);
std::string ProcessId();
// How the double was started, as one text: Windows the command line as the
// helper wrote it; Linux the program and each argument, separated by "\x1f".
std::string CommandLine();
std::string CurrentDirectory();
std::string Variable(const char* name);
// Where records go: C:\OrvelTest on Windows (the service gets no test
// environment); on Linux $ORVEL_TEST_RECORDS, else /tmp/orvel-test.
std::filesystem::path RecordsDirectory();
// Unbuffered and in one call, so nothing is lost when the process exits.
void WriteStdout(const std::string& bytes);
void WriteStderr(const std::string& bytes);
// The run mode's platform part once it stays up: on Linux the signal that
// ends it is recorded (core-signal.txt), and it keeps logging to stderr as
// the real core does, so a helper that closed its end of the pipe would see
// it die of SIGPIPE. Unless it `obeysTerminate`, SIGTERM is ignored.
void StayingUp(bool obeysTerminate);

// A TCP socket on host:port, `listening` (address reuse on: tests start a
// core on the same port again and again, and a connection of the previous one
// may still be in TIME_WAIT) or connected to it; kNoSocket when that fails.
Socket OpenTcp(const std::string& host, unsigned short port, bool listening);
Socket Accept(Socket listener);
bool SendText(Socket s, const std::string& bytes);
long Receive(Socket s, char* buffer, std::size_t size);
void CloseSocket(Socket s);
// The end of this side's stream; receiving goes on.
void ShutdownSend(Socket s);

}  // namespace fake
