#include "core/config_guard.h"

#include <cstdint>
#include <nlohmann/json.hpp>
#include <unordered_set>
#include <utility>
#include <vector>

#include "text/number_text.h"

namespace orvel {

namespace {

using Json = nlohmann::json;

constexpr std::size_t kMaxShownNameBytes = 64;

// What a member's value means to the core, by the member's folded name.
enum class MemberKind {
  kPlain,
  kProgram,     // names a program or arguments for one
  kType,        // "tor" starts a program; also tells what `path` means
  kFilePath,    // a file or directory the core opens, creates or serves
  kPath,        // a file, except in a web transport, HTTP outbound or DoH server
  kMasquerade,  // "file://..." serves a directory
  // Fetches a zip that the core unpacks with the entry names the archive
  // gives, "../" included, so its source must never be the caller's choice.
  kArchiveDownload,
  kNetns,             // joins another process's network namespace
  kSetsClock,         // ntp.write_to_system
  kSetsSystemProxy,   // the core changes the desktop's proxy settings
  kProfiler,          // experimental.debug.listen: a pprof server
  kControllerListen,  // a control API: only on the loopback address
};

// Object types in which `path` is the path part of a URL, never a file.
bool IsWebType(std::string_view type) {
  return type == "http" || type == "https" || type == "h3" || type == "ws" || type == "httpupgrade";
}

bool EndsWith(std::string_view text, std::string_view suffix) {
  return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

// The core's decoder matches member names with Unicode simple case folding,
// under which two non-ASCII letters equal ASCII ones: U+017F (long s) is 's'
// and U+212A (Kelvin sign) is 'k'. "extra_arg\u017f" reaches the core as
// extra_args, so it must reach the rules as that too.
std::string FoldMemberName(std::string_view name) {
  std::string folded;
  folded.reserve(name.size());
  for (std::size_t i = 0; i < name.size(); ++i) {
    if (name.compare(i, 2, "\xC5\xBF") == 0) {
      folded += 's';
      i += 1;
    } else if (name.compare(i, 3, "\xE2\x84\xAA") == 0) {
      folded += 'k';
      i += 2;
    } else {
      folded += ToLowerAscii(name[i]);
    }
  }
  return folded;
}

MemberKind ClassifyMember(std::string_view name, std::string_view container) {
  if (name == "executable_path" || name == "extra_args" || name == "torrc" || name == "command" ||
      name == "wrapper_path") {
    return MemberKind::kProgram;
  }
  if (name == "type") return MemberKind::kType;
  // Route and DNS rules match connections by the path of the program that
  // made them; the core never opens or starts it.
  if (name == "process_path") return MemberKind::kPlain;
  if (name == "path") return MemberKind::kPath;
  // The API service's dashboard downloads its archive the way the clash API's
  // external UI does; http_client is its download detour.
  if (name == "external_ui_download_url" || name == "external_ui_download_detour" ||
      (container == "dashboard" && (name == "download_url" || name == "http_client"))) {
    return MemberKind::kArchiveDownload;
  }
  if (name == "masquerade") return MemberKind::kMasquerade;
  if (name == "netns") return MemberKind::kNetns;
  if (name == "write_to_system") return MemberKind::kSetsClock;
  if (name == "set_system_proxy") return MemberKind::kSetsSystemProxy;
  if (name == "listen" && container == "debug") return MemberKind::kProfiler;
  if (name == "external_controller" || (name == "listen" && container == "v2ray_api")) {
    return MemberKind::kControllerListen;
  }
  if (name == "output" || name == "directory" || name == "dashboard" || name == "external_ui") {
    return MemberKind::kFilePath;
  }
  // Plurals too: route.dhcp_lease_files is a list of files the core reads.
  for (const std::string_view suffix :
       {"_path", "_paths", "_directory", "_directories", "_file", "_files"}) {
    if (EndsWith(name, suffix)) return MemberKind::kFilePath;
  }
  return MemberKind::kPlain;
}

bool IsSeparator(char c) { return c == '\\' || c == '/'; }

// CON, PRN, AUX, NUL, COM0-9, LPT0-9 and COM/LPT with a superscript 1-3 open
// a device whatever extension follows ("nul.txt") and whatever spaces precede
// the extension.
bool IsDeviceName(std::string_view segment) {
  std::string base(segment.substr(0, segment.find('.')));
  while (!base.empty() && base.back() == ' ') base.pop_back();
  for (char& c : base) c = ToLowerAscii(c);
  if (base == "con" || base == "prn" || base == "aux" || base == "nul") return true;
  const std::string_view rest = std::string_view(base).substr(base.size() >= 3 ? 3 : base.size());
  if (base.rfind("com", 0) != 0 && base.rfind("lpt", 0) != 0) return false;
  if (rest.size() == 1 && rest[0] >= '0' && rest[0] <= '9') return true;
  return rest == "\xC2\xB9" || rest == "\xC2\xB2" || rest == "\xC2\xB3";
}

bool CheckSegment(std::string_view segment, PathRules rules, std::string& reason) {
  if (segment.empty()) {
    reason = "has an empty segment";
  } else if (segment == ".") {
    reason = "has a '.' segment";
  } else if (segment == "..") {
    reason = "climbs out of the data directory with '..'";
  } else if (rules == PathRules::kLinux) {
    return true;
  } else if (segment.back() == '.' || segment.back() == ' ') {
    // Windows drops trailing dots and spaces, so "... " and "nul." are not
    // what they seem.
    reason = "has a segment ending in a dot or space";
  } else if (IsDeviceName(segment)) {
    reason = "names a device";
  } else {
    return true;
  }
  return false;
}

// A dotted quad whose first number is 127, in the only spelling Go's address
// parser takes: four decimal numbers up to 255 without leading zeros. Any other
// spelling ("127.1", "127.0.0.01") is looked up as a host name instead.
bool IsLoopbackIpv4(std::string_view host) {
  std::size_t start = 0;
  for (int part = 0; part < 4; ++part) {
    const std::size_t end = part == 3 ? host.size() : host.find('.', start);
    if (end == std::string_view::npos) return false;
    const std::string_view digits = host.substr(start, end - start);
    if (digits.empty() || digits.size() > 3 || (digits.size() > 1 && digits[0] == '0'))
      return false;
    unsigned value = 0;
    for (const char c : digits) {
      if (c < '0' || c > '9') return false;
      value = value * 10 + static_cast<unsigned>(c - '0');
    }
    if (value > 255 || (part == 0 && value != 127)) return false;
    start = end + 1;
  }
  return true;
}

// "host:port" split as Go's net.SplitHostPort splits it ("[::1]:9090" too);
// true only for a host that is a loopback address. An empty host (":9090")
// listens on every address, and a name other than localhost may resolve to
// any address, so both are false.
bool ListensOnLoopbackOnly(std::string_view address) {
  std::string_view host;
  if (!address.empty() && address[0] == '[') {
    const std::size_t close = address.find(']');
    if (close == std::string_view::npos || address.substr(close + 1, 1) != ":") return false;
    host = address.substr(1, close - 1);
  } else {
    const std::size_t colon = address.rfind(':');
    if (colon == std::string_view::npos) return false;
    host = address.substr(0, colon);
    if (host.find(':') != std::string_view::npos) return false;
  }
  std::string lower(host);
  for (char& c : lower) c = ToLowerAscii(c);
  return lower == "localhost" || host == "::1" || IsLoopbackIpv4(host);
}

// A JSON string of `text`, which the parser has already checked to be UTF-8:
// quotes, backslashes and control bytes escaped, every other byte as it is.
void AppendJsonString(std::string& out, std::string_view text) {
  static constexpr char kHex[] = "0123456789abcdef";
  out += '"';
  for (const char c : text) {
    const unsigned char byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c == '\t') {
      out += "\\t";
    } else if (byte < 0x20) {
      out += "\\u00";
      out += kHex[byte >> 4];
      out += kHex[byte & 0xF];
    } else {
      out += c;
    }
  }
  out += '"';
}

// Member names as shown in a refusal: control bytes replaced and long names
// cut (at a character boundary), since the text goes into the log and the
// answer.
std::string ShownName(std::string_view name) {
  std::string shown;
  for (std::size_t i = 0; i < name.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(name[i]);
    if (shown.size() >= kMaxShownNameBytes && (c & 0xC0) != 0x80) {
      shown += "...";
      break;
    }
    shown += c < 0x20 || c == 0x7F ? '?' : static_cast<char>(c);
  }
  return shown;
}

struct Candidate {
  bool set = false;
  std::uint64_t order = 0;
  std::string text;
};

struct Frame {
  bool isObject = false;
  // The plain text: an array's elements so far, joined; an object's members
  // as (name as written, value text), repeats dropped at its end.
  std::string text;
  std::vector<std::pair<std::string, std::string>> members;
  std::size_t pathLength = 0;  // length of the shown path of the container itself
  std::string openedBy;        // folded name of the member holding it, "" otherwise
  // Arrays: next element and the rule for their strings (arrays of paths).
  std::uint64_t nextIndex = 0;
  MemberKind elementKind = MemberKind::kPlain;
  std::size_t deferTo = 0;  // object frame that judges its `path` strings
  // Objects: the member whose value comes next.
  std::string memberName;
  std::string memberRawName;  // unescaped but not folded: what the plain text keeps
  MemberKind memberKind = MemberKind::kPlain;
  std::uint64_t memberOrder = 0;
  // Objects: judged at their end, once every member has been seen.
  bool typeSeen = false;
  bool everyTypeIsWeb = true;
  Candidate filePathInPath;  // first `path` outside the data directory
};

// Walks the parser's events with an explicit stack of containers, so depth
// costs heap, not C++ stack, and stops at kMaxConfigDepth.
struct GuardWalker {
  PathRules rules = PathRules::kWindows;
  std::vector<Frame> frames;
  std::string path;  // shown JSON path of the value being read
  std::uint64_t order = 0;
  Candidate first;
  bool tooDeep = false;
  std::string plain;  // the whole document, once its last value has ended

