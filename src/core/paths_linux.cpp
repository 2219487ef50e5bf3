#include <errno.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string_view>
#include <system_error>
#include <vector>

#include "core/paths.h"
#include "core/run_mode.h"

namespace orvel {

namespace {

namespace fs = std::filesystem;

constexpr const char* kServiceDataDirectory = "/var/lib/orvel-vpn-helper";
constexpr const char* kDefaultSearchPath = "/usr/local/bin:/usr/bin:/bin";

// Set, non-empty and absolute; XDG variables that are not are to be ignored.
const char* AbsoluteVariable(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr && value[0] == '/' ? value : nullptr;
}

// $HOME, else the password database's entry for this user; "" when neither.
std::string HomeDirectory() {
  if (const char* home = std::getenv("HOME"); home != nullptr && home[0] != '\0') return home;
  long size = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(size > 0 ? static_cast<std::size_t>(size) : 16384);
  passwd entry{};
  passwd* found = nullptr;
  while (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) == ERANGE) {
    buffer.resize(buffer.size() * 2);
  }
  return found != nullptr && found->pw_dir != nullptr ? found->pw_dir : "";
}

// Whether anything (file, directory, link) exists at `path`. Missing entries
// and missing folders on the way count as absent; any other failure is not
// expected and is thrown, as on Windows.
bool PathExists(const fs::path& path) {
  struct stat info {};
  if (lstat(path.c_str(), &info) == 0) return true;
  if (errno == ENOENT || errno == ENOTDIR || errno == ENAMETOOLONG || errno == ELOOP) return false;
  throw fs::filesystem_error("exists", path, std::error_code(errno, std::generic_category()));
}

bool IsExecutableFile(const fs::path& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
         faccessat(AT_FDCWD, path.c_str(), X_OK, AT_EACCESS) == 0;
}

}  // namespace

fs::path GetExecutablePath() {
  std::error_code ignored;
  return fs::read_symlink("/proc/self/exe", ignored);
}

fs::path GetExecutableDirectory() {
  const fs::path exe = GetExecutablePath();
  return exe.empty() ? fs::path(".") : exe.parent_path();
}

fs::path GetDataDirectory() {
  if (IsRunningAsService()) {
    // systemd's StateDirectory= sets this, several entries separated by ':'.
    const char* state = std::getenv("STATE_DIRECTORY");
    const std::string_view first =
        state == nullptr ? std::string_view()
                         : std::string_view(state).substr(0, std::string_view(state).find(':'));
    return first.empty() ? fs::path(kServiceDataDirectory) : fs::path(first);
  }
  if (const char* dataHome = AbsoluteVariable("XDG_DATA_HOME")) {
    return fs::path(dataHome) / "OrvelVPN";
  }
  const std::string home = HomeDirectory();
  // Without any home the data files lie beside the executable, as on Windows
  // without its known folder.
  if (home.empty()) return GetExecutableDirectory();
  return fs::path(home) / ".local/share/OrvelVPN";
}

fs::path GetCoreConfigPath() { return GetDataDirectory() / "sing-box.json"; }

fs::path FindCoreExecutable() {
  const fs::path directory = GetExecutableDirectory();
  for (const fs::path& candidate : {directory / "sing-box", directory / "data" / "sing-box"}) {
    if (PathExists(candidate)) return candidate;  // as it stands, not made canonical
  }
  // The service runs as root: a sing-box in any folder of its PATH would run
  // with root's rights. It runs only the core it was installed with.
  if (IsRunningAsService()) return {};
  const char* variable = std::getenv("PATH");
  const std::string_view search = variable != nullptr ? variable : kDefaultSearchPath;
  for (std::size_t start = 0; start <= search.size();) {
    const std::size_t end = std::min(search.find(':', start), search.size());
    const std::string_view entry = search.substr(start, end - start);
    start = end + 1;
    // An empty or relative entry means the current directory, which for a
    // service is whatever it was started in: skipped.
    if (entry.empty() || entry[0] != '/') continue;
    const fs::path candidate = fs::path(entry) / "sing-box";
    if (IsExecutableFile(candidate)) return candidate;
  }
  return {};
}

}  // namespace orvel
