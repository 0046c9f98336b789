#include "Utils/ClassScore.h"

#include "Utils/FloatGrid.h"

namespace TolCompatibleLib {

ClassScore bestClass(std::span<const float> scores) {
  if (scores.empty()) return {-1, 1.0F};
  float sum = 0.0F;
  for (const float score : scores) {
    if (score >= 0.0F) sum += score;
  }
  const int classId = firstMaximum(scores.data(), static_cast<int>(scores.size()));
  return {classId, sum <= 0.0F ? 1.0F : scores[static_cast<std::size_t>(classId)] / sum};
}

}  // namespace TolCompatibleLib
