// Text at the edges of the host: from the library's GBK to UTF-8, UTF-8 that is always valid, and
// the width of text on a terminal.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace vsa {

/// What stands for bytes that are no character.
inline constexpr char32_t kReplacement = 0xFFFD;

/// Reads one code point at `*position`, which must lie inside `text`, and moves on to the next one.
/// Invalid bytes give kReplacement, once for each longest run that could have begun a character.
char32_t nextCodePoint(std::string_view text, std::size_t* position);

void appendUtf8(char32_t codePoint, std::string* text);

/// The text with U+FFFD in place of bytes that are not UTF-8.
std::string repairUtf8(std::string_view text);

/// The text as it may be shown to people: valid, and without control characters, so that no class
/// name can move the cursor of a terminal.
std::string printable(std::string_view text);

/// GBK (code page 936) to UTF-8, with U+FFFD for what is not GBK and for half a character at the
/// end. Throws std::runtime_error where iconv has no GBK.
std::string gbkToUtf8(std::string_view gbk);

/// Terminal columns that the text takes: two for a wide character, none for a combining one.
int displayWidth(std::string_view utf8);

/// The text in lines of at most `columns` (0: in one line), broken at spaces; later lines are set
/// in by `indent` spaces. A word that is longer, such as a path, stays whole.
std::string wrapped(std::string_view utf8, int indent, int columns);

/// One sentence out of an exception's message: no line breaks, no lines that only say where it was
/// thrown, not longer than a paragraph.
std::string oneLine(std::string_view message);

}  // namespace vsa
