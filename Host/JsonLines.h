// JSON Lines: one JSON value per line, written to a string or to a file.
#pragma once

#include <json/json.h>

#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

namespace vsa {

/// The value in one line of UTF-8, including the line break.
std::string jsonLine(const Json::Value& value);

/// The value in one line without a line break.
std::string jsonText(const Json::Value& value);

/// The float as the shortest decimal that is parsed as the same float; null if it is not finite.
Json::Value jsonNumber(float value);

/// Stores a path under `key`, with U+FFFD for bytes that are not UTF-8. If there are such bytes,
/// `key` + "Hex" holds all bytes of the path in hexadecimal digits, so that paths stay distinct.
void setPath(Json::Value* object, const std::string& key, const std::string& path);

/// The bytes of a path that setPath() stored. Throws std::runtime_error if it is missing or not
/// valid.
std::string pathIn(const Json::Value& object, const std::string& key);

/// A file of JSON Lines, flushed after each line.
class JsonFile {
 public:
  /// Creates the file or truncates it. Throws std::runtime_error if it cannot be written or is one
  /// of `inputs`, the files that the run reads.
  JsonFile(const std::string& path, const std::vector<std::string>& inputs);

  /// Whether `path` leads to the same file.
  bool isSameFile(const std::string& path) const;

  /// Throws std::runtime_error if the line cannot be written; the file then ends with the line
  /// before.
  void write(const std::string& line);

 private:
  std::string path_;
  std::ofstream stream_;
  std::int64_t lines_ = 0;
  std::uintmax_t bytes_ = 0;  // of the lines written so far
};

}  // namespace vsa
