// The characters that a text recognition network knows.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace TolCompatibleLib {

/// Byte strings by class index. Entry 0 stands for the CTC blank and never appears in a text.
class CharacterDictionary {
 public:
  /// The PaddleOCR key list of Chinese, Latin and other characters in GBK (code page 936) with
  /// "blank" in front: 6624 entries of constant data, which need neither start-up time nor a copy.
  /// Characters that GBK does not contain are "?".
  static CharacterDictionary builtIn() { return CharacterDictionary(); }

  /// The host's own list, in the encoding of its choice.
  explicit CharacterDictionary(std::vector<std::string> entries)
      : entries_(std::move(entries)), builtIn_(false) {}

  std::size_t size() const;

  /// Entry `index`, which must be below size(). The view lives as long as the dictionary.
  std::string_view operator[](std::size_t index) const;

 private:
  CharacterDictionary() = default;

  std::vector<std::string> entries_;
  bool builtIn_ = true;
};

}  // namespace TolCompatibleLib
