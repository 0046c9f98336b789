// The best class of a classification network and its score.
#pragma once

#include <span>

namespace TolCompatibleLib {

/// A class and its score.
struct ClassScore {
  /// Index of the first maximum; -1 if there are no scores.
  int classId;
  /// Maximum divided by the sum of all positive scores, 0 to 1; 1 if there are none; NaN if a score
  /// is infinite.
  float score;
};

/// The class with the maximum score, and that score divided by the sum of all scores that are not
/// negative. The scores are used as the network gives them, without a softmax. NaN is ignored.
ClassScore bestClass(std::span<const float> scores);

}  // namespace TolCompatibleLib
