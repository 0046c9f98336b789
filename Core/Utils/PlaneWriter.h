// From the rows of an 8-bit BGR image to the planes of a network's input: sampling, writing,
// prefetching. A plane holds one channel, row by row; the three planes lie one after the other.
#pragma once

#include <cstddef>
#include <cstdint>
#include <opencv2/core.hpp>
#include <optional>
#include <utility>
#include <vector>

#include "Utils/ByteTables.h"

namespace TolCompatibleLib {

/// Channel of the image that goes into planes 0, 1 and 2.
enum class PlaneOrder { kRedFirst, kAsStored };

/// Writes every pixel of `image` through `tables` into three planes of `rowLength` floats a row, as
/// many rows as the image has. Floats to the right of the image are set to 0.
/// @param planes 3 * image.rows * rowLength floats.
void writePlanes(const cv::Mat& image, PlaneOrder order, const ByteTables& tables, float* planes,
                 int rowLength);

/// The pixels of an image that nearest-neighbour sampling takes, and where they go in a network's
/// input.
class Sampling {
 public:
  /// Samples an image of `imageSize` to `scaled` pixels, written from `origin` on. Both sizes must
  /// not be empty. Throws cv::Exception if a side of the image is longer than
  /// kMaxSampledLength, and std::bad_alloc.
  Sampling(cv::Size imageSize, cv::Size scaled, cv::Point origin = {});

  /// Writes the sampled pixels of `image` through `tables` into three planes of `size`, red first,
  /// and around them the byte `background`, if there is one. Does not throw.
  /// @param planes 3 * size.area() floats.
  void writePlanes(const cv::Mat& image, cv::Size size, const ByteTables& tables,
                   std::optional<std::uint8_t> background, float* planes) const;

  /// Copies the sampled pixels of `image` into an image of `size`, three bytes a pixel, and if
  /// `writesPadding`, sets everything else to 0. Does not throw.
  /// @param pixels 3 * size.area() bytes.
  void writePixels(const cv::Mat& image, cv::Size size, bool writesPadding,
                   std::uint8_t* pixels) const;

 private:
  std::pair<const std::uint8_t*, std::ptrdiff_t> row(const cv::Mat& image, std::size_t y) const;

  std::vector<int> columns_;
  std::vector<int> rows_;
  cv::Point origin_;
};

/// OpenCV indexes the bytes of a row of 32-bit positions with an int.
constexpr int kMaxSampledLength = (1 << 29) - 1;

/// Reads one byte of every cache line of a region. The inference before it has pushed the frame out
/// of the processor's caches. Requested all at once, the lines arrive in a fraction of the time
/// that it takes to wait for one row after the other.
void fetch(const cv::Mat& region);

}  // namespace TolCompatibleLib
