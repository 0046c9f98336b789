// From the output of a YOLO network to boxes of the frame: candidates, suppression, mapping.
// Coordinates of candidates are pixels of the network's input; those of objects are pixels of the
// frame.
#pragma once

#include <array>
#include <opencv2/core.hpp>
#include <optional>
#include <source_location>
#include <string>
#include <vector>

#include "TolCompatible.h"
#include "Utils/FloatGrid.h"

namespace TolCompatibleLib {

/// Numbers of a candidate that no integer can hold.
struct BadBox {
  int place;  ///< Row or column of the output.
  /// The box as it was to be truncated; where the class id is bad, width, height, score and class
  /// id.
  std::array<float, 4> numbers;
};

/// Parallel lists, in the order of the output.
struct Candidates {
  std::vector<cv::Rect> boxes;
  std::vector<float> scores;
  std::vector<int> classIds;
  std::vector<int> places;  ///< Row or column of the output, for what a model reads there later.
  /// Set where no integer holds a box; decoding stopped there.
  std::optional<BadBox> badBox;

  /// Adds a candidate with its box truncated to integers; false when the box is bad.
  bool add(float x, float y, float width, float height, float score, int classId, int place);
};

/// True without a bad box; else logs one "[E]" line that names its numbers.
bool usable(const std::optional<BadBox>& badBox,
            std::source_location where = std::source_location::current());

/// Candidates of an anchor-based YOLOv5 head, one per row: centre x, centre y, width, height,
/// objectness, then one score per class (`classCount` of them, which must exist). A row counts if
/// its objectness is at least `objThreshold` and its best class scores above `scoreThreshold`. Its
/// score is the objectness alone.
Candidates decodeYolo5(FloatGrid rows, int classCount, float objThreshold, float scoreThreshold);

/// Candidates of an anchor-free YOLOv8 head, one per column: rows 0 to 3 hold centre x, centre y,
/// width and height, and the following `classCount` rows (which must exist) one activated score per
/// class. The best class counts, if its score is greater than `scoreThreshold`.
Candidates decodeYolo8(FloatGrid columns, int classCount, float scoreThreshold);

/// Candidates of a YOLOv8 pose head, one per column: rows 0 to 3 as above, row 4 the confidence,
/// then key points. Boxes are in frame pixels already: scaled, then truncated.
Candidates decodeYolo8Pose(FloatGrid columns, float scoreThreshold, float scale);

/// Columns of a YOLO26 row that are read.
constexpr int kYolo26Columns = 6;

/// What a YOLO26 head found.
struct Yolo26Objects {
  std::vector<VsaObject> objects;
  std::optional<BadBox> badBox;  ///< Set where no integer holds a box or class id.
};

/// The objects of an end-to-end YOLO26 head, one per row: x1, y1, x2, y2, score, class id; further
/// columns are not read. Every row above the threshold whose class has a name and is wanted becomes
/// an object; nothing is suppressed. \param rows at least six columns.
Yolo26Objects decodeYolo26(FloatGrid rows, float scale, const VsaModelConfig& config,
                           const VsaFrame& frame);

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

/// All wanted candidates as objects, best first.
std::vector<VsaObject> wantedObjects(const Candidates& candidates, float scale,
                                     const VsaModelConfig& config, const VsaFrame& frame);

}  // namespace TolCompatibleLib
