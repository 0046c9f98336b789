#include "Utils/PreProcessUtils.h"

#include <json/json.h>
#if defined(_M_X64)
#include <xmmintrin.h>
#endif

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <iterator>
#include <limits>
#include <memory>
#include <new>
#include <numeric>
#include <opencv2/dnn.hpp>
#include <opencv2/imgproc.hpp>
#include <sstream>
#include <string>
#include <utility>

#include "Utils/Log.h"
#include "Utils/Numbers.h"
#include "Utils/Request.h"

namespace TolCompatibleLib {
namespace {

constexpr double kOneOver255 = 0.00392156862745098;
constexpr double kTwoOver255 = 0.00784313725490196;

/// The float that each byte becomes, by channel of the picture.
using ByteTables = std::array<std::array<float, 256>, 3>;

/// One row of 256 pixels whose three channels hold the byte of their column.
cv::Mat everyByte() {
  cv::Mat ramp(1, 256, CV_8UC3);
  for (int i = 0; i < 256; ++i) ramp.at<cv::Vec3b>(0, i) = cv::Vec3b::all(static_cast<uchar>(i));
  return ramp;
}

/// Tables out of a row of 256 three-channel float pixels.
ByteTables tablesOf(const cv::Mat& ramp) {
  ByteTables tables;
  for (int i = 0; i < 256; ++i) {
    const auto& pixel = ramp.at<cv::Vec3f>(0, i);
    for (int c = 0; c < 3; ++c) {
      tables[static_cast<std::size_t>(c)][static_cast<std::size_t>(i)] = pixel[c];
    }
  }
  return tables;
}

const ByteTables& unitTables() {
  static const ByteTables tables = [] {
    const cv::Mat blob = cv::dnn::blobFromImage(everyByte(), kOneOver255, cv::Size(256, 1),
                                                cv::Scalar(), /*swapRB=*/true, /*crop=*/false);
    ByteTables made;
    for (auto& table : made) std::copy_n(blob.ptr<float>(), 256, table.begin());
    return made;
  }();
  return tables;
}

const ByteTables& textDetectorTables() {
  static const ByteTables tables = [] {
    cv::Mat ramp;
    everyByte().convertTo(ramp, CV_32FC3, kOneOver255);
    cv::subtract(ramp, cv::Scalar(0.485, 0.456, 0.406), ramp);
    cv::divide(ramp, cv::Scalar(0.229, 0.224, 0.225), ramp);
    return tablesOf(ramp);
  }();
  return tables;
}

const ByteTables& textLineTables() {
  static const ByteTables tables = [] {
    cv::Mat ramp;
    everyByte().convertTo(ramp, CV_32FC3, kTwoOver255);
    cv::subtract(ramp, cv::Scalar::all(1.0), ramp);
    return tablesOf(ramp);
  }();
  return tables;
}

/// (byte / 255 - mean) / deviation for each channel in its own.
ByteTables normalisedTables(const std::array<float, 3>& means,
                            const std::array<float, 3>& deviations) {
  ByteTables tables;
  for (std::size_t c = 0; c < 3; ++c) {
    for (std::size_t i = 0; i < 256; ++i) {
      tables[c][i] = (static_cast<float>(i) / 255.0F - means[c]) / deviations[c];
    }
  }
  return tables;
}

const ByteTables& classifierTables() {
  // Deliberate: mean and deviation of red go to blue and the other way round.
  static const ByteTables tables =
      normalisedTables({0.485F, 0.456F, 0.406F}, {0.229F, 0.224F, 0.225F});
  return tables;
}

const ByteTables& fittedTables() {
  static const ByteTables tables = [] {
    cv::Mat ramp;
    everyByte().convertTo(ramp, CV_32FC3, kOneOver255);
    return tablesOf(ramp);
  }();
  return tables;
}

const ByteTables& fittedNormalisedTables() {
  static const ByteTables tables = [] {
    cv::Mat ramp;
    everyByte().convertTo(ramp, CV_32FC3, kOneOver255);
    cv::subtract(ramp, cv::Scalar(0.406F, 0.456F, 0.485F), ramp);
    cv::divide(ramp, cv::Scalar(0.225F, 0.224F, 0.229F), ramp);
    return tablesOf(ramp);
  }();
  return tables;
}

const ByteTables& ocrTables() {
  static const ByteTables tables = [] {
    constexpr std::array<float, 3> kFactors = {0.017429195F, 0.017507004F, 0.017124755F};
    constexpr std::array<float, 3> kOffsets = {1.8044444F, 2.0357141F, 2.117904F};
    ByteTables made;
    for (std::size_t c = 0; c < 3; ++c) {
      for (std::size_t i = 0; i < 256; ++i) {
        made[c][i] = static_cast<float>(i) * kFactors[c] - kOffsets[c];
      }
    }
    return made;
  }();
  return tables;
}

/// Which channel of the picture goes into planes 0, 1 and 2.
using PlaneOrder = std::array<std::size_t, 3>;
constexpr PlaneOrder kRedFirst = {2, 1, 0};
constexpr PlaneOrder kAsStored = {0, 1, 2};

/// Asks memory for what lies at `place`, and goes on without it.
void prefetch([[maybe_unused]] const void* place) {
#if defined(__GNUC__)
  __builtin_prefetch(place, /*write=*/0, /*locality=*/3);
#elif defined(_M_X64)
  _mm_prefetch(static_cast<const char*>(place), _MM_HINT_T0);
#endif
}

/// So many pixels are written at once: a store for each float, to three planes by turns, is what
/// takes the time.
constexpr std::size_t kPixels = 4;

/// Writes a row of pixels through `tables` to the same places of three planes. \param pixelAt where
/// the bytes of pixel x are. \param ahead how many bytes after them lies what is wanted soon.
template <PlaneOrder order, class PixelAt>
void putPixels(std::size_t count, PixelAt pixelAt, std::ptrdiff_t ahead, const ByteTables& tables,
               float* row, std::size_t plane) {
  std::size_t x = 0;
  for (; x + kPixels <= count; x += kPixels) {
    std::array<const uchar*, kPixels> pixels;
    for (std::size_t i = 0; i < kPixels; ++i) pixels[i] = pixelAt(x + i);
    prefetch(pixels.front() + ahead);
    for (std::size_t p = 0; p < 3; ++p) {
      std::array<float, kPixels> values;
      for (std::size_t i = 0; i < kPixels; ++i) values[i] = tables[order[p]][pixels[i][order[p]]];
      std::memcpy(row + p * plane + x, values.data(), sizeof values);
    }
  }
  for (; x < count; ++x) {
    for (std::size_t p = 0; p < 3; ++p) {
      row[p * plane + x] = tables[order[p]][pixelAt(x)[order[p]]];
    }
  }
}

/// Writes every pixel through `tables` into three planes of `rowLength` floats a row; floats right
/// of the picture are 0.
template <PlaneOrder order>
void fillPlanes(const cv::Mat& image, const ByteTables& tables, float* planes, int rowLength) {
  const auto cols = static_cast<std::size_t>(image.cols);
  const auto stride = static_cast<std::size_t>(rowLength);
  const std::size_t plane = stride * static_cast<std::size_t>(image.rows);
  for (int y = 0; y < image.rows; ++y) {
    const uchar* const pixels = image.ptr<uchar>(y);
    float* const row = planes + static_cast<std::size_t>(y) * stride;
    const auto pixelAt = [pixels](std::size_t x) { return pixels + 3 * x; };
    putPixels<order>(cols, pixelAt, 0, tables, row, plane);
    for (std::size_t p = 0; p < 3; ++p) {
      std::fill(row + p * plane + cols, row + p * plane + stride, 0.0F);
    }
  }
}

/// How a picture goes into a network's input.
struct Fit {
  cv::Size scaled;  ///< What it is scaled to, aspect ratio kept.
  float scale;      ///< Takes network pixels to frame pixels.
};

std::string sizeText(std::int64_t width, std::int64_t height) {
  return "width=" + std::to_string(width) + ",height=" + std::to_string(height);
}

std::optional<Fit> fitInto(cv::Size frame, cv::Size input, std::source_location where) {
  const float ratioX = static_cast<float>(input.width) / static_cast<float>(frame.width);
  const float ratioY = static_cast<float>(input.height) / static_cast<float>(frame.height);
  const float ratio = ratioX <= ratioY ? ratioX : ratioY;
  // From 2^23 pixels on the product can be rounded up past the input.
  const cv::Size scaled(
      std::min(truncateToInt(static_cast<float>(frame.width) * ratio), input.width),
      std::min(truncateToInt(static_cast<float>(frame.height) * ratio), input.height));
  if (scaled.width < 1 || scaled.height < 1) {
    logError("frame leaves no pixel in the network input," + sizeText(frame.width, frame.height) +
                 ",input_width=" + std::to_string(input.width) +
                 ",input_height=" + std::to_string(input.height),
             where);
    return std::nullopt;
  }
  // Deliberate: the longer side over the input's height, whichever side limited the scaling. So the
  // factor undoes the scaling for square inputs, and for others only where the height was the limit
  // and is the longer side.
  return Fit{scaled, static_cast<float>(std::max(frame.width, frame.height)) /
                         static_cast<float>(input.height)};
}

/// Which of `length` pixels cv::resize takes for each of `scaled` ones by nearest-neighbour
/// sampling: its own answer for a row of positions, so that it is right for any OpenCV.
std::vector<int> sampledPositions(int length, int scaled) {
  std::vector<int> positions(static_cast<std::size_t>(length));
  std::iota(positions.begin(), positions.end(), 0);
  std::vector<int> sampled(static_cast<std::size_t>(scaled));
  cv::Mat row(1, scaled, CV_32SC1, sampled.data());
  cv::resize(cv::Mat(1, length, CV_32SC1, positions.data()), row, row.size(), 0, 0,
             cv::INTER_NEAREST);
  return sampled;
}

/// Reads one byte of every cache line of a region. The inference before has pushed the frame out of
/// the processor's caches; asked for all lines at once, memory brings them in a fraction of the
/// time that it takes to wait for one row after the other.
void fetch(const cv::Mat& region) {
  if (region.empty()) return;
  constexpr std::ptrdiff_t kLine = 64;
  constexpr std::ptrdiff_t kMost = 256 << 10;  // more would push itself out
  const std::ptrdiff_t rowBytes = 3 * std::ptrdiff_t{region.cols};
  for (int y = 0; y < region.rows && y * rowBytes < kMost; ++y) {
    const volatile uchar* const row = region.ptr<uchar>(y);
    for (std::ptrdiff_t x = 0; x < rowBytes; x += kLine) static_cast<void>(row[x]);
    static_cast<void>(row[rowBytes - 1]);
  }
}

/// Pixels of a picture, by nearest-neighbour sampling, and where they go in a network's input.
struct Sampling {
  std::vector<int> columns;
  std::vector<int> rows;
  cv::Point at;  ///< Where the first of them goes.

