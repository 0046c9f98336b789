#include "Inputs.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <system_error>

#include "Text.h"

namespace vsa {
namespace {

namespace fs = std::filesystem;

constexpr std::array<std::string_view, 13> kImageExtensions = {
    ".bmp", ".dib", ".jp2", ".jpe", ".jpeg", ".jpg", ".pbm",
    ".pgm", ".png", ".ppm", ".tif", ".tiff", ".webp"};
constexpr std::array<std::string_view, 15> kVideoExtensions = {
    ".3gp", ".avi",  ".flv", ".gif", ".m2ts", ".m4v", ".mkv", ".mov",
    ".mp4", ".mpeg", ".mpg", ".mts", ".ogv",  ".ts",  ".webm"};

constexpr std::array<std::string_view, 15> kAudioExtensions = {
    ".aac", ".aif", ".aiff", ".au",   ".caf", ".flac", ".m4a", ".mka",
    ".mp3", ".oga", ".ogg",  ".opus", ".w64", ".wav",  ".wma"};

constexpr std::string_view kWhitespace = " \t\r\n";

// Whether a parameter of an address with such a name is a password or replaces one.
bool isSecret(std::string_view name) {
  const std::string lower = lowerCase(std::string(name));
  constexpr std::string_view kParts[] = {"pass", "pwd", "token", "secret", "key", "auth", "sig"};
  return std::ranges::any_of(
      kParts, [&lower](std::string_view part) { return lower.find(part) != std::string::npos; });
}

template <std::size_t size>
bool endsWithOneOf(const fs::path& path, const std::array<std::string_view, size>& extensions) {
  return std::ranges::find(extensions, lowerCaseExtension(path.string())) != extensions.end();
}

bool hasWildcard(const std::string& text) {
  return text.find_first_of("*?[") != std::string::npos;
}

// Whether the code point is in the set that begins at pattern[*position], right after the "[".
// Advances `*position` past the closing "]"; a "]" in the first position is a member of the set. If
// there is no closing "]", sets `*closed` to false and leaves `*position` unchanged.
bool matchSet(std::string_view pattern, std::size_t* position, char32_t codePoint, bool* closed) {
  std::size_t at = *position;
  const bool negated = at < pattern.size() && (pattern[at] == '!' || pattern[at] == '^');
  if (negated) ++at;
  bool found = false;
  for (bool first = true; at < pattern.size(); first = false) {
    if (pattern[at] == ']' && !first) {
      *position = at + 1;
      *closed = true;
      return found != negated;
    }
    const char32_t low = nextCodePoint(pattern, &at);
    char32_t high = low;
    if (at + 1 < pattern.size() && pattern[at] == '-' && pattern[at + 1] != ']') {
      ++at;
      high = nextCodePoint(pattern, &at);
    }
    found = found || (low <= codePoint && codePoint <= high);
  }
  *closed = false;
  return false;
}

// Whether the pattern matches the whole file name. If a part does not match, only the last "*"
// needs to be extended by one character, so the time is at most proportional to the product of both
// lengths.
bool matches(std::string_view pattern, std::string_view name) {
  std::size_t p = 0;
  std::size_t n = 0;
  std::size_t starPattern = std::string_view::npos;
  std::size_t starName = 0;
  while (n < name.size()) {
    std::size_t nextP = p;
    std::size_t nextN = n;
    bool good = false;
    if (p < pattern.size() && pattern[p] == '*') {
      starPattern = ++p;
      starName = n;
      continue;
    }
    if (p < pattern.size()) {
      const char32_t wanted = nextCodePoint(pattern, &nextP);
      const char32_t found = nextCodePoint(name, &nextN);
      bool closed = false;
      if (wanted == '[') good = matchSet(pattern, &nextP, found, &closed);
      if (!closed) good = wanted == '?' || wanted == found;
    }
    if (good) {
      p = nextP;
      n = nextN;
    } else if (starPattern != std::string_view::npos) {
      nextCodePoint(name, &starName);
      p = starPattern;
      n = starName;
    } else {
      return false;
    }
  }
  return pattern.find_first_not_of('*', p) == std::string_view::npos;
}

// Appends the files below `base` that match the parts of a pattern from `part` on. As in a shell, a
// name that begins with a dot is matched only by a pattern that does too.
void expandPattern(const fs::path& base, fs::path::const_iterator part,
                   const fs::path::const_iterator& end, std::vector<fs::path>* found) {
  if (part == end) {
    found->push_back(base);
    return;
  }
  const std::string pattern = part->string();
  const auto rest = std::next(part);
  std::error_code error;
  if (!hasWildcard(pattern)) {
    const fs::path next = base / *part;
    if (fs::exists(next, error)) expandPattern(next, rest, end, found);
    return;
  }
  const fs::path folder = base.empty() ? fs::path(".") : base;
  for (fs::directory_iterator entry(folder, error), none; !error && entry != none;
       entry.increment(error)) {
    const std::string name = entry->path().filename().string();
    if ((name[0] == '.' && pattern[0] != '.') || !matches(pattern, name)) continue;
    std::error_code unused;
    if (rest == end || fs::is_directory(entry->path(), unused)) {
      expandPattern(base / name, rest, end, found);
    }
  }
}

bool isMedia(const fs::path& path, Media media) {
  return endsWithOneOf(path, kVideoExtensions) ||
         (media == Media::kAudio ? endsWithOneOf(path, kAudioExtensions)
                                 : hasImageExtension(path.string()));
}

template <typename Iterator>
std::vector<fs::path> mediaIn(const fs::path& folder, Media media) {
  std::vector<fs::path> files;
  for (const fs::directory_entry& entry : Iterator(folder)) {
    const fs::path& path = entry.path();
    std::error_code unused;
    if (isMedia(path, media) && !fs::is_directory(path, unused)) {
      files.push_back(path);
    }
  }
  std::sort(files.begin(), files.end());
  return files;
}

// Adds a file that was found in a folder. Opening a pipe there could wait for ever.
void addFound(const fs::path& file, InputList* list) {
  std::error_code unused;
  if (fs::is_other(file, unused)) {
    list->problems.push_back({file.string(), "not a regular file"});
  } else {
    list->inputs.push_back(file.string());
  }
}

// Whether a folder below this one has such files. Looks at a limited number of entries.
bool hasMediaBelow(const fs::path& folder, Media media) {
  constexpr int kMaxEntries = 100000;
  std::error_code error;
  int entries = 0;
  for (fs::recursive_directory_iterator
           entry(folder, fs::directory_options::skip_permission_denied, error),
       none;
       !error && entry != none && entries < kMaxEntries; entry.increment(error), ++entries) {
    std::error_code unused;
    if (isMedia(entry->path(), media) && !entry->is_directory(unused)) return true;
  }
  return false;
}

// Adds the files in a folder.
void addFolder(const fs::path& path, bool recursive, Media media, InputList* list) {
  try {
    const std::vector<fs::path> files = recursive
                                            ? mediaIn<fs::recursive_directory_iterator>(path, media)
                                            : mediaIn<fs::directory_iterator>(path, media);
    for (const fs::path& file : files) addFound(file, list);
    if (files.empty()) {
      const std::string kind = media == Media::kAudio ? "audio" : "image";
      std::string reason = "no " + kind + " or video in this folder";
      if (!recursive && hasMediaBelow(path, media)) {
        reason += ", but in folders below it; -r searches them";
      }
      list->problems.push_back({path.string(), reason});
    }
  } catch (const fs::filesystem_error& error) {
    list->problems.push_back({path.string(), error.code().message()});
  }
}

}  // namespace

InputList expandInputs(const std::vector<std::string>& arguments, bool recursive, Media media) {
  InputList list;
  for (const std::string& argument : arguments) {
    std::error_code unused;
    if (!isAddress(argument) && fs::is_directory(argument, unused)) {
      addFolder(argument, recursive, media, &list);
      continue;
    }
    if (isAddress(argument) || fs::exists(argument, unused) || !hasWildcard(argument)) {
      list.inputs.push_back(argument);
      continue;
    }
    std::vector<fs::path> found;
    const fs::path pattern(argument);
    const fs::path parts = pattern.relative_path();
    expandPattern(pattern.root_path(), parts.begin(), parts.end(), &found);
    std::sort(found.begin(), found.end());
    if (found.empty()) list.problems.push_back({argument, "no file matches this pattern"});
    for (const fs::path& path : found) {
      if (fs::is_directory(path, unused)) {
        addFolder(path, recursive, media, &list);
      } else {
        addFound(path, &list);
      }
    }
  }
  return list;
}

Line readLine(std::istream* stream, std::size_t maxBytes, std::string* line,
              const std::function<bool()>& wait) {
  constexpr int kEnd = std::char_traits<char>::eof();
  line->clear();
  std::streambuf* bytes = stream->rdbuf();
  bool tooLong = false;
  for (bool isFirst = true;; isFirst = false) {
    if (wait && bytes->in_avail() <= 0 && !wait()) return Line::kInterrupted;
    const int byte = bytes->sbumpc();
    if (byte == kEnd && isFirst) return Line::kEnd;
    if (byte == kEnd || byte == '\n') break;
    tooLong = tooLong || line->size() == maxBytes;
    if (!tooLong) line->push_back(static_cast<char>(byte));
  }
  if (line->ends_with('\r')) line->pop_back();
  return tooLong ? Line::kTooLong : Line::kRead;
}

std::string lowerCase(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

std::string lowerCaseExtension(const std::string& path) {
  return lowerCase(fs::path(path).extension().string());
}

bool hasImageExtension(const std::string& path) {
  return endsWithOneOf(path, kImageExtensions);
}

bool isAddress(const std::string& input) {
  const std::size_t scheme = input.find("://");
  return scheme != std::string::npos && input.find('/') > scheme;
}

std::string pathForDecoder(const std::string& input) {
  return isAddress(input) ? input : fs::absolute(input).string();
}

std::string whyUnreadable(const std::string& path) {
  std::error_code error;
  if (fs::is_directory(path, error)) return "a folder, not a file";
  errno = 0;
  if (std::ifstream(path, std::ios::binary)) return "";
  if (errno == ENOENT || errno == ENOTDIR) return "no such file";
  if (errno == EACCES) return "permission denied";
  return errno == 0 ? "the file cannot be read" : std::generic_category().message(errno);
}

std::string withoutPasswords(std::string_view text) {
  std::string masked;
  std::size_t copied = 0;
  const auto mask = [&](std::size_t begin, std::size_t end) {
    if (begin < copied) return;  // in a value that is masked already
    masked += text.substr(copied, begin - copied);
    masked += "***";
    copied = end;
  };
  for (std::size_t at = text.find("://"); at != std::string_view::npos; at = text.find("://", at)) {
    at += 3;
    // A password may contain spaces. In a sentence, ": " follows the address.
    const std::size_t sentence = std::min(text.find(": ", at), text.size());
    std::size_t host = std::min(text.find_first_of("/?#\n", at), sentence);
    const std::size_t user = text.substr(at, host - at).rfind('@');
    const std::size_t colon = text.substr(at, host - at).find(':');
    if (user != std::string_view::npos && colon < user) {
      mask(at + colon + 1, at + user);
      at += user;
    }
    const std::size_t end = std::min(text.find_first_of(kWhitespace, at), sentence);
    host = std::min(host, end);
    // Parameters of the query, "?user=x&password=y".
    for (std::size_t name = text.substr(0, end).find_first_of("?&", host); name < end;) {
      const std::size_t next = std::min(text.find('&', name + 1), end);
      const std::size_t equals = text.substr(0, next).find('=', name);
      if (equals != std::string_view::npos && isSecret(text.substr(name, equals - name))) {
        mask(equals + 1, next);
      }
      name = next;
    }
  }
  return masked.append(text.substr(copied));
}

}  // namespace vsa
