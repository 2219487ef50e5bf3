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

std::string EscapeControlBytes(std::string_view text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    const unsigned char byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7F) {
      out += "\\x";
      out += kHex[byte >> 4];
      out += kHex[byte & 0xF];
    } else {
      out += c;
    }
  }
  return out;
}

std::string FormatLogMessage(std::string_view message) {
  std::string out;
  out.reserve(std::min(message.size(), kMaxLogMessageBytes) + 3);
  // Escaped a byte at a time and only as far as the cut: a message may be a
  // caller's megabytes, and every control byte would grow fourfold.
  for (std::size_t i = 0; i < message.size() && out.size() <= kMaxLogMessageBytes; ++i) {
    out += EscapeControlBytes(message.substr(i, 1));
  }
  if (out.size() > kMaxLogMessageBytes) {
    out.resize(kMaxLogMessageBytes);
    out += "...";
  }
  return out;
}

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
  line += FormatLogMessage(message);
  line += "\r\n";
  return line;
}

void LogBuffer::Append(std::string_view message) { AppendAt(ReadLocalTime(), message); }

void LogBuffer::AppendAt(const LocalTime& time, std::string_view message) {
  // Format before taking the lock: the lock covers one append and one trim
  // (and the mirror's write, which keeps the two in one order).
  const std::string line = FormatLogLine(time, message);
  const std::string mirrored = mirror != nullptr ? FormatLogMessage(message) + "\n" : "";
  std::lock_guard<std::mutex> guard(lock);
  text += line;
  if (text.size() > kLogCapacityBytes) text.erase(0, text.size() - kLogCapacityBytes);
  if (mirror != nullptr) mirror(mirrored);
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