  /// Row y of `image`, and how many bytes after it the row lies that is wanted two rows later: time
  /// enough for memory to bring it.
  std::pair<const uchar*, std::ptrdiff_t> row(const cv::Mat& image, std::size_t y) const {
    constexpr std::size_t kAhead = 2;
    const uchar* const pixels = image.ptr<uchar>(rows[y]);
    return {pixels, image.ptr<uchar>(rows[std::min(y + kAhead, rows.size() - 1)]) - pixels};
  }
};

/// Writes the sampled pixels through `tables` into three planes of `size`, red first, and the byte
/// `background` round them, if there is one.
void samplePlanes(const cv::Mat& image, const Sampling& sampling, cv::Size size,
                  const ByteTables& tables, std::optional<uchar> background, float* planes) {
  const auto width = static_cast<std::size_t>(size.width);
  const auto left = static_cast<std::size_t>(sampling.at.x);
  const auto above = static_cast<std::size_t>(sampling.at.y) * width;
  const std::size_t plane = width * static_cast<std::size_t>(size.height);
  for (std::size_t p = 0; background && p < 3; ++p) {
    float* const begin = planes + p * plane;
    std::fill(begin, begin + above, tables[2 - p][*background]);
    std::fill(begin + above + sampling.rows.size() * width, begin + plane,
              tables[2 - p][*background]);
  }
  const std::vector<int>& columns = sampling.columns;
  float* row = planes + above;
  for (std::size_t y = 0; y < sampling.rows.size(); ++y, row += width) {
    // Enlarged pictures have rows that are the same.
    const bool isRepeated = y > 0 && sampling.rows[y] == sampling.rows[y - 1];
    if (isRepeated) {
      for (std::size_t p = 0; p < 3; ++p) {
        std::copy_n(row + p * plane - width, width, row + p * plane);
      }
      continue;
    }
    const auto [pixels, ahead] = sampling.row(image, y);
    const auto pixelAt = [pixels = pixels, column = columns.data()](std::size_t x) {
      return pixels + 3 * static_cast<std::ptrdiff_t>(column[x]);
    };
    putPixels<kRedFirst>(columns.size(), pixelAt, ahead, tables, row + left, plane);
    for (std::size_t p = 0; background && p < 3; ++p) {
      float* const begin = row + p * plane;
      std::fill(begin, begin + left, tables[2 - p][*background]);
      std::fill(begin + left + columns.size(), begin + width, tables[2 - p][*background]);
    }
  }
}

/// Whether `padding` is there already. It is from now on: the caller writes it without a throw.
bool isHeld(Padding* held, const Padding& padding) {
  return held != nullptr && std::exchange(*held, padding) == padding;
}

/// Writes `region`, scaled to the width of the input and centred on a background, as three planes.
void fillFittedPlanes(const cv::Mat& region, cv::Size size, const ByteTables& tables,
                      uchar background, float* planes) {
  // A region that holds nothing, before scaling or after it, cannot be resized.
  CV_Assert(!region.empty());
  fetch(region);
  // Deliberate: the width alone, so a region can become higher than the input; there is no room for
  // a border then.
  const float scale =
      static_cast<float>(size.width) / static_cast<float>(std::max(region.cols, region.rows));
  const cv::Size scaled(truncateToInt(std::round(static_cast<float>(region.cols) * scale)),
                        truncateToInt(std::round(static_cast<float>(region.rows) * scale)));
  const cv::Size border = size - scaled;
  CV_Assert(!scaled.empty() && border.width >= 0 && border.height >= 0);
  samplePlanes(region,
               {sampledPositions(region.cols, scaled.width),
                sampledPositions(region.rows, scaled.height),
                {border.width / 2, border.height / 2}},
               size, tables, background, planes);
}

/// Copies the pixels at `columns`, in ascending order, of a row of `width` pixels of three bytes.
/// \param ahead as for putPixels.
void copyPixels(const uchar* pixels, std::ptrdiff_t ahead, int width,
                const std::vector<int>& columns, uchar* out) {
  // Four bytes are copied faster than three. The fourth is the next pixel's, on both sides, so
  // there has to be one.
  std::size_t x = 0;
  for (; x + 1 < columns.size() && columns[x] < width - 1; ++x) {
    const uchar* const from = pixels + 3 * static_cast<std::ptrdiff_t>(columns[x]);
    if (x % kPixels == 0) prefetch(from + ahead);
    std::memcpy(out + 3 * x, from, 4);
  }
  for (; x < columns.size(); ++x) {
    std::memcpy(out + 3 * x, pixels + 3 * static_cast<std::ptrdiff_t>(columns[x]), 3);
  }
}

}  // namespace

std::optional<cv::Mat> imageOf(const VsaFrame* frame, std::source_location where) {
  if (frame == nullptr) {
    logError("frame is null", where);
    return std::nullopt;
  }
  if (frame->kind != kVsaImageFrame) return std::nullopt;
  if (frame->data == nullptr) {
    logError("frame data is null", where);
    return std::nullopt;
  }
  // Both sides below 2^32, so the product of the first two cannot overflow 64 bits.
  constexpr std::uint64_t kMostPixels = std::numeric_limits<std::int32_t>::max() / 3;
  const std::uint64_t pixels = std::uint64_t{frame->width} * frame->height;
  if (pixels == 0 || pixels > kMostPixels) {
    logError((pixels == 0 ? "frame has no pixels," : "frame is too large,") +
                 sizeText(frame->width, frame->height),
             where);
    return std::nullopt;
  }
  return cv::Mat(static_cast<int>(frame->height), static_cast<int>(frame->width), CV_8UC3,
                 frame->data);
}

std::optional<Letterbox> letterbox(const cv::Mat& image, cv::Size inputSize, void* pixels,
                                   Padding* held, std::source_location where) {
  const std::optional<Fit> fit = fitInto(image.size(), inputSize, where);
  if (!fit) return std::nullopt;
  cv::Mat canvas = pixels == nullptr ? cv::Mat(inputSize, image.type())
                                     : cv::Mat(inputSize, image.type(), pixels);
  const Sampling sampling{sampledPositions(image.cols, fit->scaled.width),
                          sampledPositions(image.rows, fit->scaled.height),
                          {}};
  const bool isPadded = isHeld(held, {pixels, inputSize, fit->scaled});
  for (std::size_t y = 0; y < sampling.rows.size(); ++y) {
    uchar* const row = canvas.ptr<uchar>(static_cast<int>(y));
    const auto [source, ahead] = sampling.row(image, y);
    copyPixels(source, ahead, image.cols, sampling.columns, row);
    if (!isPadded) std::fill(row + 3 * sampling.columns.size(), row + canvas.step[0], uchar{0});
  }
  if (!isPadded) canvas.rowRange(fit->scaled.height, canvas.rows).setTo(cv::Scalar::all(0));
  return Letterbox{canvas, fit->scale};
}

std::optional<float> letterboxPlanes(const cv::Mat& image, cv::Size inputSize, float* planes,
                                     Padding* held, std::source_location where) {
  const std::optional<Fit> fit = fitInto(image.size(), inputSize, where);
  if (!fit) return std::nullopt;
  const Sampling sampling{sampledPositions(image.cols, fit->scaled.width),
                          sampledPositions(image.rows, fit->scaled.height),
                          {}};
  const bool isPadded = isHeld(held, {planes, inputSize, fit->scaled});
  samplePlanes(image, sampling, inputSize, unitTables(),
               isPadded ? std::nullopt : std::optional<uchar>(0), planes);
  return fit->scale;
}

cv::Size textInputSize(cv::Size frame, std::uint32_t limit) {
  const int longest = std::max(frame.width, frame.height);
  const float ratio = static_cast<std::uint32_t>(longest) > limit
                          ? static_cast<float>(limit) / static_cast<float>(longest)
                          : 1.0F;
  const auto side = [ratio](int length) {
    const int shrunk = truncateToInt(static_cast<float>(length) * ratio);
    return std::max((shrunk + 31) / 32 * 32, 32);
  };
  return {side(frame.width), side(frame.height)};
}

void fillTextPlanes(const cv::Mat& image, cv::Size size, float* planes) {
  cv::Mat resized;
  cv::resize(image, resized, size, 0, 0, cv::INTER_LINEAR);
  // Deliberate: the usual statistics of red, green and blue go to the channels as stored, blue
  // first.
  fillPlanes<kAsStored>(resized, textDetectorTables(), planes, size.width);
}

void PrepareTextLine(const cv::Mat& region, cv::Size size, float* planes) {
  fetch(region);
  const float width = std::ceil(static_cast<float>(size.height) * static_cast<float>(region.cols) /
                                static_cast<float>(region.rows));
  cv::Mat line;
  cv::resize(region, line, {std::min(truncateToInt(width), size.width), size.height}, 0, 0,
             cv::INTER_LINEAR);
  fillPlanes<kAsStored>(line, textLineTables(), planes, size.width);
}

cv::Mat regionOf(const cv::Mat& image, const VsaObject& object) {
  // OpenCV refuses a region outside the picture, but adds place and size without a look at
  // overflow: a region too long for an integer is cut to the longest one, which lies outside all
  // the same.
  const auto length = [](int from, int to) {
    const std::int64_t wanted = std::int64_t{to} - from;
    const std::int64_t most = std::int64_t{std::numeric_limits<int>::max()} - std::max(from, 0);
    return static_cast<int>(std::clamp(wanted, std::int64_t{-1}, most));
  };
  return image(cv::Rect(object.left, object.top, length(object.left, object.right),
                        length(object.top, object.bottom)));
}

void fillClassifierPlanes(const cv::Mat& region, cv::Size size, float* planes) {
  fetch(region);
  cv::Mat resized;
  cv::resize(region, resized, size, 0, 0, cv::INTER_LINEAR);
  fillPlanes<kRedFirst>(resized, classifierTables(), planes, size.width);
}

void FitToInputNormalized(const cv::Mat& region, cv::Size size, float* planes) {
  fillFittedPlanes(region, size, fittedNormalisedTables(), 114, planes);
}

void FitToInput(const cv::Mat& region, cv::Size size, float* planes) {
  fillFittedPlanes(region, size, fittedTables(), 128, planes);
}

void PrepareOcrInput(const cv::Mat& region, cv::Size size, float* planes) {
  fetch(region);
  cv::Mat resized;
  cv::resize(region, resized, size, 0, 0, cv::INTER_LINEAR);
  fillPlanes<kRedFirst>(resized, ocrTables(), planes, size.width);
}

void Base64Encode(const std::uint8_t* bytes, std::size_t count, std::string& text) {
  constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::size_t place = text.size();
  text.resize(place + (count + 2) / 3 * 4);
  const auto put = [&](std::uint32_t sixBits) { text[place++] = kAlphabet[sixBits & 63U]; };
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
  std::fill(text.begin() + static_cast<std::ptrdiff_t>(place), text.end(), '=');
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
  // Not toStyledString: the stream in it goes on without a word where memory runs out, so that the
  // service would get a part of the request.
  std::ostringstream text;
  text.exceptions(std::ios::badbit);
  const std::unique_ptr<Json::StreamWriter> writer(Json::StreamWriterBuilder().newStreamWriter());
  writer->write(request, &text);
  text << '\n';
  return text.str();
} catch (const Json::Exception&) {
  throw std::bad_alloc();  // jsoncpp has an exception of its own for it
}

namespace {

/// A count of the reply, 0 where it is missing; nothing, after one "[E]" line, where it cannot be
/// one.
std::optional<std::size_t> countIn(const Json::Value& reply, const char* key) {
  constexpr int kMost = 1 << 24;
  const Json::Value& value = reply[key];
  if (value.isNull()) return 0;
  if (!value.isInt() || value.asInt() < 0 || value.asInt() > kMost) {
    constexpr std::size_t kShown = 40;  // a reply may hold anything
    const bool isShown = value.isConvertibleTo(Json::stringValue);
    logError(std::string(key) + " out of range:" +
             (isShown ? value.asString().substr(0, kShown) : std::string("no number")));
    return std::nullopt;
  }
  return static_cast<std::size_t>(value.asInt());
}

/// The rows of a spectrogram; nothing, after one "[E]" line, where they are no arrays of numbers.
std::optional<MelSpectrogram> rowsIn(const Json::Value& spectrogram, std::size_t steps) {
  MelSpectrogram rows;
  bool isTable = spectrogram.isArray();
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
  logError("mel_spec is no array of arrays of numbers");
  return std::nullopt;
}

}  // namespace

std::optional<MelSpectrogram> spectrogramIn(const std::string& text) {
  Json::Value reply;
  Json::String problems;
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  if (!reader->parse(text.data(), text.data() + text.size(), &reply, &problems) ||
      !problems.empty()) {
    return std::nullopt;
  }
  if (!reply.isObject() || !reply["code"].isInt() || !reply["msg"].isString()) {
    logError("parse error");
    return std::nullopt;
  }
  if (constexpr int kSuccess = 1000; reply["code"].asInt() != kSuccess) {
    logError("code error, code=" + std::to_string(reply["code"].asInt()) +
             ",msg=" + reply["msg"].asString());
    return std::nullopt;
  }
  if (!countIn(reply, "mels")) return std::nullopt;
  const std::optional<std::size_t> steps = countIn(reply, "time_steps");
  if (!steps) return std::nullopt;
  return rowsIn(reply["mel_spec"], *steps);
}

int AudioToMelSpec(const std::string& baseAddress, const VsaFrame& frame, MelSpectrogram& matrix,
                   std::chrono::milliseconds limit) {
  if (frame.kind != kVsaAudioFrame) return 0;
  if (frame.audioFrameSize < 0 || (frame.audioFrameSize > 0 && frame.audioData == nullptr)) {
    logError("audio block has no data,audio_frame_size=" + std::to_string(frame.audioFrameSize));
    return 0;
  }
  std::string text;
  if (!PostJson(baseAddress + "/api/audioToMelSpec", spectrogramRequest(frame), text, limit))
    return 0;
  // A reply must not throw through the library.
  try {
    std::optional<MelSpectrogram> rows = spectrogramIn(text);
    if (!rows) return 0;
    matrix.insert(matrix.end(), std::make_move_iterator(rows->begin()),
                  std::make_move_iterator(rows->end()));
    return 1;
  } catch (const Json::Exception&) {
    return 0;  // nested deeper than the parser goes: no JSON for us
  } catch (const std::bad_alloc&) {
    logError("reply takes too much memory,bytes=" + std::to_string(text.size()));
    return 0;
  }
}

}  // namespace TolCompatibleLib
