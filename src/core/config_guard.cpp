#include "core/config_guard.h"

#include <cstdint>
#include <nlohmann/json.hpp>
#include <vector>

#include "api/number_text.h"

namespace orvel {

namespace {

using Json = nlohmann::json;

constexpr std::size_t kMaxShownNameBytes = 64;

// What a member's value means to the core, by the member's folded name.
enum class MemberKind {
  kPlain,
  kProgram,            // names a program or arguments for one
  kType,               // "tor" starts a program; also tells what `path` means
  kFilePath,           // a file or directory the core opens, creates or serves
  kPath,               // a file, except in a web transport, HTTP outbound or DoH server
  kExternalUi,         // a directory served over the controller port
  kUiDownloadUrl,      // unpacks an archive into external_ui
  kDashboardDownload,  // unpacks an archive into the API dashboard's path
  kMasquerade,         // "file://..." serves a directory
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
  if (name == "external_ui") return MemberKind::kExternalUi;
  if (name == "external_ui_download_url") return MemberKind::kUiDownloadUrl;
  if (name == "download_url" && container == "dashboard") return MemberKind::kDashboardDownload;
  if (name == "masquerade") return MemberKind::kMasquerade;
  if (name == "output" || name == "directory" || name == "dashboard") return MemberKind::kFilePath;
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
  std::size_t pathLength = 0;  // length of the shown path of the container itself
  std::string openedBy;        // folded name of the member holding it, "" otherwise
  // Arrays: next element and the rule for their strings (arrays of paths).
  std::uint64_t nextIndex = 0;
  MemberKind elementKind = MemberKind::kPlain;
  std::size_t deferTo = 0;  // object frame that judges its `path` strings
  // Objects: the member whose value comes next.
  std::string memberName;
  MemberKind memberKind = MemberKind::kPlain;
  std::uint64_t memberOrder = 0;
  // Objects: judged at their end, once every member has been seen.
  bool typeSeen = false;
  bool everyTypeIsWeb = true;
  Candidate filePathInPath;  // first `path` outside the data directory
  Candidate download;        // first download without a safe target
  bool downloadTargetSafe = false;
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
        } else if (judge.openedBy == "dashboard" && !place.inArray) {
          judge.downloadTargetSafe = true;
        }
        break;
      case MemberKind::kExternalUi:
        if (!CheckDataRelativePath(value, rules, reason)) {
          Offer(place.order, path + " " + reason);
        } else if (judge.openedBy != "dashboard" && !place.inArray) {
          judge.downloadTargetSafe = true;
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
      default:
        JudgeAnyValue(place);
        break;
    }
  }

  // Rules that hold whatever the value is.
  void JudgeAnyValue(const Place& place) {
    if (place.inArray || place.kind == MemberKind::kPlain) return;
    Frame& judge = frames[place.judge];
    switch (place.kind) {
      case MemberKind::kProgram:
        Offer(place.order, path + " runs a program");
        break;
      case MemberKind::kType:
        judge.typeSeen = true;
        judge.everyTypeIsWeb = false;
        break;
      case MemberKind::kUiDownloadUrl:
        OfferLater(judge.download, place.order,
                   path + " needs an external_ui inside the data directory");
        break;
      case MemberKind::kDashboardDownload:
        OfferLater(judge.download, place.order, path + " needs a path inside the data directory");
        break;
      default:
        break;
    }
  }

  bool Scalar() {
    JudgeAnyValue(BeginValue());
    return true;
  }

  bool StartContainer(bool isObject) {
    if (frames.size() >= kMaxConfigDepth) {
      tooDeep = true;
      return false;
    }
    const Place place = BeginValue();
    JudgeAnyValue(place);
    Frame frame;
    frame.isObject = isObject;
    frame.pathLength = path.size();
    if (!frames.empty() && frames.back().isObject) frame.openedBy = frames.back().memberName;
    if (!isObject) {
      // Only strings directly in an array of paths are paths; objects inside
      // are judged by their own members.
      const bool pathList = place.kind == MemberKind::kFilePath ||
                            place.kind == MemberKind::kPath ||
                            place.kind == MemberKind::kExternalUi;
      frame.elementKind = pathList ? place.kind : MemberKind::kPlain;
      frame.deferTo = place.judge;
    }
    frames.push_back(std::move(frame));
    return true;
  }

  bool EndContainer() {
    Frame& frame = frames.back();
    if (frame.isObject) {
      if (frame.filePathInPath.set && !(frame.typeSeen && frame.everyTypeIsWeb)) {
        Offer(frame.filePathInPath.order, frame.filePathInPath.text);
      }
      if (frame.download.set && !frame.downloadTargetSafe) {
        Offer(frame.download.order, frame.download.text);
      }
    }
    frames.pop_back();
    return true;
  }

  // The nlohmann SAX interface.
  bool null() { return Scalar(); }
  bool boolean(bool) { return Scalar(); }
  bool number_integer(Json::number_integer_t) { return Scalar(); }
  bool number_unsigned(Json::number_unsigned_t) { return Scalar(); }
  bool number_float(Json::number_float_t, const std::string&) { return Scalar(); }
  bool binary(Json::binary_t&) { return Scalar(); }
  bool string(std::string& value) {
    const Place place = BeginValue();
    if (!frames.empty()) JudgeString(place, value);
    return true;
  }
  bool start_object(std::size_t) { return StartContainer(true); }
  bool start_array(std::size_t) { return StartContainer(false); }
  bool end_object() { return EndContainer(); }
  bool end_array() { return EndContainer(); }
  bool key(std::string& name) {
    Frame& frame = frames.back();
    frame.memberName = FoldMemberName(name);
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

bool CheckServiceConfig(std::string_view config, PathRules rules, std::string& refusal) {
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
  return true;
}

}  // namespace orvel
