#pragma once

#include <windows.h>

#include <string>

namespace orvel {

// A REG_SZ or REG_EXPAND_SZ value (unexpanded) without its trailing zeros;
// "" when the value is absent, unreadable or of another type.
std::wstring ReadRegistryString(HKEY key, const wchar_t* valueName);

}  // namespace orvel
