// Conversion of a network's floats to the integers of a record.
#pragma once

#include <cstdint>
#include <limits>

namespace TolCompatibleLib {

/// `value` truncated toward zero. Defined for every float: the nearest int32 if it is out of range,
/// and 0 for NaN.
constexpr std::int32_t truncateToInt(float value) {
  constexpr float kEnd = 2147483648.0F;  // 2^31, the first float above every int32
  if (value != value) return 0;
  if (value >= kEnd) return std::numeric_limits<std::int32_t>::max();
  if (value <= -kEnd) return std::numeric_limits<std::int32_t>::min();
  return static_cast<std::int32_t>(value);
}

/// Whether `value` is within the range of int32; false for NaN.
constexpr bool fitsInt(float value) {
  return value >= -2147483648.0F && value < 2147483648.0F;
}

/// a + b, or the nearest int32 if the sum is out of range.
constexpr std::int32_t saturatedSum(std::int32_t a, std::int32_t b) {
  const std::int64_t sum = std::int64_t{a} + b;
  if (sum > std::numeric_limits<std::int32_t>::max())
    return std::numeric_limits<std::int32_t>::max();
  if (sum < std::numeric_limits<std::int32_t>::min())
    return std::numeric_limits<std::int32_t>::min();
  return static_cast<std::int32_t>(sum);
}

}  // namespace TolCompatibleLib
