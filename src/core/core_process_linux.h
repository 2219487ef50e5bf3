#pragma once

#include "core/core_process.h"

namespace orvel {

// DuplicateCoreHandle as the pidfd it is on Linux (close-on-exec); -1 when
// there is none. The caller closes it.
inline int DuplicateCorePidfd() { return static_cast<int>(DuplicateCoreHandle()); }

}  // namespace orvel
