#include "Utils/PaddleOcrDictionary.h"

#include <array>
#include <cstdint>
#include <iterator>

namespace TolCompatibleLib {
namespace {

/// GBK codes of entries 1 to 6623: one byte below 0x100, else two, the high one first.
constexpr std::uint16_t kCodes[] = {
#include "Utils/PaddleOcrKeys.inc"
};

constexpr std::string_view kBlank = "blank";

/// The codes as bytes, so that entries can be viewed in place.
constexpr auto kBytes = [] {
  std::array<std::array<char, 2>, std::size(kCodes)> bytes{};
  for (std::size_t i = 0; i < std::size(kCodes); ++i) {
    const std::uint16_t code = kCodes[i];
    if (code < 0x100) {
      bytes[i] = {static_cast<char>(code), '\0'};
    } else {
      bytes[i] = {static_cast<char>(code >> 8), static_cast<char>(code & 0xFF)};
    }
  }
  return bytes;
}();

}  // namespace

std::size_t CharacterDictionary::size() const {
  return builtIn_ ? std::size(kCodes) + 1 : entries_.size();
}

std::string_view CharacterDictionary::operator[](std::size_t index) const {
  if (!builtIn_) return entries_[index];
  if (index == 0) return kBlank;
  const std::array<char, 2>& bytes = kBytes[index - 1];
  return {bytes.data(), bytes[1] == '\0' ? std::size_t{1} : std::size_t{2}};
}

}  // namespace TolCompatibleLib
