// LocalHttpGet against a scripted server in this process: what it sends, and
// which answers it ends by itself instead of reading on. Each answer that a
// wrong stop rule would read past is followed by more bytes a little later,
// so reading on shows as extra bytes rather than as time.
#include "traffic/core_stats_client.h"

#include <gtest/gtest.h>
#include <winsock2.h>
#include <ws2tcpip.h>

#include <algorithm>
#include <functional>
#include <thread>

#include "support/harness.h"

namespace orvel {
namespace {

struct Step {
  int pauseMs;  // before the bytes; cut short once the client has closed
  std::string bytes;
};

// An ephemeral loopback port, listening or (listening false) already free.
SOCKET Listener(std::uint16_t& port, bool listening = true) {
  test::EnsureWinsock();
  SOCKET s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);
  int length = sizeof(address);
  bind(s, reinterpret_cast<sockaddr*>(&address), length);
  getsockname(s, reinterpret_cast<sockaddr*>(&address), &length);
  port = ntohs(address.sin_port);
  if (listening) listen(s, 1);
  return s;
}

// One connection: records the request, sends the steps, then keeps the
// connection until the client closes it (hold) or closes it itself.
void Serve(SOCKET listener, const std::vector<Step>& steps, bool hold, std::string& request) {
  SOCKET client = accept(listener, nullptr, nullptr);
  char chunk[4096];  // the request is one small send
  const int got = recv(client, chunk, sizeof(chunk), 0);
  request.assign(chunk, static_cast<std::size_t>(std::max(got, 0)));
  for (const Step& step : steps) {
    fd_set closed;  // readable: the client has closed (none sends more)
    FD_ZERO(&closed);
    FD_SET(client, &closed);
    timeval wait{step.pauseMs / 1000, step.pauseMs % 1000 * 1000};
    if (step.pauseMs > 0 && select(0, &closed, nullptr, nullptr, &wait) != 0) break;
    if (!test::SendAll(client, step.bytes)) break;
  }
  while (hold && recv(client, chunk, sizeof(chunk), 0) > 0) {
  }
  closesocket(client);
}

struct Fetched {
  bool result = false;
  std::string response = "left by the caller";
  std::string request;
};

Fetched Fetch(const std::vector<Step>& steps, bool hold, std::string_view path = "/traffic",
              std::uint32_t timeoutMs = 20000) {
  std::uint16_t port = 0;
  SOCKET listener = Listener(port);
  Fetched fetched;
  std::thread server(Serve, listener, std::cref(steps), hold, std::ref(fetched.request));
  fetched.result = LocalHttpGet(port, path, timeoutMs, fetched.response);
  server.join();
  closesocket(listener);
  return fetched;
}

TEST(LocalHttpGet, SendsOneGetAndEndsAtTheFirstWholeAnswer) {
  const std::string ok = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n";
  const std::string stream = ok + "Transfer-Encoding: chunked\r\n\r\n";
  const std::string tab = ok + "Content-Length:\t5\r\n\r\nhello";
  const struct {
    const char* path;
    std::vector<Step> steps;  // none: a silent server, given 300 ms
    bool hold;                // else the server closes after its steps
    std::string response;     // true returned when not empty
  } cases[] = {
      // Half a sample does not end the read; the next one is never waited for.
      {"/traffic",
       {{0, stream + "1a\r\n{\"up\":-1250,"},
        {150, "\"down\":98304}\n\r\n"},
        {2000, "1a\r\n{\"up\":1,\"down\":2}\n\r\n"}},
       true,
       stream + "1a\r\n{\"up\":-1250,\"down\":98304}\n\r\n"},
      {"/traffic",
       {{0, ok + "CONTENT-LENGTH:  0\r\n\r\n"}, {2000, "late"}},
       true,
       ok + "CONTENT-LENGTH:  0\r\n\r\n"},
      // Not ended by the header: read on until the server closes.
      {"/conn ections?x=%20", {{0, tab}, {300, " and more"}}, false, tab + " and more"},
      // Cleared once the request went out; one receive time-out ends it.
      {"/traffic", {}, true, ""},
  };
  for (const auto& c : cases) {
    const Fetched fetched = Fetch(c.steps, c.hold, c.path, c.steps.empty() ? 300 : 20000);
    EXPECT_EQ(fetched.result, !c.response.empty());
    EXPECT_EQ(fetched.response, c.response);
    EXPECT_EQ(fetched.request, "GET " + std::string(c.path) +
                                   " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n");
  }
}

TEST(LocalHttpGet, RefusedConnectionLeavesTheResponseAlone) {
  std::uint16_t port = 0;
  closesocket(Listener(port, false));
  std::string response = "left by the caller";
  EXPECT_FALSE(LocalHttpGet(port, "/traffic", 20000, response));
  EXPECT_EQ(response, "left by the caller");
}

TEST(LocalHttpGet, StopsReadingOnceTheCapIsReached) {
  // No blank line, no sample: only the cap ends this answer. It is checked
  // before each receive, so at most one receive chunk lies beyond it.
  const Fetched fetched = Fetch({{0, std::string(kCoreResponseCapBytes + 300000, 'x')}}, true);
  EXPECT_TRUE(fetched.result);
  EXPECT_GE(fetched.response.size(), kCoreResponseCapBytes);
  EXPECT_LT(fetched.response.size(), kCoreResponseCapBytes + kCoreReceiveChunkBytes);
  EXPECT_EQ(fetched.response.find_first_not_of('x'), std::string::npos);
}

}  // namespace
}  // namespace orvel
