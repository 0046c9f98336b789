// Text encodings: GBK to UTF-8, repairing UTF-8, and the width of text on a terminal.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace vsa {

/// U+FFFD, which replaces bytes that are not a character.
inline constexpr char32_t kReplacement = 0xFFFD;

/// Returns the code point at `*position`, which must be less than the size of `text`, and advances
/// `*position` to the next one. Returns kReplacement for an invalid byte, or for the longest
/// sequence of bytes that could begin a character but does not complete it.
char32_t nextCodePoint(std::string_view text, std::size_t* position);

/// Appends the code point as UTF-8.
void appendUtf8(char32_t codePoint, std::string* text);

/// The text with kReplacement for bytes that are not UTF-8.
std::string repairUtf8(std::string_view text);

/// The text as valid UTF-8 in which kReplacement replaces control characters and characters that
/// change the direction of text, so that a name cannot move the cursor of a terminal.
std::string printable(std::string_view text);

/// The same, but line breaks are kept.
std::string printableLines(std::string_view text);

/// Converts GBK (code page 936) to UTF-8, with kReplacement for bytes that are not GBK and for an
/// incomplete character at the end. Throws std::runtime_error if iconv does not support GBK.
std::string gbkToUtf8(std::string_view gbk);

/// Terminal columns of the text: two for a wide character, none for a combining one.
int displayWidth(std::string_view utf8);

}  // namespace vsa
