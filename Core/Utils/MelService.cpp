#include "Utils/MelService.h"

#include <json/json.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <new>
#include <sstream>
#include <string_view>
#include <utility>

#include "Utils/Log.h"
#include "Utils/PlainReply.h"

namespace TolCompatibleLib {
namespace {

/// A plain reply takes up to 24 bytes per value while it is read, any other reply about 120 bytes
/// and a microsecond.
constexpr std::size_t kMaxPlainValues = std::size_t{1} << 22;
constexpr std::size_t kMaxValues = std::size_t{1} << 20;

/// At least the number of values in JSON: every value but the first follows a comma or is the first
/// in an array or object. Arrays and objects are counted where they end; those that do not end are
/// few, because jsoncpp limits the depth.
std::size_t countValues(std::string_view text) {
  return 1 +
         static_cast<std::size_t>(std::ranges::count(text, ',') + std::ranges::count(text, ']') +
                                  std::ranges::count(text, '}'));
}

/// The value of `key` in the reply, 0 if it is missing; nullopt, after one "[E]" line, if it is not
/// a valid count.
std::optional<std::size_t> countIn(const Json::Value& reply, const char* key,
                                   const std::source_location& where) {
  const Json::Value& value = reply[key];
  if (value.isNull()) return 0;
  if (!value.isInt() || value.asInt() < 0 || value.asInt() > kMaxSpectrogramCount) {
    constexpr std::size_t kMaxShown = 40;  // a reply may hold anything
    const bool isShown = value.isConvertibleTo(Json::stringValue);
    logError(std::string(key) + " out of range:" +
                 (isShown ? value.asString().substr(0, kMaxShown) : std::string("no number")),
             where);
    return std::nullopt;
  }
  return static_cast<std::size_t>(value.asInt());
}

/// The rows of a spectrogram, none if it is null; nullopt, after one "[E]" line, if it is not an
/// array of arrays of finite numbers.
std::optional<MelSpectrogram> rowsIn(const Json::Value& spectrogram, std::size_t steps,
                                     const std::source_location& where) {
  MelSpectrogram rows;
  bool isTable = spectrogram.isArray() || spectrogram.isNull();
  for (Json::ArrayIndex r = 0; isTable && r < spectrogram.size(); ++r) {
    const Json::Value& values = spectrogram[r];
    isTable = values.isArray();
    std::vector<float> row;
    if (isTable) row.reserve(std::min<std::size_t>(steps, values.size()));
    for (Json::ArrayIndex i = 0; isTable && i < values.size(); ++i) {
      const float number = values[i].isNumeric() ? values[i].asFloat() : NAN;
      isTable = std::isfinite(number);
      if (isTable) row.push_back(number);
    }
    rows.push_back(std::move(row));
  }
  if (isTable) return rows;
  logError("mel_spec is no array of arrays of numbers", where);
  return std::nullopt;
}

}  // namespace

void Base64Encode(const std::uint8_t* bytes, std::size_t count, std::string& text) {
  constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::size_t position = text.size();
  text.resize(position + (count + 2) / 3 * 4);
  const auto put = [&](std::uint32_t sixBits) { text[position++] = kAlphabet[sixBits & 63U]; };
  std::size_t i = 0;
  for (; i + 2 < count; i += 3) {
    const std::uint32_t group =
        std::uint32_t{bytes[i]} << 16 | std::uint32_t{bytes[i + 1]} << 8 | bytes[i + 2];
    put(group >> 18);
    put(group >> 12);
    put(group >> 6);
    put(group);
  }
  if (i == count) return;
  const bool isPair = i + 1 < count;
  const std::uint32_t group =
      std::uint32_t{bytes[i]} << 16 | (isPair ? std::uint32_t{bytes[i + 1]} << 8 : 0U);
  put(group >> 18);
  put(group >> 12);
  if (isPair) put(group >> 6);
  std::fill(text.begin() + static_cast<std::ptrdiff_t>(position), text.end(), '=');
}

std::string spectrogramRequest(const VsaFrame& frame) try {
  std::string pcm;
  Base64Encode(frame.audioData, static_cast<std::size_t>(frame.audioFrameSize), pcm);
  Json::Value request;
  request["pts"] = Json::Int64{frame.pts};
  request["audio_frame_count"] = Json::Int64{frame.audioFrameCount};
  request["audio_frame_max_size"] = frame.audioFrameMaxSize;
  request["audio_frame_size"] = frame.audioFrameSize;
  request["audio_sample_rate"] = frame.audioSampleRate;
  request["audio_nb_samples"] = frame.audioNbSamples;
  request["audio_sample_fmt"] = frame.audioSampleFmt;
  request["audio_sample_fmt_byte_num"] = frame.audioSampleFmtByteNum;
  request["audio_pcm_base64"] = pcm;
  // Not toStyledString: if memory runs out, its stream silently drops the rest of the request.
  std::ostringstream text;
  text.exceptions(std::ios::badbit);
  const std::unique_ptr<Json::StreamWriter> writer(Json::StreamWriterBuilder().newStreamWriter());
  writer->write(request, &text);
  text << '\n';
  return text.str();
} catch (const Json::Exception&) {
  throw std::bad_alloc();  // jsoncpp throws its own exception if memory runs out
}

std::optional<MelSpectrogram> parseSpectrogram(const std::string& text,
                                               std::source_location where) {
  const std::size_t values = countValues(text);
  if (values <= kMaxPlainValues) {
    if (std::optional<MelSpectrogram> rows = parsePlainReply(text)) return rows;
  }
  if (values <= kMaxValues) return parseAnyReply(text, where);
  logError("reply takes too much memory,bytes=" + std::to_string(text.size()), where);
  return std::nullopt;
}

std::optional<MelSpectrogram> parseAnyReply(const std::string& text, std::source_location where) {
  Json::Value reply;
  Json::String problems;
  Json::CharReaderBuilder settings;
  settings["collectComments"] = false;  // comments are skipped; keeping them would take memory
  const std::unique_ptr<Json::CharReader> reader(settings.newCharReader());
  if (!reader->parse(text.data(), text.data() + text.size(), &reply, &problems) ||
      !problems.empty()) {
    return std::nullopt;
  }
  if (!reply.isObject() || !reply["code"].isInt() || !reply["msg"].isString()) {
    logError("parse error", where);
    return std::nullopt;
  }
  if (constexpr int kSuccess = 1000; reply["code"].asInt() != kSuccess) {
    logError("code error, code=" + std::to_string(reply["code"].asInt()) +
                 ",msg=" + reply["msg"].asString(),
             where);
    return std::nullopt;
  }
  if (!countIn(reply, "mels", where)) return std::nullopt;
  const std::optional<std::size_t> steps = countIn(reply, "time_steps", where);
  if (!steps) return std::nullopt;
  return rowsIn(reply["mel_spec"], *steps, where);
}

}  // namespace TolCompatibleLib
