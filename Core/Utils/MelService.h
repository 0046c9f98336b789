// The protocol of the mel-spectrogram service: the JSON request with the audio of a frame and the
// JSON reply with the spectrogram.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <source_location>
#include <string>
#include <vector>

#include "TolCompatible.h"

namespace TolCompatibleLib {

/// Rows of a spectrogram, one per mel band.
using MelSpectrogram = std::vector<std::vector<float>>;

/// Appends the standard Base64 text (RFC 4648, padded, without line breaks) of `count` bytes.
void Base64Encode(const std::uint8_t* bytes, std::size_t count, std::string& text);

/// The JSON request for the spectrogram of an audio frame, whose audioFrameSize must not be
/// negative and whose audioData must not be null unless the size is 0.
std::string spectrogramRequest(const VsaFrame& frame);

/// The largest "mels" and "time_steps" that a reply may announce.
constexpr int kMaxSpectrogramCount = 1 << 24;

/// The spectrogram in `text`, a reply of the service; no rows if the reply does not contain one.
/// Returns nullopt if the reply is not valid: silently if it is not JSON, otherwise after one "[E]"
/// line with the location `where`; also after one if it holds more than 2^22 values (2^20 if
/// parsePlainReply() does not accept it), which limits the memory that reading it takes. Throws
/// Json::Exception if the reply is nested deeper than jsoncpp reads.
std::optional<MelSpectrogram> parseSpectrogram(
    const std::string& text, std::source_location where = std::source_location::current());

/// The same without a fast path and without a limit.
std::optional<MelSpectrogram> parseAnyReply(
    const std::string& text, std::source_location where = std::source_location::current());

}  // namespace TolCompatibleLib
