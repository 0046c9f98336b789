#include "Messages.h"

#include <algorithm>
#include <cstdio>
#include <numeric>

#include "Text.h"

namespace vsa {
namespace {

char lowerCase(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// Levenshtein distance in bytes. The case of ASCII letters is ignored.
std::size_t editDistance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t diagonal = row[0];
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t replaced = diagonal + (lowerCase(a[i - 1]) == lowerCase(b[j - 1]) ? 0 : 1);
      diagonal = row[j];
      row[j] = std::min({replaced, row[j] + 1, row[j - 1] + 1});
    }
  }
  return row.back();
}

}  // namespace

std::string inQuotes(const std::string& text) {
  constexpr std::size_t kMaxBytes = 200;
  return '"' + printable(text.substr(0, kMaxBytes)) + (text.size() > kMaxBytes ? "...\"" : "\"");
}

std::string counted(std::int64_t count, const std::string& noun) {
  const bool takesEs = noun.ends_with("ch") || noun.ends_with("ss");
  return std::to_string(count) + " " + noun + (count == 1 ? "" : takesEs ? "es" : "s");
}

std::string joined(const std::vector<std::string>& texts, const char* separator) {
  std::string list;
  for (std::size_t i = 0; i < texts.size(); ++i) list += (i == 0 ? "" : separator) + texts[i];
  return list;
}

std::string sizeText(std::int64_t width, std::int64_t height) {
  const auto side = [](std::int64_t value) {
    return value < 0 ? std::string("any") : std::to_string(value);
  };
  return side(width) + " x " + side(height);
}

std::string fixed(double value, int digits) {
  char buffer[400];
  std::snprintf(buffer, sizeof buffer, "%.*f", digits, value);
  return buffer;
}

std::string suggestion(const std::string& given, const std::vector<std::string>& candidates) {
  constexpr std::size_t kMaxBytes = 100;  // a longer one is not a typing mistake
  if (given.size() > kMaxBytes) return "";
  const auto distance = [&given](const std::string& name) { return editDistance(given, name); };
  const auto nearest =
      std::min_element(candidates.begin(), candidates.end(),
                       [&](const auto& a, const auto& b) { return distance(a) < distance(b); });
  if (nearest == candidates.end() ||
      distance(*nearest) > std::max<std::size_t>(2, given.size() / 3)) {
    return "";
  }
  return "; did you mean " + inQuotes(*nearest) + "?";
}

std::string wrapped(std::string_view utf8, int indent, int columns) {
  std::string text;
  int used = 0;
  for (std::size_t start = 0; start < utf8.size();) {
    const std::size_t begin = std::min(utf8.find_first_not_of(' ', start), utf8.size());
    const std::size_t end = std::min(utf8.find(' ', begin), utf8.size());
    const std::string_view word = utf8.substr(begin, end - begin);
    const int spaces = static_cast<int>(begin - start);
    const int width = displayWidth(word);
    if (columns > 0 && used > indent && used + spaces + width > columns) {
      text += '\n';
      text.append(static_cast<std::size_t>(indent), ' ');
      used = indent + width;
    } else {
      text.append(begin - start, ' ');
      used += spaces + width;
    }
    text += word;
    start = end;
  }
  return text;
}

std::string oneLine(std::string_view message) {
  constexpr std::size_t kMaxBytes = 400;
  std::string sentence;
  for (std::size_t start = 0; start < message.size();) {
    const std::size_t end = std::min(message.find('\n', start), message.size());
    std::string_view line = message.substr(start, end - start);
    start = end + 1;
    while (!line.empty() && (line.back() == ' ' || line.back() == '\r')) line.remove_suffix(1);
    while (!line.empty() && line.front() == ' ') line.remove_prefix(1);
    if (line.empty() || line.starts_with("Exception from ")) continue;
    if (!sentence.empty()) sentence += ' ';
    sentence += printable(line);
  }
  if (sentence.size() > kMaxBytes) {
    sentence.resize(kMaxBytes);
    while (!sentence.empty() && (sentence.back() & 0x80) != 0) sentence.pop_back();
    sentence += "...";
  }
  return sentence.empty() ? "no reason given" : sentence;
}

}  // namespace vsa
