#include "Utils/ByteTables.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <opencv2/core.hpp>
#include <opencv2/dnn.hpp>

namespace TolCompatibleLib {
namespace {

constexpr double kOneOver255 = 0.00392156862745098;
constexpr double kTwoOver255 = 0.00784313725490196;

/// One row of 256 pixels; all three channels of pixel i have the value i.
cv::Mat byteRamp() {
  cv::Mat ramp(1, 256, CV_8UC3);
  for (int i = 0; i < 256; ++i) ramp.at<cv::Vec3b>(0, i) = cv::Vec3b::all(static_cast<uchar>(i));
  return ramp;
}

/// byteRamp() as floats, each multiplied by `scale`.
cv::Mat scaledRamp(double scale) {
  cv::Mat ramp;
  byteRamp().convertTo(ramp, CV_32FC3, scale);
  return ramp;
}

/// Tables from a row of 256 three-channel float pixels.
ByteTables tablesOf(const cv::Mat& ramp) {
  ByteTables made;
  for (int i = 0; i < 256; ++i) {
    const auto& pixel = ramp.at<cv::Vec3f>(0, i);
    for (int c = 0; c < 3; ++c) {
      made.tables[static_cast<std::size_t>(c)][static_cast<std::size_t>(i)] = pixel[c];
    }
  }
  return made;
}

/// Returns `tables`, with `form` if it gives the same bits.
ByteTables withLinearForm(ByteTables tables, const LinearForm& form) {
  for (std::size_t c = 0; c < 3; ++c) {
    for (std::size_t i = 0; i < 256; ++i) {
      const auto byte = static_cast<float>(i);
      const float value = byte * form.factors[c] + byte * form.remainder - form.offsets[c];
      if (std::bit_cast<std::uint32_t>(value) != std::bit_cast<std::uint32_t>(tables[c][i])) {
        return tables;
      }
    }
  }
  tables.linear = form;
  return tables;
}

/// The linear form with the same factor and offset for all channels.
LinearForm sameForAll(double factor, float offset) {
  const auto single = static_cast<float>(factor);
  return {{single, single, single}, {offset, offset, offset}};
}

/// byte * `factor` in double precision, rounded to single precision only at the end. The upper 16
/// bits of the factor times a byte are exact.
LinearForm doublePrecision(double factor) {
  constexpr std::uint32_t kUpperBits = 0xFFFFFF00;
  const auto single = std::bit_cast<std::uint32_t>(static_cast<float>(factor));
  const auto upper = std::bit_cast<float>(single & kUpperBits);
  LinearForm form = sameForAll(upper, 0);
  form.remainder = static_cast<float>(factor - double{upper});
  return form;
}

}  // namespace

const ByteTables& unitTables() {
  static const ByteTables tables = [] {
    const cv::Mat blob = cv::dnn::blobFromImage(byteRamp(), kOneOver255, cv::Size(256, 1),
                                                cv::Scalar(), /*swapRB=*/true, /*crop=*/false);
    ByteTables made;
    for (auto& table : made.tables) std::copy_n(blob.ptr<float>(), 256, table.begin());
    // OpenCV 4.6 multiplies in single precision, 4.10 in double precision.
    made = withLinearForm(made, sameForAll(kOneOver255, 0));
    return made.linear ? made : withLinearForm(made, doublePrecision(kOneOver255));
  }();
  return tables;
}

const ByteTables& textDetectorTables() {
  static const ByteTables tables = [] {
    cv::Mat ramp = scaledRamp(kOneOver255);
    cv::subtract(ramp, cv::Scalar(0.485, 0.456, 0.406), ramp);
    cv::divide(ramp, cv::Scalar(0.229, 0.224, 0.225), ramp);
    return tablesOf(ramp);
  }();
  return tables;
}

const ByteTables& textLineTables() {
  static const ByteTables tables = [] {
    cv::Mat ramp = scaledRamp(kTwoOver255);
    cv::subtract(ramp, cv::Scalar::all(1.0), ramp);
    return withLinearForm(tablesOf(ramp), sameForAll(kTwoOver255, 1));
  }();
  return tables;
}

const ByteTables& classifierTables() {
  static const ByteTables tables = [] {
    // Deliberate: the statistics of red are applied to blue and those of blue to red.
    constexpr std::array<float, 3> kMeans = {0.485F, 0.456F, 0.406F};
    constexpr std::array<float, 3> kDeviations = {0.229F, 0.224F, 0.225F};
    ByteTables made;
    for (std::size_t c = 0; c < 3; ++c) {
      for (std::size_t i = 0; i < 256; ++i) {
        made.tables[c][i] = (static_cast<float>(i) / 255.0F - kMeans[c]) / kDeviations[c];
      }
    }
    return made;
  }();
  return tables;
}

const ByteTables& fittedTables() {
  static const ByteTables tables =
      withLinearForm(tablesOf(scaledRamp(kOneOver255)), sameForAll(kOneOver255, 0));
  return tables;
}

const ByteTables& fittedNormalizedTables() {
  static const ByteTables tables = [] {
    cv::Mat ramp = scaledRamp(kOneOver255);
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
        made.tables[c][i] = static_cast<float>(i) * kFactors[c] - kOffsets[c];
      }
    }
    return withLinearForm(made, {kFactors, kOffsets});
  }();
  return tables;
}

}  // namespace TolCompatibleLib