  void Offer(std::uint64_t at, std::string text) {
    if (!first.set || at < first.order) first = Candidate{true, at, std::move(text)};
  }
  void OfferLater(Candidate& slot, std::uint64_t at, std::string text) {
    if (!slot.set) slot = Candidate{true, at, std::move(text)};
  }

  // Everything known about the value that starts now.
  struct Place {
    MemberKind kind = MemberKind::kPlain;
    std::uint64_t order = 0;
    std::size_t judge = 0;  // object frame that owns a `path` verdict
    bool inArray = false;
  };

  Place BeginValue() {
    Place place;
    if (frames.empty()) return place;
    Frame& parent = frames.back();
    if (parent.isObject) {
      place.kind = parent.memberKind;
      place.order = parent.memberOrder;
      place.judge = frames.size() - 1;
      return place;
    }
    path.resize(parent.pathLength);
    path += '[';
    path += std::to_string(parent.nextIndex++);
    path += ']';
    place.kind = parent.elementKind;
    place.order = ++order;
    place.judge = parent.deferTo;
    place.inArray = true;
    return place;
  }

  void JudgeString(const Place& place, const std::string& value) {
    Frame& judge = frames[place.judge];
    std::string reason;
    switch (place.kind) {
      case MemberKind::kType:
        judge.typeSeen = true;
        judge.everyTypeIsWeb = judge.everyTypeIsWeb && IsWebType(value);
        if (FoldMemberName(value) == "tor")
          Offer(place.order, path + " is tor, which runs a program");
        break;
      case MemberKind::kFilePath:
        if (!CheckDataRelativePath(value, rules, reason)) Offer(place.order, path + " " + reason);
        break;
      case MemberKind::kPath:
        if (!CheckDataRelativePath(value, rules, reason)) {
          OfferLater(judge.filePathInPath, place.order, path + " " + reason);
        }
        break;
      case MemberKind::kMasquerade: {
        const std::string folded = FoldMemberName(value);
        if (!value.empty() && folded.rfind("http://", 0) != 0 && folded.rfind("https://", 0) != 0) {
          Offer(place.order,
                path + " serves files; only an http:// or https:// address is allowed");
        }
        break;
      }
      case MemberKind::kNetns:
      case MemberKind::kProfiler:
        if (!value.empty()) JudgeAnyValue(place, "a string");
        break;
      case MemberKind::kControllerListen:
        if (!value.empty() && !ListensOnLoopbackOnly(value)) JudgeAnyValue(place, "a string");
        break;
      default:
        JudgeAnyValue(place, "a string");
        break;
    }
  }

