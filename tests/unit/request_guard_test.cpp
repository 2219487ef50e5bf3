#include "api/request_guard.h"

#include <gtest/gtest.h>

namespace orvel {
namespace {

TEST(FindHeadRefusal, RefusesWhatOnlyBrowsersAndForeignHostsSend) {
  struct Case {
    std::string_view head;
    std::string_view header;  // empty: accepted
    std::string_view value;
  } cases[] = {
      // Clients that must keep working, with their real header sets.
      {"POST /start HTTP/1.1\r\nHost: 127.0.0.1:17891\r\nUser-Agent: curl/7.88.1\r\nAccept: */*\r\n"
       "Content-Type: application/x-www-form-urlencoded\r\nContent-Length: 2",
       "", ""},
      {"POST /stop HTTP/1.1\r\nAccept-Encoding: identity\r\nContent-Length: 0\r\n"
       "Host: 127.0.0.1:17891\r\nUser-Agent: Python-urllib/3.11\r\nConnection: close",
       "", ""},
      {"POST /stop HTTP/1.1\r\nhost: 127.0.0.1:17891\r\nconnection: keep-alive\r\n"
       "content-type: text/plain;charset=UTF-8\r\naccept: */*\r\naccept-language: *\r\n"
       "sec-fetch-mode: cors\r\nuser-agent: node\r\naccept-encoding: gzip, deflate",
       "", ""},
      {"GET /status HTTP/1.1\r\nhost: 127.0.0.1:17891\r\norigin: http://tauri.localhost\r\n"
       "user-agent: tauri-plugin-http/2",
       "", ""},
      {"GET / HTTP/1.1\r\nOrigin: tauri://localhost", "", ""},
      {"GET / HTTP/1.1\r\nOrigin:https://tauri.localhost  ", "", ""},
      {"GET /ping HTTP/1.1", "", ""},  // no Host at all
      {"GET / HTTP/1.1\r\nSec-Fetch-Site: none\r\nSec-Fetch-Mode: navigate", "", ""},
      {"GET / HTTP/1.1\r\nHost: localhost", "", ""},
      {"GET / HTTP/1.1\r\nHost: LOCALHOST:17891", "", ""},
      {"GET / HTTP/1.1\r\nHost: [::1]:17891", "", ""},
      {"GET / HTTP/1.1\r\nHost: [::1]", "", ""},
      {"GET / HTTP/1.1\r\nX-Origin: null\r\nX-Host: evil.example\r\nOriginal: x", "", ""},
      {"Host: evil.example\r\n", "", ""},  // the request line is no header
      // A web page's requests.
      {"POST /stop HTTP/1.1\r\nHost: 127.0.0.1:17891\r\nContent-Type: text/plain\r\n"
       "Origin: http://127.0.0.5:8000\r\nSec-Fetch-Site: cross-site\r\nSec-Fetch-Mode: no-cors",
       "Origin", "http://127.0.0.5:8000"},
      {"GET /status HTTP/1.1\r\nHost: 127.0.0.1:17891\r\nSec-Fetch-Site: cross-site\r\n"
       "Sec-Fetch-Dest: image",
       "Sec-Fetch-Site", "cross-site"},
      {"GET / HTTP/1.1\r\nsec-fetch-site: same-origin", "Sec-Fetch-Site", "same-origin"},
      {"GET / HTTP/1.1\r\nSEC-FETCH-SITE: same-site", "Sec-Fetch-Site", "same-site"},
      {"GET / HTTP/1.1\r\nOrigin: null", "Origin", "null"},
      {"GET / HTTP/1.1\r\nORIGIN: https://evil.example", "Origin", "https://evil.example"},
      {"GET / HTTP/1.1\r\norigin: http://tauri.localhost.evil.example", "Origin",
       "http://tauri.localhost.evil.example"},
      {"GET / HTTP/1.1\r\nOrigin:", "Origin", ""},
      // Host names and ports that are not this helper's.
      {"GET /logs HTTP/1.1\r\nHost: rebind.evil.example:17891", "Host",
       "rebind.evil.example:17891"},
      {"GET / HTTP/1.1\r\nHost: 127.0.0.1.nip.io:17891", "Host", "127.0.0.1.nip.io:17891"},
      {"GET / HTTP/1.1\r\nHost: 127.0.0.1:8080", "Host", "127.0.0.1:8080"},
      {"GET / HTTP/1.1\r\nhost: localhost:", "Host", "localhost:"},
      {"GET / HTTP/1.1\r\nHost: [::1]:80", "Host", "[::1]:80"},
      {"GET / HTTP/1.1\r\nHost: 127.0.0.2", "Host", "127.0.0.2"},
      {"GET / HTTP/1.1\r\nHost: 0.0.0.0:17891", "Host", "0.0.0.0:17891"},
      {"GET / HTTP/1.1\r\nHost: ", "Host", ""},
      // The first refusing line names the header.
      {"GET / HTTP/1.1\r\nHost: localhost\r\nHost: evil.example\r\nOrigin: null", "Host",
       "evil.example"},
  };
  for (const Case& c : cases) {
    const HeadRefusal refusal = FindHeadRefusal(c.head);
    EXPECT_EQ(refusal.header, c.header) << c.head;
    EXPECT_EQ(refusal.value, c.value) << c.head;
  }
}

TEST(DescribeRefusal, EscapesTheSendersText) {
  EXPECT_EQ(DescribeRefusal("GET", "/a\"b", {"Origin", "x\ny\\"}),
            "Refused GET /a\\\"b: Origin \"x\\ny\\\\\"");
}

}  // namespace
}  // namespace orvel
