// Figures of the long checks and the benchmarks.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <fstream>
#include <stdexcept>
#include <vector>

/// The upper of two medians; `values` must not be empty.
inline double medianOf(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

/// Resident memory of this process in MB.
inline double residentMegabytes() {
  std::ifstream file("/proc/self/statm");
  double pages = 0;
  double resident = 0;
  if (!(file >> pages >> resident)) throw std::runtime_error("no memory figures");
  return resident * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1e6;
}
