#include "Utils/PlainReply.h"

#include <simdjson.h>

#include <algorithm>
#include <array>
#include <cfloat>
#include <cmath>
#include <new>

namespace TolCompatibleLib {
namespace {

namespace dom = simdjson::dom;

// On first use, simdjson chooses the code for the processor. Its functions are noexcept but
// allocate memory then, so without memory they would end the program. The choice is therefore made
// when the library is loaded.
[[maybe_unused]] const bool isImplementationChosen = []() noexcept {
  return !simdjson::get_active_implementation()->name().empty();
}();

/// The value of an integer; nullopt for other elements.
std::optional<std::int64_t> integerIn(const dom::element& element) {
  std::int64_t value = 0;
  if (!element.is_int64() || element.get(value) != simdjson::SUCCESS) return std::nullopt;
  return value;
}

/// The float nearest to a number, as jsoncpp converts it: integers directly, other numbers from
/// double. Returns nullopt if the element is not a number in the range of float.
std::optional<float> floatIn(const dom::element& element) {
  if (const auto integer = integerIn(element)) return static_cast<float>(*integer);
  if (std::uint64_t value = 0; element.is_uint64() && element.get(value) == simdjson::SUCCESS) {
    return static_cast<float>(value);
  }
  double value = 0;
  if (element.get(value) != simdjson::SUCCESS || std::fabs(value) > FLT_MAX) return std::nullopt;
  return static_cast<float>(value);
}

bool isCount(const dom::element& element) {
  const auto count = integerIn(element);
  return count && *count >= 0 && *count <= kMaxSpectrogramCount;
}

std::optional<MelSpectrogram> rowsIn(const dom::element& spectrogram) {
  dom::array table;
  if (spectrogram.get(table) != simdjson::SUCCESS) return std::nullopt;
  MelSpectrogram rows;
  rows.reserve(table.size());
  for (const dom::element line : table) {
    dom::array numbers;
    if (line.get(numbers) != simdjson::SUCCESS) return std::nullopt;
    std::vector<float>& row = rows.emplace_back();
    row.reserve(numbers.size());
    for (const dom::element element : numbers) {
      const auto number = floatIn(element);
      if (!number) return std::nullopt;
      row.push_back(*number);
    }
  }
  return rows;
}

}  // namespace

std::optional<MelSpectrogram> parsePlainReply(std::string_view text) {
  constexpr std::size_t kMaxDepth = 8;
  dom::parser parser;
  dom::element root;
  simdjson::error_code error = parser.allocate(text.size(), kMaxDepth);
  // The parser reads beyond the end of its input, so it copies the text to a longer buffer.
  if (error == simdjson::SUCCESS) {
    error = parser.parse(text.data(), text.size(), /*realloc_if_needed=*/true).get(root);
  }
  if (error == simdjson::MEMALLOC) throw std::bad_alloc();
  dom::object reply;
  if (error != simdjson::SUCCESS || root.get(reply) != simdjson::SUCCESS) return std::nullopt;

  constexpr std::array<std::string_view, 5> kKeys = {"code", "msg", "mels", "time_steps",
                                                     "mel_spec"};
  std::array<std::optional<dom::element>, kKeys.size()> members;
  for (const dom::key_value_pair member : reply) {
    const auto* const key = std::ranges::find(kKeys, member.key);
    if (key == kKeys.end()) continue;
    auto& value = members[static_cast<std::size_t>(key - kKeys.begin())];
    if (value) return std::nullopt;
    value = member.value;
  }
  const auto& [code, message, bands, steps, spectrogram] = members;
  constexpr std::int64_t kSuccess = 1000;
  if (!code || integerIn(*code) != kSuccess || !message || !message->is_string()) {
    return std::nullopt;
  }
  if ((bands && !isCount(*bands)) || (steps && !isCount(*steps)) || !spectrogram) {
    return std::nullopt;
  }
  return rowsIn(*spectrogram);
}

}  // namespace TolCompatibleLib
