#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace orvel {

// The service runs its own executable and the core as root, so both, and
// every folder above them, must be root's alone: whoever can replace one of
// them, or rename a folder on the way, runs a program as root.

// Judges one entry by its owner and mode: true when root owns it and no one
// else may write to it. A folder that others may write to still passes when
// root owns it and its sticky bit is set (like /tmp): there nobody but root
// can rename or remove root's entries. Otherwise `reason` says why, in the
// order owner, others, group: "is owned by uid 1000", "is writable by others
// (mode 0777)", "is writable by its group (mode 0775)".
bool JudgeRootOnlyEntry(std::uint32_t ownerUid, std::uint32_t mode, bool isDirectory,
                        std::string& reason);
// "uid 1000, mode 0755": an entry's owner and permission bits for the log.
std::string DescribeOwnerAndMode(std::uint32_t ownerUid, std::uint32_t mode);

struct RootOnlyOffence {
  std::filesystem::path path;
  std::uint32_t ownerUid = 0;
  std::uint32_t mode = 0;
  std::string reason;  // JudgeRootOnlyEntry's
};

// Resolves `path` (every link followed) into `resolved` and judges the file
// there and every folder from "/" down to it, appending each offence whose
// path `offences` does not hold yet. True when the path resolved and nothing
// offended; false with no new offence when it did not resolve (a missing
// file). Run the resolved path, never `path`: only the resolved one is known
// to stay what was judged. Windows: always true, `resolved` is `path` (the
// service is installed under Program Files).
bool CheckRootOnlyPath(const std::filesystem::path& path, std::filesystem::path& resolved,
                       std::vector<RootOnlyOffence>& offences);

}  // namespace orvel
