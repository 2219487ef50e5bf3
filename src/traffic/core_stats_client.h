#pragma once

// A minimal HTTP/1.1 client for the core's statistics controller on the
// loopback interface: one GET per connection, the raw answer collected
// undecoded (status line, headers and any chunk-size lines stay in place).

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace orvel {

constexpr std::uint16_t kCoreApiPort = 19090;
constexpr std::uint32_t kCoreApiTimeoutMs = 1200;
// Checked before each receive, so an answer may end up to one receive chunk
// longer than this.
constexpr std::size_t kCoreResponseCapBytes = 1048576;
constexpr std::size_t kCoreReceiveChunkBytes = 4096;

// Whether the bytes received so far may be taken as the whole answer:
// - by length: the head is complete and holds "content-length:" (any letter
//   case, anywhere in the head) followed by spaces only and a run of digits L,
//   and at least L body bytes are in;
// - by content: the text holds both "\"up\":" and "\"down\":", which ends the
//   core's "/traffic" stream on its first sample (that stream never closes).
// Once true it stays true however many bytes are added.
bool IsCoreResponseComplete(std::string_view response);

// The "/traffic" stream as a reader that keeps it open sees it: moves every
// complete line (ended by "\n"; the head and the chunk-size lines are lines
// too) out of `pending`, and puts the last one that holds both "\"up\":" and
// "\"down\":" into `sample`. True when such a line was among them. An
// unfinished last line stays in `pending`, unless it has grown past
// kCoreResponseCapBytes without an end, when it is dropped.
bool TakeLatestTrafficSample(std::string& pending, std::string& sample);

// experimental.clash_api.secret of a configuration: "" when it sets none, is
// not JSON, or holds a byte that cannot go into a header (a control byte).
std::string FindControllerSecret(std::string_view config);

// The secret every later controller request carries, taken from the
// configuration the running core was started with.
void SetControllerSecret(std::string secret);

// "GET <path> HTTP/1.1", Host, Connection: close, and, when a secret is set,
// "Authorization: Bearer <secret>".
std::string BuildControllerRequest(std::string_view path);

// GETs `path` from 127.0.0.1:`port` with `timeoutMs` as both the receive and
// the send time-out, and as the bound of the connect.
// `response` is cleared once the request has gone out and then receives the
// raw answer; it is left untouched when the socket, the connect or the send
// fails. True when at least one byte was received. Needs Winsock started.
bool LocalHttpGet(std::uint16_t port, std::string_view path, std::uint32_t timeoutMs,
                  std::string& response);

}  // namespace orvel
