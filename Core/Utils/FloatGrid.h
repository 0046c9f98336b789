// A network's output as decoders see it: a table of floats that it does not own.
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

/// Index of the first maximum of `count` floats; 0 if there are none. NaN is never the maximum.
int firstMaximum(const float* values, int count);

/// A column of a table whose maximum is above a threshold.
struct ColumnMaximum {
  int column;
  int row;  ///< Relative to `firstRow`; the first of equal values.
  float value;
};

/// The columns whose maximum over the rows `firstRow` to `firstRow + rowCount - 1`, which must
/// exist, is greater than `threshold`, from left to right. NaN is never the maximum. Reads the
/// table row by row, as it is stored, and searches for the row of a maximum only if the maximum is
/// greater.
std::vector<ColumnMaximum> columnsAbove(FloatGrid grid, int firstRow, int rowCount,
                                        float threshold);

}  // namespace TolCompatibleLib
