#pragma once

#include <cstddef>
#include <mutex>
#include <string>
#include <string_view>

namespace orvel {

constexpr std::size_t kMaxLogMessageBytes = 1200;
constexpr std::size_t kLogCapacityBytes = 65536;

struct LocalTime {
  int year = 0;
  int month = 0;
  int day = 0;
  int hour = 0;
  int minute = 0;
  int second = 0;
};

// `text` with each control byte (0x00 to 0x1F and 0x7F) written as "\xNN"
// (upper-case hex), so that caller text can neither start a line of its own
// nor reach a terminal as an escape sequence.
std::string EscapeControlBytes(std::string_view text);

// Reads the wall clock in local time (platform file).
LocalTime ReadLocalTime();

// The message as a line shows it: control bytes escaped, then cut to 1200
// bytes plus "...".
std::string FormatLogMessage(std::string_view message);

// "[YYYY-MM-DD hh:mm:ss] " + FormatLogMessage(message) + "\r\n": one event is
// always one line.
std::string FormatLogLine(const LocalTime& time, std::string_view message);

// Where else each line goes as it is logged: the formatted message without
// its timestamp, ended by "\n" (the Linux service's standard error, which the
// journal stamps itself). Called under the log's lock, so lines leave in the
// log's own order; it must not log.
using LogMirror = void (*)(std::string_view line);

// The helper's only diagnostic log: the most recent 64 KiB of lines, in memory.
// The cut when trimming is by bytes, so the text may start inside a line.
struct LogBuffer {
  std::mutex lock;
  std::string text;
  // Set once, before the first thread that logs starts; none by default.
  LogMirror mirror = nullptr;

  void Append(std::string_view message);
  void AppendAt(const LocalTime& time, std::string_view message);
  std::string Snapshot();
};

// The process-wide log that every subsystem writes to and "/logs" returns.
LogBuffer& HelperLog();

}  // namespace orvel