  // Rules for a value that is not a string the rules above let through.
  // `literal` is a scalar's JSON text; a container or a string has none that
  // counts ("null" and "false" switch the members below off, nothing else
  // does: whatever the core cannot decode it refuses by itself).
  void JudgeAnyValue(const Place& place, std::string_view literal) {
    if (place.inArray || place.kind == MemberKind::kPlain) return;
    Frame& judge = frames[place.judge];
    const bool off = literal == "null" || literal == "false";
    switch (place.kind) {
      case MemberKind::kProgram:
        Offer(place.order, path + " runs a program");
        break;
      case MemberKind::kType:
        judge.typeSeen = true;
        judge.everyTypeIsWeb = false;
        break;
      case MemberKind::kArchiveDownload:
        Offer(place.order, path + " downloads an archive to unpack");
        break;
      case MemberKind::kNetns:
        if (literal != "null") Offer(place.order, path + " joins another network namespace");
        break;
      case MemberKind::kSetsClock:
        if (!off) Offer(place.order, path + " sets the system clock");
        break;
      case MemberKind::kSetsSystemProxy:
        if (!off) Offer(place.order, path + " sets the system proxy");
        break;
      case MemberKind::kProfiler:
        if (literal != "null") Offer(place.order, path + " starts a profiling server");
        break;
      case MemberKind::kControllerListen:
        if (literal != "null") Offer(place.order, path + " listens beyond the loopback address");
        break;
      default:
        break;
    }
  }

