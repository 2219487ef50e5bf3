#pragma once

#include <windows.h>

#include "core/core_process.h"

namespace orvel {

// DuplicateCoreHandle as the process handle it is on Windows (waitable, not
// inheritable); null when there is none. The caller closes it.
inline HANDLE DuplicateCoreProcessHandle() {
  const ChildHandle copy = DuplicateCoreHandle();
  return copy == kNoChildHandle ? nullptr : reinterpret_cast<HANDLE>(copy);
}

}  // namespace orvel
