// What the measurements of "bench" share.
#pragma once

#include <cstddef>
#include <limits>
#include <string>
#include <vector>

#include "Model.h"

namespace vsa {

/// A figure that cannot be measured; "-" in tables.
inline constexpr double kUnknown = std::numeric_limits<double>::quiet_NaN();

/// Resident memory of the process in MB; kUnknown if the system does not report it.
double residentMegabytes();

/// Percentile by the nearest-rank method: the smallest value such that at least `fraction` (0 to 1)
/// of the values do not exceed it. `values` must not be empty.
double percentile(std::vector<double> values, double fraction);

/// A number in a column of a table. Starts with a space. Has fewer than `digits` decimals if it
/// would be too wide.
std::string tableCell(double value, std::ptrdiff_t width, int digits);

/// Throws std::runtime_error if the model refuses the frame.
void runModel(Model& model, VsaFrame* frame);

}  // namespace vsa
