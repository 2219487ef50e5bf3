#include <winsock2.h>
#include <ws2tcpip.h>

#include <cstdlib>

#include "doubles/fake_sing_box.h"

namespace fake {

namespace {

std::string WideToUtf8(const std::wstring& text) {
  const std::u8string utf8 = std::filesystem::path(text).u8string();
  return std::string(utf8.begin(), utf8.end());
}

void WriteOut(DWORD which, const std::string& bytes) {
  DWORD written = 0;
  WriteFile(GetStdHandle(which), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
}

}  // namespace

void SleepMs(unsigned long ms) { Sleep(ms); }
std::string ProcessId() { return std::to_string(GetCurrentProcessId()); }
std::string CommandLine() { return WideToUtf8(GetCommandLineW()); }
std::string CurrentDirectory() { return WideToUtf8(std::filesystem::current_path().wstring()); }
std::string Variable(const char* name) { return std::getenv(name) ? std::getenv(name) : ""; }
std::filesystem::path RecordsDirectory() { return L"C:\\OrvelTest"; }
void WriteStdout(const std::string& bytes) { WriteOut(STD_OUTPUT_HANDLE, bytes); }
void WriteStderr(const std::string& bytes) { WriteOut(STD_ERROR_HANDLE, bytes); }
void StayingUp(bool) {}

Socket OpenTcp(const std::string& host, unsigned short port, bool listening) {
  WSADATA data{};
  WSAStartup(MAKEWORD(2, 2), &data);  // counted: one per call is harmless
  const SOCKET s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  const BOOL reuse = TRUE;
  setsockopt(s, SOL_SOCKET, SO_REUSEADDR, reinterpret_cast<const char*>(&reuse), sizeof(reuse));
  sockaddr_in address{AF_INET, htons(port), {}, {}};
  inet_pton(AF_INET, host.c_str(), &address.sin_addr);
  const auto* raw = reinterpret_cast<const sockaddr*>(&address);
  if (listening ? bind(s, raw, sizeof(address)) == 0 && listen(s, SOMAXCONN) == 0
                : connect(s, raw, sizeof(address)) == 0) {
    return static_cast<Socket>(s);
  }
  closesocket(s);
  return kNoSocket;
}

// INVALID_SOCKET (all bits set) is kNoSocket.
Socket Accept(Socket listener) {
  return static_cast<Socket>(accept(static_cast<SOCKET>(listener), nullptr, nullptr));
}

// A blocking send returns once all of it is on its way, or fails.
bool SendText(Socket s, const std::string& bytes) {
  return send(static_cast<SOCKET>(s), bytes.data(), static_cast<int>(bytes.size()), 0) ==
         static_cast<int>(bytes.size());
}
long Receive(Socket s, char* buffer, std::size_t size) {
  return recv(static_cast<SOCKET>(s), buffer, static_cast<int>(size), 0);
}
void CloseSocket(Socket s) { closesocket(static_cast<SOCKET>(s)); }
void ShutdownSend(Socket s) { shutdown(static_cast<SOCKET>(s), SD_SEND); }

}  // namespace fake

int wmain(int argc, wchar_t** argv) {
  std::vector<std::string> args;
  for (int i = 1; i < argc; ++i) args.push_back(fake::WideToUtf8(argv[i]));
  return fake::RunFakeCore(args);
}