  // A value is complete: its text joins its container's, or is the document.
  void EndValue(std::string text) {
    if (frames.empty()) {
      plain = std::move(text);
    } else if (frames.back().isObject) {
      frames.back().members.emplace_back(std::move(frames.back().memberRawName), std::move(text));
    } else {
      std::string& list = frames.back().text;
      if (!list.empty()) list += ',';
      list += text;
    }
  }

  bool Scalar(std::string literal) {
    JudgeAnyValue(BeginValue(), literal);
    EndValue(std::move(literal));
    return true;
  }

  bool StartContainer(bool isObject) {
    if (frames.size() >= kMaxConfigDepth) {
      tooDeep = true;
      return false;
    }
    const Place place = BeginValue();
    JudgeAnyValue(place, "");
    Frame frame;
    frame.isObject = isObject;
    frame.pathLength = path.size();
    if (!frames.empty() && frames.back().isObject) frame.openedBy = frames.back().memberName;
    if (!isObject) {
      // Only strings directly in an array of paths are paths; objects inside
      // are judged by their own members.
      const bool pathList = place.kind == MemberKind::kFilePath || place.kind == MemberKind::kPath;
      frame.elementKind = pathList ? place.kind : MemberKind::kPlain;
      frame.deferTo = place.judge;
    }
    frames.push_back(std::move(frame));
    return true;
  }

  bool EndContainer() {
    Frame& frame = frames.back();
    std::string text;
    if (frame.isObject) {
      if (frame.filePathInPath.set && !(frame.typeSeen && frame.everyTypeIsWeb)) {
        Offer(frame.filePathInPath.order, frame.filePathInPath.text);
      }
      // The core's decoder keeps the last of equal names (a map such as
      // HTTP headers is case-sensitive, so only bytes-equal names repeat).
      // Every one was judged; the plain text keeps the last, in its place.
      std::unordered_set<std::string_view> later;
      std::vector<bool> kept(frame.members.size());
      for (std::size_t i = frame.members.size(); i-- > 0;) {
        kept[i] = later.insert(frame.members[i].first).second;
      }
      text = "{";
      for (std::size_t i = 0; i < frame.members.size(); ++i) {
        if (!kept[i]) continue;
        if (text.size() > 1) text += ',';
        AppendJsonString(text, frame.members[i].first);
        text += ':';
        text += frame.members[i].second;
      }
      text += '}';
    } else {
      text = "[" + frame.text + "]";
    }
    frames.pop_back();
    EndValue(std::move(text));
    return true;
  }

