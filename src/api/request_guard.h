#pragma once

#include <string>
#include <string_view>

namespace orvel {

// Any web page the user opens can send "simple" cross-origin requests to
// 127.0.0.1:17891 (the browser only hides the answer from the page), and a
// DNS-rebinding page can even read the answers. The client application and
// other local tools never send what browsers attach, so a request head is
// refused when it carries
//   - "Sec-Fetch-Site" with any value but "none" (a typed address), or
//   - "Origin" other than the origins of desktop frameworks' native clients
//     ("tauri://localhost", "http://tauri.localhost", "https://tauri.localhost"), or
//   - "Host" whose host is not 127.0.0.1, localhost or [::1] (any letter
//     case), or whose port, when given, is not 17891.
// Header names are matched whole, at the start of a header line, in any letter
// case: "X-Origin" is not "Origin". A head without "Host" is accepted.
struct HeadRefusal {
  std::string_view header;  // "Sec-Fetch-Site", "Origin" or "Host"; empty when accepted
  std::string value;        // the refused value, as sent (surrounding blanks removed)
};

// The first header line of `head` (request line and header lines, without the
// blank line) that refuses the request, in the order the lines were sent.
HeadRefusal FindHeadRefusal(std::string_view head);

// The log message for a refused request. Method, path and value are the
// sender's own bytes, so line breaks and quotes in them are escaped.
std::string DescribeRefusal(std::string_view method, std::string_view path,
                            const HeadRefusal& refusal);

}  // namespace orvel
