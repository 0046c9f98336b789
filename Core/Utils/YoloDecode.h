// From the output of a YOLO network to boxes of the frame: candidates, suppression, mapping.
// Coordinates of candidates are pixels of the network's input; those of objects are pixels of the
// frame.
#pragma once

#include <opencv2/core.hpp>
#include <optional>
#include <string>
#include <vector>

#include "TolCompatible.h"
#include "Utils/FloatGrid.h"

namespace TolCompatibleLib {

/// A candidate whose box no integer can hold.
struct BadBox {
  int place;  ///< Row or column of the output.
  float x, y, width, height;
};

/// Parallel lists, in the order of the output.
struct Candidates {
  std::vector<cv::Rect> boxes;
  std::vector<float> scores;
  std::vector<int> classIds;
  std::vector<int> places;  ///< Row or column of the output, for what a model reads there later.
  /// Set where a box is NaN or infinite; decoding stopped there.
  std::optional<BadBox> badBox;

  /// Adds a candidate with its box truncated to integers; false when the box is bad.
  bool add(float x, float y, float width, float height, float score, int classId, int place);
};

/// What is wrong with a box, for the log.
std::string describe(const BadBox& box);

/// Candidates of an anchor-free head, one per column: rows 0 to 3 hold centre x, centre y, width
/// and height, and the following `classCount` rows (which must exist) one activated score per
/// class. The best class counts, if its score is greater than `scoreThreshold`.
Candidates decodeYolo8(FloatGrid columns, int classCount, float scoreThreshold);

/// Candidates left by cv::dnn::NMSBoxes across all classes, best first. Throws cv::Exception for a
/// negative threshold.
std::vector<int> suppressed(const Candidates& candidates, const VsaModelConfig& config);

/// Those of them whose class has a name in `config` and whose name is wanted. The filter comes
/// last, so unwanted candidates still suppress.
std::vector<int> wantedAfterSuppression(const Candidates& candidates, const VsaModelConfig& config,
                                        const std::set<std::string>& wantedClasses);

/// Candidate `index` as an object of `frame`; `scale` takes network pixels to frame pixels. The far
/// corner is computed from the truncated near corner.
VsaObject frameObject(const Candidates& candidates, int index, float scale,
                      const VsaModelConfig& config, const VsaFrame& frame);

}  // namespace TolCompatibleLib
