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
  /// The box before truncation; if the class id does not fit: x2, y2, score and class id.
  std::array<float, 4> numbers;
};

/// If `badBox` has a value, logs its numbers in one "[E]" line and returns true.
bool logBadBox(const std::optional<BadBox>& badBox,
               std::source_location where = std::source_location::current());

/// A point in frame pixels with its coordinates truncated to integers. Returns nullopt, after one
/// "[E]" line, if a coordinate does not fit an int32.
/// @param what the name of the point in that line, for example "key point".
std::optional<VsaPoint> framePoint(float x, float y, std::string_view what, int outputIndex,
                                   std::source_location where = std::source_location::current());

/// Returns whether a dimension of an output has the expected length. If not, logs one "[E]" line:
/// `family`, " dimensions error:" and the actual length.
bool checkDimension(std::string_view family, std::size_t actual, std::size_t expected,
                    std::source_location where = std::source_location::current());

/// Parallel lists, in the order of the output.
struct Candidates {
  std::vector<cv::Rect> boxes;
  std::vector<float> scores;
  std::vector<int> classIds;
  /// Row or column of the output, from which a model reads further values after NMS.
  std::vector<int> outputIndices;
  /// Set if a box does not fit; decoding stops at that candidate.
  std::optional<BadBox> badBox;

  /// Adds a candidate with its box truncated to integers; false if the box does not fit.
  bool add(float x, float y, float width, float height, float score, int classId, int outputIndex);
};

/// Candidates of an anchor-based YOLOv5 head, one per row: centre x, centre y, width, height,
/// objectness, then one score per class (`classCount` of them, which must exist). A row is a
/// candidate if its objectness is at least `objThreshold` and its maximum class score is greater
/// than `scoreThreshold`. The score of the candidate is the objectness alone.
Candidates decodeYolo5(FloatGrid rows, int classCount, float objThreshold, float scoreThreshold);

/// Candidates of an anchor-free YOLOv8 head, one per column: rows 0 to 3 hold centre x, centre y,
/// width and height, and the following `classCount` rows (which must exist) one activated score per
/// class. A column is a candidate if its maximum class score is greater than `scoreThreshold`.
Candidates decodeYolo8(FloatGrid columns, int classCount, float scoreThreshold);

/// Candidates of a YOLOv8 pose head, one per column: rows 0 to 3 as for decodeYolo8(), row 4 the
/// confidence, then key points. The boxes are already in frame pixels: scaled, then truncated.
Candidates decodeYolo8Pose(FloatGrid columns, float scoreThreshold, float scale);

/// Number of columns of a YOLO26 row that are read.
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

/// Indices of the candidates that NMS (see Nms.h) keeps, by descending score. NMS is applied across
/// all classes. Throws cv::Exception if a threshold is negative.
std::vector<int> keptAfterNms(const Candidates& candidates, const VsaModelConfig& config);

/// The indices from keptAfterNms() whose class has a name in `config` that is in `wantedClasses`.
/// The filter is applied after NMS, so unwanted candidates suppress others.
std::vector<int> wantedAfterNms(const Candidates& candidates, const VsaModelConfig& config,
                                const std::set<std::string>& wantedClasses);

/// The bad box of a candidate if its right or bottom edge (offset plus length) does not fit an
/// int32; nullopt if both fit.
std::optional<BadBox> badFarEdge(const Candidates& candidates, int index);

/// The wanted candidates as objects of `frame`, by descending score. Network pixels times `scale`
/// are frame pixels; the bottom-right corner is computed from the truncated top-left corner. If
/// `candidates` has a bad box, so has the result.
FrameObjects wantedObjects(const Candidates& candidates, float scale, const VsaModelConfig& config,
                           const VsaFrame& frame);

}  // namespace TolCompatibleLib
