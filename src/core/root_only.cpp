#include "core/root_only.h"

namespace orvel {

namespace {

// The permission bits as stat reports them; no platform header here.
constexpr std::uint32_t kGroupWrite = 00020;
constexpr std::uint32_t kOthersWrite = 00002;
constexpr std::uint32_t kSticky = 01000;

std::string OctalMode(std::uint32_t mode) {
  std::string text(4, '0');
  for (int i = 3; i >= 0; --i, mode >>= 3) text[i] = static_cast<char>('0' + (mode & 7));
  return text;
}

}  // namespace

bool JudgeRootOnlyEntry(std::uint32_t ownerUid, std::uint32_t mode, bool isDirectory,
                        std::string& reason) {
  const std::uint32_t bits = mode & 07777;
  if (ownerUid != 0) {
    reason = "is owned by uid " + std::to_string(ownerUid);
  } else if ((bits & (kGroupWrite | kOthersWrite)) == 0 || (isDirectory && (bits & kSticky) != 0)) {
    return true;
  } else {
    reason = std::string((bits & kOthersWrite) != 0 ? "is writable by others"
                                                    : "is writable by its group") +
             " (mode " + OctalMode(bits) + ")";
  }
  return false;
}

std::string DescribeOwnerAndMode(std::uint32_t ownerUid, std::uint32_t mode) {
  return "uid " + std::to_string(ownerUid) + ", mode " + OctalMode(mode & 07777);
}

}  // namespace orvel
