#pragma once

// The per-user proxy values under Internet Settings as raw registry data, so
// tests compare type and bytes exactly (a string's terminating zero included),
// and the files the doubles leave in C:\OrvelTest.

#include <windows.h>

#include <map>
#include <ostream>
#include <string>
#include <string_view>

namespace orvel::test {

struct RegValue {
  DWORD type = REG_NONE;  // REG_NONE: the value is absent
  std::string bytes;

  bool operator==(const RegValue&) const = default;
};

RegValue Absent();
RegValue Dword(DWORD number);
// UTF-16 text with one terminating zero, as Windows programs store it.
RegValue Text(std::wstring_view text, DWORD type = REG_SZ);

void PrintTo(const RegValue& value, std::ostream* out);

// The three values the helper touches, in a fixed order.
struct ProxyValues {
  RegValue proxyEnable;
  RegValue proxyServer;
  RegValue proxyOverride;

  bool operator==(const ProxyValues&) const = default;
};
void PrintTo(const ProxyValues& values, std::ostream* out);

// HKCU\Software\Microsoft\Windows\CurrentVersion\Internet Settings.
ProxyValues ReadProxyValues();
// Sets each value as given; an absent one is deleted.
void WriteProxyValues(const ProxyValues& values);

// What the helper writes for a mixed inbound on `port`.
ProxyValues HelperProxyValues(unsigned port);

// C:\OrvelTest\wininet-calls.txt: one option number per line ("39\n37\n").
std::string ReadWininetCalls();
// Makes every call of the wininet double fail (or succeed again).
void SetWininetFailing(bool failing);
// C:\OrvelTest\core-run.txt as key -> value (written by the core double).
std::map<std::string, std::string> ReadCoreInvocation();
// Removes the call record, the failure switch and the core's record.
void ResetTestRecords();

}  // namespace orvel::test
