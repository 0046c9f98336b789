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

/// The spectrogram in `text`, a reply of the service; no rows if the reply does not contain one.
/// Returns nullopt if the reply is not valid: silently if it is not JSON, otherwise after one "[E]"
/// line with the location `where`. Throws Json::Exception if the reply is nested deeper than
/// jsoncpp reads.
std::optional<MelSpectrogram> parseSpectrogram(
    const std::string& text, std::source_location where = std::source_location::current());

}  // namespace TolCompatibleLib
