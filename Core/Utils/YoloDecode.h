// From the output of a YOLO network to objects of the frame: candidates, NMS, mapping.
// Coordinates of candidates are pixels of the network's input; those of objects are pixels of the
// frame.
#pragma once

#include <array>
#include <opencv2/core.hpp>
#include <optional>
#include <source_location>
#include <string>
#include <string_view>
#include <vector>

#include "TolCompatible.h"
#include "Utils/FloatGrid.h"

namespace TolCompatibleLib {

/// Numbers of a candidate that do not fit the int32 fields of a record.
struct BadBox {
  int outputIndex;  ///< Row or column of the output.
  /// The box before it was to be truncated; if the class id does not fit, width, height, score and
  /// class id.
  std::array<float, 4> numbers;
};

/// Logs one "[E]" line with the numbers of `badBox`, if there is one, and returns whether there is.
bool logBadBox(const std::optional<BadBox>& badBox,
               std::source_location where = std::source_location::current());

/// A point in frame pixels, its coordinates truncated to integers. Returns nullopt, after one "[E]"
/// line, if one does not fit an int32. @param what for that line, for example "key point".
std::optional<VsaPoint> framePoint(float x, float y, std::string_view what, int outputIndex,
                                   std::source_location where = std::source_location::current());

/// Returns whether a dimension of an output is as expected; else logs `family` + " dimensions
/// error:"
/// + the dimension in an "[E]" line.
bool checkDimension(std::string_view family, std::size_t actual, std::size_t expected,
                    std::source_location where = std::source_location::current());

/// Parallel lists, in the order of the output.
struct Candidates {
  std::vector<cv::Rect> boxes;
  std::vector<float> scores;
  std::vector<int> classIds;
  std::vector<int>
      outputIndices;  ///< Row or column of the output, for what a model reads there later.
  /// Set if a box does not fit; decoding stopped there.
  std::optional<BadBox> badBox;

  /// Adds a candidate with its box truncated to integers; false if the box does not fit.
  bool add(float x, float y, float width, float height, float score, int classId, int outputIndex);
};

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

/// Results for a frame.
struct FrameObjects {
  std::vector<VsaObject> objects;
  std::vector<int> outputIndices;  ///< Row or column of the output that each object was read from.
  /// Set if the box or class id of an object does not fit; the objects are incomplete then.
  std::optional<BadBox> badBox;
};

/// The objects of an end-to-end YOLO26 head, one per row: x1, y1, x2, y2, score, class id; further
/// columns are not read. Every row above the threshold whose class has a name and is wanted becomes
/// an object; nothing is suppressed. @param rows at least six columns.
FrameObjects decodeYolo26(FloatGrid rows, float scale, const VsaModelConfig& config,
                          const VsaFrame& frame);

/// Indices of the candidates left by cv::dnn::NMSBoxes across all classes, best first. Throws
/// cv::Exception for a negative threshold.
std::vector<int> keptAfterNms(const Candidates& candidates, const VsaModelConfig& config);

/// Those of them whose class has a name in `config` and whose name is wanted. The filter comes
/// last, so unwanted candidates suppress others.
std::vector<int> wantedAfterNms(const Candidates& candidates, const VsaModelConfig& config,
                                const std::set<std::string>& wantedClasses);

/// The bad box of a candidate whose right or bottom edge, offset plus length, does not fit an
/// int32; nullopt if both fit.
std::optional<BadBox> badFarEdge(const Candidates& candidates, int index);

/// The wanted candidates as objects of `frame`, best first; `scale` takes network pixels to frame
/// pixels. The far corner is computed from the truncated near corner. A bad box of the candidates
/// becomes that of the result.
FrameObjects wantedObjects(const Candidates& candidates, float scale, const VsaModelConfig& config,
                           const VsaFrame& frame);

}  // namespace TolCompatibleLib
