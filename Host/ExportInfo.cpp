#include "ExportInfo.h"

#include <algorithm>
#include <charconv>
#include <string_view>

namespace vsa {
namespace {

// The quoted strings, without keys, of "{0: 'cat', 1: \"dog's\"}", of a list or of a JSON object.
std::vector<std::string> quotedStrings(std::string_view text) {
  std::vector<std::string> names;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char quote = text[i];
    if (quote != '\'' && quote != '"') continue;
    std::string name;
    for (++i; i < text.size() && text[i] != quote; ++i) {
      if (text[i] == '\\' && i + 1 < text.size()) ++i;
      name += text[i];
    }
    const std::size_t next = text.find_first_not_of(' ', std::min(i + 1, text.size()));
    if (next == std::string_view::npos || text[next] != ':') names.push_back(std::move(name));
  }
  return names;
}

std::vector<std::string> split(std::string_view text, char separator) {
  std::vector<std::string> parts;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find(separator), text.size());
    if (end > 0) parts.emplace_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return parts;
}

}  // namespace

ExportInfo exportInfoOf(const ModelFile& file) {
  const auto value = [&file](const char* key) {
    const auto found = file.metadata.find(key);
    return found == file.metadata.end() ? std::string() : found->second;
  };
  ExportInfo info;
  info.task = value("task");
  if (!value("names").empty()) {
    info.names = quotedStrings(value("names"));
  } else if (!value("labels").empty()) {
    // One word per class, with underscores for spaces.
    info.names = split(value("labels"), ' ');
    for (std::string& name : info.names) std::ranges::replace(name, '_', ' ');
  } else {
    info.names = split(value("character"), '\n');
  }
  const std::string size = value("imgsz");
  for (std::size_t i = 0; (i = size.find_first_of("0123456789", i)) != std::string::npos;) {
    std::int64_t side = 0;
    i = static_cast<std::size_t>(
        std::from_chars(size.data() + i, size.data() + size.size(), side).ptr - size.data());
    info.size.push_back(side);
  }
  if (info.size.size() == 1) info.size.push_back(info.size[0]);
  if (info.size.size() != 2) info.size.clear();
  return info;
}

}  // namespace vsa
