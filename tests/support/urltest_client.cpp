#include "support/urltest_client.h"

#include <windows.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <thread>

#include "support/helper_process.h"
#include "support/http_client.h"

namespace fs = std::filesystem;

namespace orvel::test {

namespace {

const std::wstring kRecordDirectory = L"C:\\OrvelTest\\fetch";

FetchRecord ParseRecord(const std::string& text) {
  FetchRecord record;
  const std::string configKey = "configText=";
  std::size_t pos = 0;
  while (pos < text.size()) {
    if (text.compare(pos, configKey.size(), configKey) == 0) {
      record.configText = text.substr(pos + configKey.size());
      record.fields["configText"] = "";
      break;
    }
    const std::size_t end = std::min(text.find('\n', pos), text.size());
    const std::string line = text.substr(pos, end - pos);
    const std::size_t equals = line.find('=');
    if (equals != std::string::npos)
      record.fields[line.substr(0, equals)] = line.substr(equals + 1);
    pos = end + 1;
  }
  return record;
}

}  // namespace

SOCKET StartUrlTest(const std::string& body, unsigned timeoutMs) {
  SOCKET s = ConnectLoopback(kHelperPort, timeoutMs);
  if (s == INVALID_SOCKET) return s;
  if (!SendAll(s, BuildRequest("POST", "/urltest", body))) {
    closesocket(s);
    return INVALID_SOCKET;
  }
  return s;
}

UrlTestStream ReadUrlTestStream(SOCKET socket) {
  UrlTestStream stream;
  stream.sentTick = GetTickCount64();
  std::string pending;
  bool inHead = true;
  char chunk[8192];
  for (;;) {
    const int got = recv(socket, chunk, sizeof(chunk), 0);
    if (got <= 0) {
      stream.closedByPeer = got == 0;
      break;
    }
    const std::uint64_t now = GetTickCount64();
    pending.append(chunk, static_cast<std::size_t>(got));
    if (inHead) {
      const std::size_t headEnd = pending.find("\r\n\r\n");
      if (headEnd == std::string::npos) continue;
      stream.head = pending.substr(0, headEnd + 4);
      pending.erase(0, headEnd + 4);
      inHead = false;
    }
    for (std::size_t lineEnd; (lineEnd = pending.find('\n')) != std::string::npos;) {
      stream.lines.push_back({pending.substr(0, lineEnd + 1), now});
      pending.erase(0, lineEnd + 1);
    }
  }
  stream.closedTick = GetTickCount64();
  if (inHead) {
    stream.head = pending;
  } else {
    stream.rest = pending;
  }
  return stream;
}

UrlTestStream RunUrlTest(const std::string& body, unsigned timeoutMs) {
  const std::uint64_t sent = GetTickCount64();
  SOCKET s = StartUrlTest(body, timeoutMs);
  if (s == INVALID_SOCKET) return {};
  UrlTestStream stream = ReadUrlTestStream(s);
  stream.sentTick = sent;
  closesocket(s);
  return stream;
}

bool ParseResultLine(const StreamLine& line, ResultLine& out) {
  const std::string prefix = "{\"nodeTag\":\"";
  const std::string middle = "\",\"delayMs\":";
  const std::string& text = line.text;
  if (text.compare(0, prefix.size(), prefix) != 0 || text.size() < 3 ||
      text.compare(text.size() - 2, 2, "}\n") != 0) {
    return false;
  }
  const std::size_t at = text.find(middle, prefix.size());
  if (at == std::string::npos) return false;
  out.nodeTag = text.substr(prefix.size(), at - prefix.size());
  const std::string number = text.substr(at + middle.size(), text.size() - 2 - at - middle.size());
  if (number.empty() || number.find_first_not_of("-0123456789") != std::string::npos) return false;
  out.delayMs = std::stoll(number);
  out.atTick = line.atTick;
  return true;
}

std::string FetchRecord::Get(const std::string& key) const {
  const auto found = fields.find(key);
  return found == fields.end() ? std::string() : found->second;
}

void ClearFetchRecords() {
  std::error_code ec;
  fs::remove_all(fs::path(kRecordDirectory), ec);
}

std::vector<FetchRecord> ReadFetchRecords() {
  std::vector<FetchRecord> records;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(fs::path(kRecordDirectory), ec)) {
    records.push_back(ParseRecord(ReadFileBytes(entry.path().wstring())));
  }
  return records;
}

std::vector<FetchRecord> WaitForFetchRecords(std::size_t count, unsigned timeoutMs) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    std::vector<FetchRecord> records = ReadFetchRecords();
    const std::size_t complete =
        std::count_if(records.begin(), records.end(),
                      [](const FetchRecord& r) { return r.fields.contains("configText"); });
    if (complete >= count || std::chrono::steady_clock::now() > deadline) return records;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

int MaxRunningAtStart(const std::vector<FetchRecord>& records) {
  int most = 0;
  for (const FetchRecord& record : records) {
    most = std::max(most, std::atoi(record.Get("runningAtStart").c_str()));
  }
  return most;
}

std::vector<std::wstring> UrlTestConfigFiles() {
  std::vector<std::wstring> files;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(fs::path(HelperDataDirectory()), ec)) {
    const std::wstring name = entry.path().filename().wstring();
    if (name.starts_with(L"sing-box-urltest-")) files.push_back(name);
  }
  return files;
}

}  // namespace orvel::test
