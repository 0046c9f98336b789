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

/// A column of a table whose best value passes a threshold.
struct ColumnMaximum {
  int column;
  int row;  ///< Counted from the first row of the band; the first of equals.
  float value;
};

/// The columns whose maximum over the rows `firstRow` to `firstRow + rowCount - 1`, which must lie
/// in the grid, is greater than `threshold`, from left to right. NaN never is the maximum. Reads
/// the table row by row, as it lies in memory, and looks for the row of a maximum only where it
/// passes.
std::vector<ColumnMaximum> columnsAbove(FloatGrid grid, int firstRow, int rowCount,
                                        float threshold);

}  // namespace TolCompatibleLib
