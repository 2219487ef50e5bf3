#include "log/log_buffer.h"

#include <algorithm>

namespace orvel {

namespace {

void AppendPadded(std::string& out, int value, int width) {
  std::string digits = std::to_string(value);
  if (static_cast<int>(digits.size()) < width) out.append(width - digits.size(), '0');
  out += digits;
}

}  // namespace

std::string FormatLogLine(const LocalTime& time, std::string_view message) {
  std::string line;
  line.reserve(24 + std::min(message.size(), kMaxLogMessageBytes) + 5);
  line += '[';
  AppendPadded(line, time.year, 4);
  line += '-';
  AppendPadded(line, time.month, 2);
  line += '-';
  AppendPadded(line, time.day, 2);
  line += ' ';
  AppendPadded(line, time.hour, 2);
  line += ':';
  AppendPadded(line, time.minute, 2);
  line += ':';
  AppendPadded(line, time.second, 2);
  line += "] ";
  if (message.size() <= kMaxLogMessageBytes) {
    line += message;
  } else {
    line += message.substr(0, kMaxLogMessageBytes);
    line += "...";
  }
  line += "\r\n";
  return line;
}

void LogBuffer::Append(std::string_view message) { AppendAt(ReadLocalTime(), message); }

void LogBuffer::AppendAt(const LocalTime& time, std::string_view message) {
  // Format before taking the lock: the lock covers one append and one trim.
  const std::string line = FormatLogLine(time, message);
  std::lock_guard<std::mutex> guard(lock);
  text += line;
  if (text.size() > kLogCapacityBytes) text.erase(0, text.size() - kLogCapacityBytes);
}

std::string LogBuffer::Snapshot() {
  std::lock_guard<std::mutex> guard(lock);
  return text;
}

LogBuffer& HelperLog() {
  static LogBuffer log;
  return log;
}

}  // namespace orvel
