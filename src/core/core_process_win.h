#pragma once

#include <windows.h>

#include <string>

namespace orvel {

// Whatever sits in the pipe now, without ever blocking: chunks of up to
// 4096 bytes while data is available, stopping once more than 4096 bytes are
// held (so at most 8192).
std::string DrainPipeOutput(HANDLE readEnd);

}  // namespace orvel
