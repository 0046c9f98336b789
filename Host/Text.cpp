#include "Text.h"

#if defined(_WIN32)
#include <windows.h>
#else
#include <iconv.h>
#endif

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <stdexcept>

namespace vsa {
namespace {

struct Range {
  char32_t first;
  char32_t last;
};

// East Asian wide and full-width characters and emoji, in order.
constexpr Range kWide[] = {
    {0x1100, 0x115F},   {0x2E80, 0x303E},   {0x3041, 0x33FF},   {0x3400, 0x4DBF},
    {0x4E00, 0xA4CF},   {0xA960, 0xA97C},   {0xAC00, 0xD7A3},   {0xF900, 0xFAFF},
    {0xFE10, 0xFE19},   {0xFE30, 0xFE6F},   {0xFF01, 0xFF60},   {0xFFE0, 0xFFE6},
    {0x1F300, 0x1F64F}, {0x1F680, 0x1F6FF}, {0x1F900, 0x1F9FF}, {0x20000, 0x3FFFD},
};
// Combining marks, joiners and variation selectors.
constexpr Range kNarrow[] = {
    {0x0300, 0x036F}, {0x200B, 0x200F}, {0x20D0, 0x20FF}, {0xFE00, 0xFE0F}, {0xFEFF, 0xFEFF}};

// Characters that control a terminal: C0, DEL and C1, and those that change the direction of text,
// so that a name could look like another one.
constexpr Range kControls[] = {{0x00, 0x1F},     {0x7F, 0x9F},     {0x061C, 0x061C},
                               {0x200E, 0x200F}, {0x202A, 0x202E}, {0x2066, 0x2069}};

template <std::size_t size>
bool isIn(const Range (&ranges)[size], char32_t codePoint) {
  const Range* range =
      std::lower_bound(std::begin(ranges), std::end(ranges), codePoint,
                       [](const Range& entry, char32_t wanted) { return entry.last < wanted; });
  return range != std::end(ranges) && range->first <= codePoint;
}

unsigned byteAt(std::string_view text, std::size_t position) {
  return static_cast<unsigned char>(text[position]);
}

void appendReplacement(std::string* text) {
  appendUtf8(kReplacement, text);
}

// Length of the invalid character that the text begins with. A lead byte is skipped with its
// invalid second byte, unless the second byte is ASCII, which may be a separate character.
std::size_t invalidLength(std::string_view gbk) {
  const bool isPair =
      gbk.size() > 1 && byteAt(gbk, 0) > 0x80 && byteAt(gbk, 0) < 0xFF && byteAt(gbk, 1) >= 0x80;
  return isPair ? 2 : 1;
}

#if defined(_WIN32)

// Converts character by character with the tables of Windows. They also map bytes to the private
// use area, which GBK does not; such bytes are invalid here.
class GbkConverter {
 public:
  std::string convert(std::string_view gbk) const {
    constexpr UINT kGbk = 936;
    std::string utf8;
    while (!gbk.empty()) {
      const unsigned lead = byteAt(gbk, 0);
      const std::size_t size = lead > 0x80 && lead < 0xFF ? 2 : 1;
      if (size > gbk.size()) {  // an incomplete character at the end
        appendReplacement(&utf8);
        break;
      }
      wchar_t wide = 0;
      const int count = MultiByteToWideChar(kGbk, MB_ERR_INVALID_CHARS, gbk.data(),
                                            static_cast<int>(size), &wide, 1);
      const bool isValid = count == 1 && lead < 0xFF && (wide < 0xE000 || wide > 0xF8FF);
      if (isValid) {
        appendUtf8(wide, &utf8);
      } else {
        appendReplacement(&utf8);
      }
      gbk.remove_prefix(isValid ? size : invalidLength(gbk));
    }
    return utf8;
  }
};

#else

// One iconv descriptor for each thread, because opening is slow.
class GbkConverter {
 public:
  GbkConverter() : descriptor_(iconv_open("UTF-8", "GBK")) {
    // NOLINTNEXTLINE: this is iconv's documented failure value
    if (descriptor_ == reinterpret_cast<iconv_t>(-1)) {
      throw std::runtime_error("the character converter (iconv) does not support GBK");
    }
  }
  ~GbkConverter() { iconv_close(descriptor_); }
  GbkConverter(const GbkConverter&) = delete;
  GbkConverter& operator=(const GbkConverter&) = delete;

