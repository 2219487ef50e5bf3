#pragma once

#include <windows.h>

namespace orvel {

// Closes one kernel handle when it goes out of scope. Copying is deleted so a
// handle is closed exactly once; Release() hands it back to manual care.
struct UniqueHandle {
  HANDLE h = nullptr;

  UniqueHandle() = default;
  explicit UniqueHandle(HANDLE handle) : h(handle) {}
  UniqueHandle(const UniqueHandle&) = delete;
  UniqueHandle& operator=(const UniqueHandle&) = delete;
  UniqueHandle(UniqueHandle&& other) noexcept : h(other.Release()) {}
  UniqueHandle& operator=(UniqueHandle&& other) noexcept {
    if (this != &other) {
      Close();
      h = other.Release();
    }
    return *this;
  }
  ~UniqueHandle() { Close(); }

  bool Valid() const { return h != nullptr && h != INVALID_HANDLE_VALUE; }
  HANDLE Release() {
    HANDLE out = h;
    h = nullptr;
    return out;
  }
  void Close() {
    if (Valid()) CloseHandle(h);
    h = nullptr;
  }
};

}  // namespace orvel
