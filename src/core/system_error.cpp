#include "core/system_error.h"

namespace orvel {

std::string DescribeSystemError(const SystemError& error) {
  std::string text = error.call;
  if (!error.path.empty()) text += "(" + error.path + ")";
  text += " failed: " + std::to_string(error.code);
  const std::string reason = SystemErrorText(error.code);
  if (!reason.empty()) text += " (" + reason + ")";
  return text;
}

}  // namespace orvel
