// A fast reader for the usual replies of the mel-spectrogram service.
#pragma once

#include <optional>
#include <string_view>

#include "Utils/MelService.h"

namespace TolCompatibleLib {

/// The spectrogram in `text` if it is a plain successful reply: strict JSON, at most a few levels
/// deep, with a "code" of 1000, a string "msg", counts in range and an array of arrays of numbers
/// in the range of float, each key only once. parseAnyReply() returns the same rows, bit for bit.
/// Returns nullopt for every other text, without a log line. Throws std::bad_alloc.
std::optional<MelSpectrogram> parsePlainReply(std::string_view text);

}  // namespace TolCompatibleLib
