// From the rows of an 8-bit BGR image to the planes of a network's input: sampling, writing,
// prefetching. A plane holds one channel, row by row; the three planes are stored one after the
// other.
#pragma once

#include <cstddef>
#include <cstdint>
#include <opencv2/core.hpp>
#include <optional>
#include <utility>
#include <vector>

#include "Utils/ByteTables.h"

namespace TolCompatibleLib {

/// Order of the planes: red, green, blue, or the order in which the image stores its channels.
enum class PlaneOrder { kRedFirst, kAsStored };

/// Converts every pixel of `image` through `tables` and writes it into three planes, each with
/// `rowLength` floats per row and the height of the image. Floats to the right of the image are set
/// to 0.
/// @param planes 3 * image.rows * rowLength floats.
void writePlanes(const cv::Mat& image, PlaneOrder order, const ByteTables& tables, float* planes,
                 int rowLength);

/// The pixels of an image that nearest-neighbour sampling selects, and their position in a
/// network's input.
class Sampling {
 public:
  /// Samples an image of `imageSize` to the size `scaled`, with its top-left pixel at `origin` of
  /// the input. Neither size may be empty. Throws cv::Exception if a side of the image is longer
  /// than kMaxSampledLength, and std::bad_alloc.
  Sampling(cv::Size imageSize, cv::Size scaled, cv::Point origin = {});

  /// Whether this samples images of `imageSize` to the size `scaled`.
  bool isFor(cv::Size imageSize, cv::Size scaled) const;

  /// Converts the sampled pixels of `image` through `tables` and writes them into three planes of
  /// `size`, red first. If `background` has a value, fills the rest of the planes with that byte,
  /// converted likewise. Does not throw.
  /// @param planes 3 * size.area() floats.
  void writePlanes(const cv::Mat& image, cv::Size size, const ByteTables& tables,
                   std::optional<std::uint8_t> background, float* planes) const;

  /// Copies the sampled pixels of `image` into an image of `size` with three bytes per pixel. If
  /// `writesPadding` is true, sets the rest of that image to 0. Does not throw.
  /// @param pixels 3 * size.area() bytes.
  void writePixels(const cv::Mat& image, cv::Size size, bool writesPadding,
                   std::uint8_t* pixels) const;

 private:
  std::pair<const std::uint8_t*, std::ptrdiff_t> row(const cv::Mat& image, std::size_t y) const;

  cv::Size imageSize_;
  std::vector<int> columns_;
  std::vector<int> rows_;
  cv::Point origin_;
};

/// Maximum length of a sampled side: OpenCV counts the bytes of a row of 32-bit indices in an int.
constexpr int kMaxSampledLength = (1 << 29) - 1;

/// Loads a region into the processor's caches, from which the preceding inference has evicted the
/// frame, by reading one byte of every cache line. Requesting all lines at once takes a fraction of
/// the time of waiting for one row after the other.
void fetch(const cv::Mat& region);

}  // namespace TolCompatibleLib
