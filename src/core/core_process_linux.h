#pragma once

namespace orvel {

// A pidfd of its own (close-on-exec) for the recorded core, for a thread
// that must end with the core without touching the record, which a stop
// clears at any moment; -1 when there is none. The caller closes it.
int DuplicateCorePidfd();

}  // namespace orvel
