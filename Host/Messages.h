// Helpers for messages: quoting, counting, suggestions, and wrapping of lines.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vsa {

/// The text in double quotes, printable; only the first 200 bytes of a longer one.
std::string inQuotes(const std::string& text);

/// "1 object", "2 objects", "3 classes".
std::string counted(std::int64_t count, const std::string& noun);

/// The texts with the separator between them.
std::string joined(const std::vector<std::string>& texts, const char* separator);

/// "640 x 480"; a negative side is dynamic and becomes "any".
std::string sizeText(std::int64_t width, std::int64_t height);

/// The number with that many digits after the decimal point.
std::string fixed(double value, int digits);

/// "; did you mean ...?" with the candidate most similar to `given`; empty if none is similar.
std::string suggestion(const std::string& given, const std::vector<std::string>& candidates);

/// The text wrapped at spaces to lines of at most `columns` columns (0: not wrapped). Lines after
/// the first are indented by `indent` spaces. A longer word, such as a path, is not broken.
std::string wrapped(std::string_view utf8, int indent, int columns);

/// An exception's message as one sentence: without line breaks and without the lines that only name
/// the throwing source file; truncated to 400 bytes.
std::string oneLine(std::string_view message);

}  // namespace vsa
