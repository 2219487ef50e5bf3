#pragma once

#include <string_view>

namespace orvel {

// How a path named in a configuration is judged by the service's guard: by
// the rules of the system the core runs on.
enum class PathRules { kWindows, kLinux };

// The names and texts that differ between the Windows and the Linux build.
// Everything the client application reads is the same on both but for these.
struct HostPlatform {
  std::string_view name;  // "platform" of every status body
  std::string_view connected;
  std::string_view tunConnected;
  std::string_view disconnected;
  std::string_view running;
  std::string_view idle;
  std::string_view tunStartedLog;
  std::string_view coreNotFound;            // the start's message
  std::string_view coreLaunchFailed;        // followed by the system's error number
  std::string_view coreExitedImmediately;   // followed by the core's output, summarised
  std::string_view coreExitedUnexpectedly;  // followed by "(exit code N): " and the summary
  std::string_view coreWatchFailed;         // the start's message when no watcher starts
  PathRules pathRules;
};

// The build's own (host_platform_win.cpp or host_platform_linux.cpp).
const HostPlatform& ThisPlatform();

}  // namespace orvel
