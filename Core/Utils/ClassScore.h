// The best class of a classification network and how sure it is.
#pragma once

#include <span>

namespace TolCompatibleLib {

/// A class and its score.
struct ClassScore {
  int classId;  ///< Place of the first maximum; -1 where there are no scores.
  float score;  ///< Share of the positive scores, 0 to 1; 1 where there are none; NaN for infinite
                ///< scores.
};

/// The class of the greatest score, and that score over the sum of all scores that are not
/// negative. Takes the scores as the network gives them, without a softmax. NaN is left out of
/// both.
ClassScore bestClass(std::span<const float> scores);

}  // namespace TolCompatibleLib
