#include "JsonLines.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include "Messages.h"
#include "Text.h"

namespace vsa {

std::string jsonLine(const Json::Value& value) {
  return jsonText(value) + "\n";
}

std::string jsonText(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  builder["precision"] = 9;  // enough digits for every float
  return Json::writeString(builder, value);
}

Json::Value jsonNumber(float value) {
  if (!std::isfinite(value)) return Json::nullValue;
  // The decimal is parsed as a double, so that 0.9F is written as 0.9.
  char buffer[64];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer - 1, value);
  *result.ptr = '\0';
  return std::strtod(buffer, nullptr);
}

void setPath(Json::Value* object, const std::string& key, const std::string& path) {
  const std::string valid = repairUtf8(path);
  (*object)[key] = valid;
  if (valid == path) return;
  std::string digits;
  for (const char byte : path) {
    constexpr char kDigits[] = "0123456789abcdef";
    digits += kDigits[static_cast<unsigned char>(byte) >> 4];
    digits += kDigits[static_cast<unsigned char>(byte) & 0xF];
  }
  (*object)[key + "Hex"] = digits;
}

std::string pathIn(const Json::Value& object, const std::string& key) {
  const bool isHex = object.isMember(key + "Hex");
  const Json::Value& value = object[isHex ? key + "Hex" : key];
  if (!value.isString()) throw std::runtime_error("a string is missing");
  if (!isHex) return value.asString();
  const std::string text = value.asString();
  std::string path;
  for (std::size_t i = 0; i < text.size(); i += 2) {
    unsigned char byte = 0;
    const char* const end = text.data() + std::min(i + 2, text.size());
    if (std::from_chars(text.data() + i, end, byte, 16).ptr != text.data() + i + 2) {
      throw std::runtime_error(key + "Hex is not an even number of hexadecimal digits");
    }
    path += static_cast<char>(byte);
  }
  return path;
}

JsonFile::JsonFile(const std::string& path, const std::vector<std::string>& inputs) : path_(path) {
  for (const std::string& input : inputs) {
    if (isSameFile(input)) {
      throw std::runtime_error(path + ": an input of this run is not overwritten");
    }
  }
  stream_.open(path, std::ios::binary | std::ios::trunc);
  if (!stream_) throw std::runtime_error(path + ": the file cannot be written");
}

bool JsonFile::isSameFile(const std::string& path) const {
  std::error_code unused;
  return std::filesystem::equivalent(path, path_, unused);
}

void JsonFile::write(const std::string& line) {
  if (stream_ << line << std::flush) {
    ++lines_;
    bytes_ += line.size();
    return;
  }
  stream_.close();
  std::error_code unused;
  if (std::filesystem::is_regular_file(path_, unused)) {
    std::filesystem::resize_file(path_, bytes_, unused);
  }
  throw std::runtime_error(path_ + ": the file cannot be written; it ends after " +
                           counted(lines_, "line"));
}

}  // namespace vsa
