// A network's output as decoders see it: a table of floats that someone else owns.
#pragma once

#include <cstddef>
#include <vector>

namespace TolCompatibleLib {

/// A row-major table. Holds no data: the owner of the floats (an output tensor) must outlive it.
struct FloatGrid {
  const float* data = nullptr;
  int rows = 0;
  int cols = 0;

  const float* row(int r) const {
    return data + static_cast<std::size_t>(r) * static_cast<std::size_t>(cols);
  }
};

/// The place of the first maximum of `count` floats; 0 for none. NaN never is the maximum.
int firstMaximum(const float* values, int count);

/// The best row of every column within a band of rows.
struct ColumnMaxima {
  std::vector<float> values;  ///< Minus infinity where the band is empty or holds NaN only.
  std::vector<int> rows;      ///< Counted from the first row of the band; the first of equals.
};

/// Maxima of each column over the rows `firstRow` to `firstRow + rowCount - 1`, which must lie in
/// the grid. Reads the rows one after the other, as they lie in memory.
ColumnMaxima bestPerColumn(FloatGrid grid, int firstRow, int rowCount);

}  // namespace TolCompatibleLib
