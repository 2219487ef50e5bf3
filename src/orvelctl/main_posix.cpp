#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

#include "orvelctl/orvelctl.h"
#include "orvelctl/terminal.h"

namespace orvel::orvelctl {

namespace {

volatile sig_atomic_t gInterrupted = 0;

void OnInterrupt(int) { gInterrupted = 1; }

}  // namespace

bool StdoutIsTerminal() { return isatty(STDOUT_FILENO) == 1; }

void WatchForInterrupt() {
  struct sigaction action {};
  action.sa_handler = OnInterrupt;
  sigemptyset(&action.sa_mask);
  // No SA_RESTART: a blocking wait returns at once and the flag is seen.
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

bool InterruptRequested() { return gInterrupted != 0; }

bool ReadFileBytes(const std::string& pathUtf8, std::string& bytes, std::string& error) {
  std::ifstream in(pathUtf8, std::ios::binary);
  if (!in) {
    error = std::strerror(errno);
    return false;
  }
  bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  if (in.bad()) {
    error = "read failed";
    return false;
  }
  return true;
}

}  // namespace orvel::orvelctl

int main(int argc, char** argv) {
  return orvel::orvelctl::RunOrvelctl(std::vector<std::string>(argv + 1, argv + argc));
}
