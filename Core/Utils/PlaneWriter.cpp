#include "Utils/PlaneWriter.h"

#if defined(__SSE2__) || defined(_M_X64)
#include <emmintrin.h>
#endif

#include <algorithm>
#include <array>
#include <cstring>
#include <numeric>
#include <opencv2/imgproc.hpp>

namespace TolCompatibleLib {
namespace {

using ChannelOrder = std::array<std::size_t, 3>;
constexpr ChannelOrder kRedFirst = {2, 1, 0};
constexpr ChannelOrder kAsStored = {0, 1, 2};

/// Requests the cache line at `address` without waiting for it.
void prefetch([[maybe_unused]] const void* address) {
#if defined(__GNUC__)
  __builtin_prefetch(address, /*write=*/0, /*locality=*/3);
#elif defined(_M_X64)
  _mm_prefetch(static_cast<const char*>(address), _MM_HINT_T0);
#endif
}

/// Pixels converted before they are stored, because storing single floats to the three planes
/// alternately is the bottleneck. 16 computed floats fill a cache line of each plane; looking up 16
/// pixels at a time is slower than looking up four.
constexpr std::size_t kComputedPixels = 16;
constexpr std::size_t kLookedUpPixels = 4;

/// Number of pixels for which one prefetch is made.
constexpr std::size_t kPixelsPerPrefetch = 4;

/// Part of a row of an image.
template <class PixelAt>
struct Pixels {
  PixelAt at;            ///< Returns the address of pixel x.
  std::size_t count;     ///< Number of pixels.
  std::size_t followed;  ///< Number of leading pixels with another pixel to their right.
  std::ptrdiff_t ahead;  ///< Distance in bytes from a pixel to the data to prefetch.
};

/// Calls `write(x)` for blocks of `length` pixels that start at pixel x and cover `count` pixels;
/// the last two blocks may overlap. Returns the number of pixels covered: `count`, or 0 if there
/// are fewer pixels than a block has.
template <std::size_t length, class Write>
std::size_t forEachBlock(std::size_t count, Write write) {
  if (count < length) return 0;
  std::size_t x = 0;
  for (; x + length <= count; x += length) write(x);
  if (x < count) write(count - length);
  return count;
}

#if defined(__SSE2__) || defined(_M_X64)
/// Writes the first pixels of a row by computing their floats. Returns the number of pixels
/// written.
template <ChannelOrder order, bool hasRemainder, class PixelAt>
std::size_t writeComputed(const Pixels<PixelAt>& pixels, const LinearForm& form, float* row,
                          std::size_t plane) {
  const __m128 remainder = _mm_set1_ps(form.remainder);
  constexpr std::size_t kLanes = 4;
  // The fourth byte belongs to the next pixel.
  const auto load = [&pixels](std::size_t x) {
    int bytes;
    std::memcpy(&bytes, pixels.at(x), sizeof bytes);
    return _mm_cvtsi32_si128(bytes);
  };
  return forEachBlock<kComputedPixels>(pixels.followed, [&](std::size_t x) {
    __m128i block[kComputedPixels / kLanes];
    for (std::size_t i = 0; i < kComputedPixels / kLanes; ++i) {
      const std::size_t first = x + kLanes * i;
      prefetch(pixels.at(first) + pixels.ahead);
      block[i] = _mm_unpacklo_epi64(_mm_unpacklo_epi32(load(first), load(first + 1)),
                                    _mm_unpacklo_epi32(load(first + 2), load(first + 3)));
    }
    for (std::size_t p = 0; p < 3; ++p) {
      const __m128 factor = _mm_set1_ps(form.factors[order[p]]);
      const __m128 offset = _mm_set1_ps(form.offsets[order[p]]);
      for (std::size_t i = 0; i < kComputedPixels / kLanes; ++i) {
        const __m128i bytes = _mm_and_si128(
            _mm_srli_epi32(block[i], 8 * static_cast<int>(order[p])), _mm_set1_epi32(255));
        const __m128 floats = _mm_cvtepi32_ps(bytes);
        __m128 value = _mm_mul_ps(floats, factor);
        if constexpr (hasRemainder) value = _mm_add_ps(value, _mm_mul_ps(floats, remainder));
        _mm_storeu_ps(row + p * plane + x + kLanes * i, _mm_sub_ps(value, offset));
      }
    }
  });
}
#else
/// Floats are always looked up on this processor.
template <ChannelOrder order, bool hasRemainder, class PixelAt>
std::size_t writeComputed(const Pixels<PixelAt>&, const LinearForm&, float*, std::size_t) {
  return 0;
}
#endif

/// Writes the first pixels of a row by looking up their floats. Returns the number of pixels
/// written.
template <ChannelOrder order, class PixelAt>
std::size_t writeLookedUp(const Pixels<PixelAt>& pixels, const ByteTables& tables, float* row,
                          std::size_t plane) {
  return forEachBlock<kLookedUpPixels>(pixels.count, [&](std::size_t x) {
    std::array<const uchar*, kLookedUpPixels> block;
    for (std::size_t i = 0; i < kLookedUpPixels; ++i) {
      block[i] = pixels.at(x + i);
      if (i % kPixelsPerPrefetch == 0) prefetch(block[i] + pixels.ahead);
    }
    for (std::size_t p = 0; p < 3; ++p) {
      std::array<float, kLookedUpPixels> values;
      for (std::size_t i = 0; i < kLookedUpPixels; ++i)
        values[i] = tables[order[p]][block[i][order[p]]];
      std::memcpy(row + p * plane + x, values.data(), sizeof values);
    }
  });
}

/// Writes a row of pixels through `tables` to the same offset of three planes.
/// @param row the row in the first plane.
/// @param plane number of floats from one plane to the next.
template <ChannelOrder order, class PixelAt>
void writeRow(const Pixels<PixelAt>& pixels, const ByteTables& tables, float* row,
              std::size_t plane) {
  std::size_t x = 0;
  if (const auto& form = tables.linear) {
    x = form->remainder == 0 ? writeComputed<order, false>(pixels, *form, row, plane)
                             : writeComputed<order, true>(pixels, *form, row, plane);
  }
  if (x == 0) x = writeLookedUp<order>(pixels, tables, row, plane);
  for (; x < pixels.count; ++x) {
    for (std::size_t p = 0; p < 3; ++p) {
      row[p * plane + x] = tables[order[p]][pixels.at(x)[order[p]]];
    }
  }
}

template <ChannelOrder order>
void writeRows(const cv::Mat& image, const ByteTables& tables, float* planes, int rowLength) {
  const auto cols = static_cast<std::size_t>(image.cols);
  const auto stride = static_cast<std::size_t>(rowLength);
  const std::size_t plane = stride * static_cast<std::size_t>(image.rows);
  for (int y = 0; y < image.rows; ++y) {
    const auto pixelAt = [pixels = image.ptr<uchar>(y)](std::size_t x) { return pixels + 3 * x; };
    float* const row = planes + static_cast<std::size_t>(y) * stride;
    writeRow<order>(Pixels<decltype(pixelAt)>{pixelAt, cols, cols - 1, 0}, tables, row, plane);
    for (std::size_t p = 0; p < 3; ++p) {
      std::fill(row + p * plane + cols, row + p * plane + stride, 0.0F);
    }
  }
}

/// Copies the pixels at `columns`, in ascending order, of a row of `width` pixels of three bytes.
/// @param ahead distance in bytes from a pixel to the data to prefetch.
void copyRow(const uchar* pixels, std::ptrdiff_t ahead, int width, const std::vector<int>& columns,
             uchar* out) {
  // Copying four bytes is faster than three. The fourth byte belongs to the next pixel, in the
  // source and in the destination, so both must have one.
  std::size_t x = 0;
  for (; x + 1 < columns.size() && columns[x] < width - 1; ++x) {
    const uchar* const from = pixels + 3 * static_cast<std::ptrdiff_t>(columns[x]);
    if (x % kPixelsPerPrefetch == 0) prefetch(from + ahead);
    std::memcpy(out + 3 * x, from, 4);
  }
  for (; x < columns.size(); ++x) {
    std::memcpy(out + 3 * x, pixels + 3 * static_cast<std::ptrdiff_t>(columns[x]), 3);
  }
}

/// For each of `scaled` output pixels, the index of the input pixel, out of `length`, that
/// cv::resize uses with nearest-neighbour sampling. Computed by resizing a row of indices with
/// OpenCV itself, so the result is right for every version of OpenCV.
std::vector<int> sampledPositions(int length, int scaled) {
  CV_Assert(length <= kMaxSampledLength && scaled <= kMaxSampledLength);
  std::vector<int> positions(static_cast<std::size_t>(length));
  std::iota(positions.begin(), positions.end(), 0);
  std::vector<int> sampled(static_cast<std::size_t>(scaled));
  cv::Mat row(1, scaled, CV_32SC1, sampled.data());
  cv::resize(cv::Mat(1, length, CV_32SC1, positions.data()), row, row.size(), 0, 0,
             cv::INTER_NEAREST);
  return sampled;
}

}  // namespace

void writePlanes(const cv::Mat& image, PlaneOrder order, const ByteTables& tables, float* planes,
                 int rowLength) {
  if (order == PlaneOrder::kRedFirst) {
    writeRows<kRedFirst>(image, tables, planes, rowLength);
  } else {
    writeRows<kAsStored>(image, tables, planes, rowLength);
  }
}

Sampling::Sampling(cv::Size imageSize, cv::Size scaled, cv::Point origin)
    : imageSize_(imageSize),
      columns_(sampledPositions(imageSize.width, scaled.width)),
      rows_(sampledPositions(imageSize.height, scaled.height)),
      origin_(origin) {}

bool Sampling::isFor(cv::Size imageSize, cv::Size scaled) const {
  return imageSize_ == imageSize && columns_.size() == static_cast<std::size_t>(scaled.width) &&
         rows_.size() == static_cast<std::size_t>(scaled.height);
}

/// Row y of the sampled image, and the distance in bytes to the row to prefetch: two sampled rows
/// ahead, so that the data arrives in time.
std::pair<const std::uint8_t*, std::ptrdiff_t> Sampling::row(const cv::Mat& image,
                                                             std::size_t y) const {
  constexpr std::size_t kRowsAhead = 2;
  const uchar* const pixels = image.ptr<uchar>(rows_[y]);
  return {pixels, image.ptr<uchar>(rows_[std::min(y + kRowsAhead, rows_.size() - 1)]) - pixels};
}

void Sampling::writePlanes(const cv::Mat& image, cv::Size size, const ByteTables& tables,
                           std::optional<std::uint8_t> background, float* planes) const {
  const auto width = static_cast<std::size_t>(size.width);
  const auto left = static_cast<std::size_t>(origin_.x);
  const auto above = static_cast<std::size_t>(origin_.y) * width;
  const std::size_t plane = width * static_cast<std::size_t>(size.height);
  for (std::size_t p = 0; background && p < 3; ++p) {
    float* const begin = planes + p * plane;
    std::fill(begin, begin + above, tables[2 - p][*background]);
    std::fill(begin + above + rows_.size() * width, begin + plane, tables[2 - p][*background]);
  }
  const auto followed = static_cast<std::size_t>(
      std::ranges::lower_bound(columns_, image.cols - 1) - columns_.begin());
  float* row = planes + above;
  for (std::size_t y = 0; y < rows_.size(); ++y, row += width) {
    // If the image is enlarged, adjacent rows can be equal.
    const bool isRepeated = y > 0 && rows_[y] == rows_[y - 1];
    if (isRepeated) {
      for (std::size_t p = 0; p < 3; ++p) {
        std::copy_n(row + p * plane - width, width, row + p * plane);
      }
      continue;
    }
    const auto [pixels, ahead] = this->row(image, y);
    const auto pixelAt = [pixels = pixels, column = columns_.data()](std::size_t x) {
      return pixels + 3 * static_cast<std::ptrdiff_t>(column[x]);
    };
    writeRow<kRedFirst>(Pixels<decltype(pixelAt)>{pixelAt, columns_.size(), followed, ahead},
                        tables, row + left, plane);
    for (std::size_t p = 0; background && p < 3; ++p) {
      float* const begin = row + p * plane;
      std::fill(begin, begin + left, tables[2 - p][*background]);
      std::fill(begin + left + columns_.size(), begin + width, tables[2 - p][*background]);
    }
  }
}

void Sampling::writePixels(const cv::Mat& image, cv::Size size, bool writesPadding,
                           std::uint8_t* pixels) const {
  const std::size_t rowBytes = 3 * static_cast<std::size_t>(size.width);
  std::uint8_t* out = pixels;
  for (std::size_t y = 0; y < rows_.size(); ++y, out += rowBytes) {
    const auto [source, ahead] = row(image, y);
    copyRow(source, ahead, image.cols, columns_, out);
    if (writesPadding) std::fill(out + 3 * columns_.size(), out + rowBytes, std::uint8_t{0});
  }
  if (writesPadding) {
    std::fill(out, pixels + rowBytes * static_cast<std::size_t>(size.height), std::uint8_t{0});
  }
}

void fetch(const cv::Mat& region) {
  if (region.empty()) return;
  constexpr std::ptrdiff_t kLine = 64;
  constexpr std::ptrdiff_t kMaxBytes = 256 << 10;  // more would evict the lines fetched first
  const std::ptrdiff_t rowBytes = 3 * std::ptrdiff_t{region.cols};
  for (int y = 0; y < region.rows && y * rowBytes < kMaxBytes; ++y) {
    const volatile uchar* const row = region.ptr<uchar>(y);
    for (std::ptrdiff_t x = 0; x < rowBytes; x += kLine) static_cast<void>(row[x]);
    static_cast<void>(row[rowBytes - 1]);
  }
}

}  // namespace TolCompatibleLib
