#include "Utils/FloatGrid.h"

#include <limits>

namespace TolCompatibleLib {

int firstMaximum(const float* values, int count) {
  int place = 0;
  float best = -std::numeric_limits<float>::infinity();
  for (int i = 0; i < count; ++i) {
    if (values[i] > best) {
      best = values[i];
      place = i;
    }
  }
  return place;
}

ColumnMaxima bestPerColumn(FloatGrid grid, int firstRow, int rowCount) {
  const auto cols = static_cast<std::size_t>(grid.cols);
  ColumnMaxima best{std::vector<float>(cols, -std::numeric_limits<float>::infinity()),
                    std::vector<int>(cols, 0)};
  for (int r = 0; r < rowCount; ++r) {
    const float* row = grid.row(firstRow + r);
    for (std::size_t c = 0; c < cols; ++c) {
      const bool better = row[c] > best.values[c];
      best.values[c] = better ? row[c] : best.values[c];
      best.rows[c] = better ? r : best.rows[c];
    }
  }
  return best;
}

}  // namespace TolCompatibleLib
