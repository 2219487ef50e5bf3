#pragma once

// Client side of "/urltest" for the end-to-end tests and the benchmark: the
// stream read line by line with arrival times, and the records that the
// sing-box.exe double leaves for each fetch (see fake_sing_box_tools.cpp).

#include <winsock2.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace orvel::test {

struct StreamLine {
  std::string text;      // one line, its line feed included
  std::uint64_t atTick;  // GetTickCount64 when it was complete
};

struct UrlTestStream {
  std::string head;  // everything up to and including the blank line
  std::vector<StreamLine> lines;
  std::string rest;  // bytes after the last line feed
  bool closedByPeer = false;
  std::uint64_t sentTick = 0;
  std::uint64_t closedTick = 0;
};

// Connects and sends "POST /urltest" with `body`; INVALID_SOCKET on failure.
SOCKET StartUrlTest(const std::string& body, unsigned timeoutMs = 30000);
// Reads until the helper closes the connection (or the receive time-out).
UrlTestStream ReadUrlTestStream(SOCKET socket);
// Both of the above, and closes the socket.
UrlTestStream RunUrlTest(const std::string& body, unsigned timeoutMs = 30000);

struct ResultLine {
  std::string nodeTag;
  long long delayMs = -1;
  std::uint64_t atTick = 0;
};
// {"nodeTag":"…","delayMs":N}\n of tags without escapes; false otherwise.
bool ParseResultLine(const StreamLine& line, ResultLine& out);

struct FetchRecord {
  std::map<std::string, std::string> fields;  // the key=value lines
  std::string configText;                     // the configuration as the fetch read it
  std::string Get(const std::string& key) const;
};

// Removes the double's records and markers left by an earlier test.
void ClearFetchRecords();
// Every record written so far (a record still being written may be incomplete).
std::vector<FetchRecord> ReadFetchRecords();
// Waits up to timeoutMs until `count` complete records exist; returns them.
std::vector<FetchRecord> WaitForFetchRecords(std::size_t count, unsigned timeoutMs);
// The most fetches any one of them saw running at its start.
int MaxRunningAtStart(const std::vector<FetchRecord>& records);

// sing-box-urltest-*.json files in the helper's data directory.
std::vector<std::wstring> UrlTestConfigFiles();

}  // namespace orvel::test