  std::string convert(std::string_view gbk) const {
    std::string utf8(gbk.size() * 3, '\0');  // a byte of GBK becomes at most three of UTF-8
    std::string source(gbk);                 // iconv takes a non-const pointer
    char* in = source.data();
    std::size_t inLeft = source.size();
    char* out = utf8.data();
    std::size_t outLeft = utf8.size();
    iconv(descriptor_, nullptr, nullptr, nullptr, nullptr);
    while (inLeft > 0 &&
           iconv(descriptor_, &in, &inLeft, &out, &outLeft) == static_cast<std::size_t>(-1)) {
      // An incomplete character at the end is skipped.
      const std::size_t skip = errno == EINVAL ? inLeft : invalidLength({in, inLeft});
      std::string mark;
      appendReplacement(&mark);
      out = std::copy(mark.begin(), mark.end(), out);
      outLeft -= mark.size();
      in += skip;
      inLeft -= skip;
    }
    utf8.resize(utf8.size() - outLeft);
    return utf8;
  }

 private:
  iconv_t descriptor_;
};

#endif

}  // namespace

char32_t nextCodePoint(std::string_view text, std::size_t* position) {
  const unsigned lead = byteAt(text, (*position)++);
  if (lead < 0x80) return lead;
  if (lead < 0xC2 || lead > 0xF4) return kReplacement;
  const int following = lead < 0xE0 ? 1 : lead < 0xF0 ? 2 : 3;
  char32_t codePoint = lead & (0x3FU >> following);
  for (int i = 0; i < following; ++i) {
    // The second byte has a narrower range if the character could otherwise be overlong, half of a
    // UTF-16 pair, or beyond U+10FFFF.
    unsigned low = 0x80;
    unsigned high = 0xBF;
    if (i == 0) {
      if (lead == 0xE0) low = 0xA0;
      if (lead == 0xED) high = 0x9F;
      if (lead == 0xF0) low = 0x90;
      if (lead == 0xF4) high = 0x8F;
    }
    if (*position == text.size()) return kReplacement;
    const unsigned next = byteAt(text, *position);
    if (next < low || next > high) return kReplacement;
    codePoint = codePoint << 6 | (next & 0x3F);
    ++*position;
  }
  return codePoint;
}

void appendUtf8(char32_t codePoint, std::string* text) {
  const auto add = [text](char32_t byte) { text->push_back(static_cast<char>(byte)); };
  if (codePoint < 0x80) {
    add(codePoint);
    return;
  }
  if (codePoint < 0x800) {
    add(0xC0 | codePoint >> 6);
  } else {
    if (codePoint < 0x10000) {
      add(0xE0 | codePoint >> 12);
    } else {
      add(0xF0 | codePoint >> 18);
      add(0x80 | (codePoint >> 12 & 0x3F));
    }
    add(0x80 | (codePoint >> 6 & 0x3F));
  }
  add(0x80 | (codePoint & 0x3F));
}

std::string repairUtf8(std::string_view text) {
  std::string valid;
  valid.reserve(text.size());
  for (std::size_t position = 0; position < text.size();) {
    appendUtf8(nextCodePoint(text, &position), &valid);
  }
  return valid;
}

std::string printable(std::string_view text) {
  std::string shown;
  for (std::size_t position = 0; position < text.size();) {
    const char32_t codePoint = nextCodePoint(text, &position);
    appendUtf8(isIn(kControls, codePoint) ? kReplacement : codePoint, &shown);
  }
  return shown;
}

std::string printableLines(std::string_view text) {
  std::string shown;
  for (std::size_t start = 0; start < text.size();) {
    const std::size_t end = text.find('\n', start);
    shown += printable(text.substr(start, end - start));
    if (end == std::string_view::npos) break;
    shown += '\n';
    start = end + 1;
  }
  return shown;
}

std::string gbkToUtf8(std::string_view gbk) {
  thread_local const GbkConverter converter;
  return converter.convert(gbk);
}

int displayWidth(std::string_view utf8) {
  int width = 0;
  for (std::size_t position = 0; position < utf8.size();) {
    const char32_t codePoint = nextCodePoint(utf8, &position);
    width += isIn(kNarrow, codePoint) ? 0 : isIn(kWide, codePoint) ? 2 : 1;
  }
  return width;
}

}  // namespace vsa
