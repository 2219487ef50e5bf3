#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <memory>

#include "core/root_only.h"

namespace orvel {

bool CheckRootOnlyPath(const std::filesystem::path& path, std::filesystem::path& resolved,
                       std::vector<RootOnlyOffence>& offences) {
  const std::unique_ptr<char, decltype(&free)> real(realpath(path.c_str(), nullptr), &free);
  if (real == nullptr) return false;
  resolved = real.get();
  // From "/" down: once a folder is root's alone, nobody else can swap what
  // lies below it, so the entries are judged as they stand (lstat: a link
  // put in after the resolution is judged as the link it is).
  bool passed = true;
  std::filesystem::path entry = "/";
  auto part = resolved.begin();
  for (;;) {
    struct stat info {};
    RootOnlyOffence offence{entry, 0, 0, {}};
    if (lstat(entry.c_str(), &info) != 0) {
      offence.reason = "cannot be examined";
    } else {
      offence.ownerUid = info.st_uid;
      offence.mode = info.st_mode;
    }
    if (!offence.reason.empty() ||
        !JudgeRootOnlyEntry(info.st_uid, info.st_mode, S_ISDIR(info.st_mode), offence.reason)) {
      passed = false;
      const auto known = [&](const RootOnlyOffence& o) { return o.path == entry; };
      if (std::none_of(offences.begin(), offences.end(), known)) offences.push_back(offence);
    }
    if (++part == resolved.end()) break;
    entry /= *part;
  }
  return passed;
}

}  // namespace orvel
