// Text encodings: GBK to UTF-8, repairing UTF-8, and the width of text on a terminal.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace vsa {

/// Replaces bytes that are not a character: U+FFFD.
inline constexpr char32_t kReplacement = 0xFFFD;

/// Reads the code point at `*position`, which must be less than the size of `text`, and moves to
/// the next one. Invalid bytes give one kReplacement for each longest run that could begin a
/// character.
char32_t nextCodePoint(std::string_view text, std::size_t* position);

/// Appends the code point as UTF-8.
void appendUtf8(char32_t codePoint, std::string* text);

/// The text with kReplacement for bytes that are not UTF-8.
std::string repairUtf8(std::string_view text);

/// The text as valid UTF-8 without control characters, so that a class name cannot move the cursor
/// of a terminal.
std::string printable(std::string_view text);

/// Converts GBK (code page 936) to UTF-8, with kReplacement for bytes that are not GBK and for half
/// a character at the end. Throws std::runtime_error if iconv does not support GBK.
std::string gbkToUtf8(std::string_view gbk);

/// Terminal columns of the text: two for a wide character, none for a combining one.
int displayWidth(std::string_view utf8);

}  // namespace vsa