  // The nlohmann SAX interface.
  bool null() { return Scalar("null"); }
  bool boolean(bool value) { return Scalar(value ? "true" : "false"); }
  bool number_integer(Json::number_integer_t value) { return Scalar(std::to_string(value)); }
  bool number_unsigned(Json::number_unsigned_t value) { return Scalar(std::to_string(value)); }
  // The number as it was written: "1.50" and "1E300" reach the core as sent.
  bool number_float(Json::number_float_t, const std::string& text) { return Scalar(text); }
  bool binary(Json::binary_t&) { return false; }  // JSON text has none
  bool string(std::string& value) {
    const Place place = BeginValue();
    if (!frames.empty()) JudgeString(place, value);
    std::string text;
    AppendJsonString(text, value);
    EndValue(std::move(text));
    return true;
  }
  bool start_object(std::size_t) { return StartContainer(true); }
  bool start_array(std::size_t) { return StartContainer(false); }
  bool end_object() { return EndContainer(); }
  bool end_array() { return EndContainer(); }
  bool key(std::string& name) {
    Frame& frame = frames.back();
    frame.memberName = FoldMemberName(name);
    frame.memberRawName = name;
    frame.memberKind = ClassifyMember(frame.memberName, frame.openedBy);
    frame.memberOrder = ++order;
    path.resize(frame.pathLength);
    if (!path.empty()) path += '.';
    path += ShownName(name);
    return true;
  }
  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) {
    return false;
  }
};

}  // namespace

bool CheckDataRelativePath(std::string_view path, PathRules rules, std::string& reason) {
  if (path.empty()) return true;
  // Linux: '/' is the only separator and the only root; the core's own
  // "~/..." expansion reaches a home directory; a NUL would cut the name the
  // system sees short of the one judged here. Backslashes and colons are
  // ordinary bytes there.
  const bool windows = rules == PathRules::kWindows;
  if (windows && IsSeparator(path[0])) {
    // "\\server\share", "\\?\C:\..." and "\\.\pipe\..." all start this way.
    reason = path.size() > 1 && IsSeparator(path[1]) ? "is a UNC or device path"
                                                     : "starts at the root of a drive";
  } else if (!windows && path[0] == '/') {
    reason = "starts at the root of the file system";
  } else if (!windows && path[0] == '~') {
    reason = "starts at a home directory ('~')";
  } else if (windows && path.find(':') != std::string_view::npos) {
    reason = "contains ':' (a drive, stream or device)";
  } else if (!windows && path.find('\0') != std::string_view::npos) {
    reason = "contains a NUL byte";
  } else if (path.find('$') != std::string_view::npos) {
    reason = "contains '$' (the core expands environment variables)";
  } else {
    const std::string_view separators = windows ? "\\/" : "/";
    for (std::size_t start = 0;;) {
      const std::size_t end = path.find_first_of(separators, start);
      const std::string_view segment =
          path.substr(start, end == std::string_view::npos ? end : end - start);
      if (!CheckSegment(segment, rules, reason)) return false;
      if (end == std::string_view::npos) return true;
      start = end + 1;
    }
  }
  return false;
}

bool JudgeServiceConfig(std::string_view config, PathRules rules, std::string& plainJson,
                        std::string& refusal) {
  plainJson.clear();
  GuardWalker walker;
  walker.rules = rules;
  const bool parsed = Json::sax_parse(config.begin(), config.end(), &walker,
                                      Json::input_format_t::json, true, true);
  if (walker.tooDeep) {
    refusal = "nested too deeply";
    return false;
  }
  if (!parsed) {
    refusal = "not valid JSON";
    return false;
  }
  if (walker.first.set) {
    refusal = walker.first.text;
    return false;
  }
  plainJson = std::move(walker.plain);
  return true;
}

}  // namespace orvel
