#include "support/proxy_registry.h"

#include <sstream>

#include "support/helper_process.h"

namespace orvel::test {

namespace {

constexpr const wchar_t* kInternetSettingsKey =
    L"Software\\Microsoft\\Windows\\CurrentVersion\\Internet Settings";

RegValue ReadValue(HKEY key, const wchar_t* name) {
  DWORD type = 0;
  DWORD size = 0;
  if (RegQueryValueExW(key, name, nullptr, &type, nullptr, &size) != ERROR_SUCCESS) return Absent();
  RegValue value{type, std::string(size, '\0')};
  RegQueryValueExW(key, name, nullptr, nullptr, reinterpret_cast<BYTE*>(value.bytes.data()), &size);
  value.bytes.resize(size);
  return value;
}

void WriteValue(HKEY key, const wchar_t* name, const RegValue& value) {
  if (value.type == REG_NONE) {
    RegDeleteValueW(key, name);
    return;
  }
  RegSetValueExW(key, name, 0, value.type, reinterpret_cast<const BYTE*>(value.bytes.data()),
                 static_cast<DWORD>(value.bytes.size()));
}

std::wstring RecordPath(const wchar_t* name) { return TestRecordDirectory() + L"\\" + name; }

}  // namespace

RegValue Absent() { return RegValue{}; }

RegValue Dword(DWORD number) {
  return RegValue{REG_DWORD, std::string(reinterpret_cast<const char*>(&number), sizeof(number))};
}

RegValue Text(std::wstring_view text, DWORD type) {
  std::wstring terminated(text);
  terminated.push_back(L'\0');
  return RegValue{type, std::string(reinterpret_cast<const char*>(terminated.data()),
                                    terminated.size() * sizeof(wchar_t))};
}

void PrintTo(const RegValue& value, std::ostream* out) {
  switch (value.type) {
    case REG_NONE:
      *out << "absent";
      return;
    case REG_DWORD:
      if (value.bytes.size() == 4) {
        DWORD number = 0;
        value.bytes.copy(reinterpret_cast<char*>(&number), 4);
        *out << "REG_DWORD " << number;
        return;
      }
      break;
    case REG_SZ:
    case REG_EXPAND_SZ: {
      std::wstring text(value.bytes.size() / 2, L'\0');
      value.bytes.copy(reinterpret_cast<char*>(text.data()), text.size() * 2);
      *out << (value.type == REG_SZ ? "REG_SZ \"" : "REG_EXPAND_SZ \"");
      for (wchar_t c : text) {
        if (c == L'\0') {
          *out << "\\0";
        } else {
          *out << ToUtf8(std::wstring(1, c));
        }
      }
      *out << "\" (" << value.bytes.size() << " bytes)";
      return;
    }
    default:
      break;
  }
  *out << "type " << value.type << ", " << value.bytes.size() << " bytes";
}

void PrintTo(const ProxyValues& values, std::ostream* out) {
  *out << "{ProxyEnable ";
  PrintTo(values.proxyEnable, out);
  *out << ", ProxyServer ";
  PrintTo(values.proxyServer, out);
  *out << ", ProxyOverride ";
  PrintTo(values.proxyOverride, out);
  *out << "}";
}

ProxyValues ReadProxyValues() {
  ProxyValues values;
  HKEY key = nullptr;
  if (RegOpenKeyExW(HKEY_CURRENT_USER, kInternetSettingsKey, 0, KEY_QUERY_VALUE, &key) !=
      ERROR_SUCCESS) {
    return values;
  }
  values.proxyEnable = ReadValue(key, L"ProxyEnable");
  values.proxyServer = ReadValue(key, L"ProxyServer");
  values.proxyOverride = ReadValue(key, L"ProxyOverride");
  RegCloseKey(key);
  return values;
}

void WriteProxyValues(const ProxyValues& values) {
  HKEY key = nullptr;
  if (RegCreateKeyExW(HKEY_CURRENT_USER, kInternetSettingsKey, 0, nullptr, 0, KEY_SET_VALUE,
                      nullptr, &key, nullptr) != ERROR_SUCCESS) {
    return;
  }
  WriteValue(key, L"ProxyEnable", values.proxyEnable);
  WriteValue(key, L"ProxyServer", values.proxyServer);
  WriteValue(key, L"ProxyOverride", values.proxyOverride);
  RegCloseKey(key);
}

ProxyValues HelperProxyValues(unsigned port) {
  const std::wstring p = std::to_wstring(port);
  return ProxyValues{
      Dword(1), Text(L"http=127.0.0.1:" + p + L";https=127.0.0.1:" + p + L";socks=127.0.0.1:" + p),
      Text(L"localhost;127.0.0.1;<local>")};
}

std::string ReadWininetCalls() { return ReadFileBytes(RecordPath(L"wininet-calls.txt")); }

void SetWininetFailing(bool failing) {
  if (failing) {
    WriteFileText(RecordPath(L"wininet-fail"), "fail");
  } else {
    DeleteFileW(RecordPath(L"wininet-fail").c_str());
  }
}

std::map<std::string, std::string> ReadCoreInvocation() {
  std::map<std::string, std::string> fields;
  std::istringstream lines(ReadFileBytes(RecordPath(L"core-run.txt")));
  for (std::string line; std::getline(lines, line);) {
    const std::size_t equals = line.find('=');
    if (equals != std::string::npos) fields[line.substr(0, equals)] = line.substr(equals + 1);
  }
  return fields;
}

void ResetTestRecords() {
  CreateDirectoryW(TestRecordDirectory().c_str(), nullptr);
  DeleteFileW(RecordPath(L"wininet-calls.txt").c_str());
  DeleteFileW(RecordPath(L"wininet-cores.txt").c_str());
  DeleteFileW(RecordPath(L"core-run.txt").c_str());
  SetWininetFailing(false);
}

}  // namespace orvel::test
