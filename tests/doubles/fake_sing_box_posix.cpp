#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <thread>

#include "doubles/fake_sing_box.h"

namespace fake {

namespace {

std::vector<std::string> Arguments;  // argv, the program's own name first

void Write(int fd, const std::string& bytes) {
  for (std::size_t done = 0; done < bytes.size();) {
    const ssize_t written = write(fd, bytes.data() + done, bytes.size() - done);
    if (written <= 0) return;
    done += static_cast<std::size_t>(written);
  }
}

// The real core exits 0 on SIGTERM after taking its TUN device down; the
// record tells a test which signal the helper sent.
void OnTerminate(int) {
  const std::string path = (RecordsDirectory() / "core-signal.txt").string();
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  Write(file, "signal=SIGTERM\n");  // nothing written when the open failed
  if (file >= 0) close(file);
  _exit(0);
}

}  // namespace

void SleepMs(unsigned long ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }
std::string ProcessId() { return std::to_string(getpid()); }

std::string CommandLine() {
  std::string text;
  for (const std::string& argument : Arguments) text += (text.empty() ? "" : "\x1f") + argument;
  return text;
}

std::string CurrentDirectory() {
  std::error_code ignored;
  return std::filesystem::current_path(ignored).string();
}

std::string Variable(const char* name) { return getenv(name) != nullptr ? getenv(name) : ""; }

std::filesystem::path RecordsDirectory() {
  const std::string records = Variable("ORVEL_TEST_RECORDS");
  return records.empty() ? "/tmp/orvel-test" : records;
}

void WriteStdout(const std::string& bytes) { Write(STDOUT_FILENO, bytes); }
void WriteStderr(const std::string& bytes) { Write(STDERR_FILENO, bytes); }

void StayingUp(bool obeysTerminate) {
  signal(SIGTERM, obeysTerminate ? OnTerminate : SIG_IGN);
  std::thread([] {
    for (int second = 0;; ++second) {
      WriteStderr("INFO[" + std::to_string(second / 10) + "] tick\n");
      SleepMs(100);
    }
  }).detach();
}

Socket OpenTcp(const std::string& host, unsigned short port, bool listening) {
  const int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int reuse = 1;
  setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof(reuse));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  inet_pton(AF_INET, host.c_str(), &address.sin_addr);
  const auto* raw = reinterpret_cast<const sockaddr*>(&address);
  if (listening ? bind(s, raw, sizeof(address)) == 0 && listen(s, SOMAXCONN) == 0
                : connect(s, raw, sizeof(address)) == 0)
    return s;
  close(s);
  return kNoSocket;
}

Socket Accept(Socket listener) {
  const int client = accept4(static_cast<int>(listener), nullptr, nullptr, SOCK_CLOEXEC);
  return client < 0 ? kNoSocket : client;
}

bool SendText(Socket s, const std::string& bytes) {
  return send(static_cast<int>(s), bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
         static_cast<ssize_t>(bytes.size());
}

long Receive(Socket s, char* buffer, std::size_t size) {
  return recv(static_cast<int>(s), buffer, size, 0);
}

void CloseSocket(Socket s) { close(static_cast<int>(s)); }
void ShutdownSend(Socket s) { shutdown(static_cast<int>(s), SHUT_WR); }

}  // namespace fake

int main(int argc, char** argv) {
  fake::Arguments.assign(argv, argv + argc);
  return fake::RunFakeCore(std::vector<std::string>(argv + 1, argv + argc));
}
