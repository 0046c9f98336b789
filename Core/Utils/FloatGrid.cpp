#include "Utils/FloatGrid.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>

namespace TolCompatibleLib {
namespace {

constexpr float kMinusInfinity = -std::numeric_limits<float>::infinity();

/// The greater of the two; `best` if `value` is NaN.
float greater(float best, float value) {
  return value > best ? value : best;
}

/// The maximum of `count` values, ignoring NaN.
float maximum(const float* values, int count) {
  // Independent lanes let the compiler process as many floats at once as a register holds.
  std::array<float, 32> lanes;
  lanes.fill(kMinusInfinity);
  constexpr int kLanes = static_cast<int>(lanes.size());
  int i = 0;
  for (; count - i >= kLanes; i += kLanes) {
    for (std::size_t lane = 0; lane < lanes.size(); ++lane) {
      lanes[lane] = greater(lanes[lane], values[static_cast<std::size_t>(i) + lane]);
    }
  }
  float best = kMinusInfinity;
  for (const float lane : lanes) best = greater(best, lane);
  for (; i < count; ++i) best = greater(best, values[i]);
  return best;
}

}  // namespace

int firstMaximum(const float* values, int count) {
  // Search block by block, so that only the first block with the maximum is scanned for its index.
  constexpr int kBlock = 1024;
  float best = kMinusInfinity;
  int block = 0;
  for (int begin = 0; begin < count; begin += kBlock) {
    const float blockMax = maximum(values + begin, std::min(kBlock, count - begin));
    if (!(blockMax > best)) continue;
    best = blockMax;
    block = begin;
  }
  if (best == kMinusInfinity) return 0;
  return static_cast<int>(std::find(values + block, values + count, best) - values);
}

std::vector<ColumnMaximum> columnsAbove(FloatGrid grid, int firstRow, int rowCount,
                                        float threshold) {
  std::vector<ColumnMaximum> found;
  // Columns per block, so that their maxima fit into the first-level cache.
  constexpr std::int64_t kBlock = 1024;
  std::array<float, kBlock> best;
  for (std::int64_t begin = 0; begin < grid.cols; begin += kBlock) {
    const auto width = static_cast<std::size_t>(std::min(kBlock, grid.cols - begin));
    std::fill_n(best.begin(), width, kMinusInfinity);
    int r = 0;
    // Four rows at a time, which saves three of four loads and stores of the maxima.
    for (; rowCount - r >= 4; r += 4) {
      const float* first = grid.row(firstRow + r) + begin;
      const float* second = first + grid.cols;
      const float* third = second + grid.cols;
      const float* fourth = third + grid.cols;
      for (std::size_t c = 0; c < width; ++c) {
        best[c] =
            greater(greater(greater(greater(best[c], first[c]), second[c]), third[c]), fourth[c]);
      }
    }
    for (; r < rowCount; ++r) {
      const float* values = grid.row(firstRow + r) + begin;
      for (std::size_t c = 0; c < width; ++c) best[c] = greater(best[c], values[c]);
    }
    for (std::size_t c = 0; c < width; ++c) {
      if (!(best[c] > threshold)) continue;
      const int column = static_cast<int>(begin) + static_cast<int>(c);
      int row = 0;
      while (grid.row(firstRow + row)[column] != best[c]) ++row;
      found.push_back({column, row, best[c]});
    }
  }
  return found;
}

}  // namespace TolCompatibleLib
