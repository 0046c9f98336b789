// YOLOv8 pose: one anchor-free head of a single class with K key points.
// Output 0 is [1, 5 + 3 K, N] floats; column i is candidate i:
//   rows 0-3   centre x, centre y, width, height in network pixels
//   row 4      confidence
//   rows 5-    x, y, visibility of each key point; the visibility is not used
// There is no class filter; key points are not clamped to the frame.

#include "OpenVINO/OvModel.h"
#include "OpenVINO/OvModels.h"
#include "Utils/Log.h"
#include "Utils/Objects.h"
#include "Utils/YoloDecode.h"

namespace TolCompatibleLib {
namespace {

class OvDetectYolo8Pose final : public OvModel<VsaDetect> {
 public:
  OvDetectYolo8Pose(const VsaModelConfig* modelConfig, const std::string& root)
      : OvModel("OvDetectYolo8Pose", modelConfig, root) {}
  ~OvDetectYolo8Pose() override { logInfo("~OvDetectYolo8Pose()"); }
  bool run(VsaFrame* frame) override;
};

/// The key points of one candidate in frame pixels, under their tag. Returns nullopt, after one
/// "[E]" line, if a coordinate does not fit an int32.
std::optional<VsaShape> keyPointsOf(FloatGrid columns, int candidate, std::size_t count,
                                    float scale,
                                    std::source_location where = std::source_location::current()) {
  VsaShape shape;
  shape.tag = kVsaKeyPointsTag;
  shape.points.reserve(count);
  for (int row = 5; row + 2 < columns.rows; row += 3) {
    const float x = columns.row(row)[candidate] * scale;
    const float y = columns.row(row + 1)[candidate] * scale;
    const std::optional<VsaPoint> point = framePoint(x, y, "key point", candidate, where);
    if (!point) return std::nullopt;
    shape.points.push_back(*point);
  }
  return shape;
}

bool OvDetectYolo8Pose::run(VsaFrame* frame) {
  const auto inference = inferLetterboxed(frame);
  if (!inference) return false;
  const FloatGrid& columns = inference->grid;
  // Deliberate: the class count is the number of key points, except that 1 means 17.
  const std::size_t keyPoints = config->classCount == 1 ? 17 : config->classCount;
  if (!checkDimension("Yolo8-Pose", std::size_t(columns.rows), 3 * keyPoints + 5)) return false;
  const Candidates candidates = decodeYolo8Pose(columns, config->scoreThreshold, inference->scale);
  if (logBadBox(candidates.badBox)) return false;
  std::vector<VsaObject> objects;
  for (const int index : keptAfterNms(candidates, *config)) {
    if (config->classNames.empty()) break;  // the one class has no name
    const auto i = static_cast<std::size_t>(index);
    const cv::Rect& box = candidates.boxes[i];
    if (logBadBox(badFarEdge(candidates, index))) return false;
    std::optional<VsaShape> shape =
        keyPointsOf(columns, candidates.outputIndices[i], keyPoints, inference->scale);
    if (!shape) return false;
    objects.emplace_back(static_cast<int>(frame->width), static_cast<int>(frame->height), box.x,
                         box.y, box.x + box.width, box.y + box.height, candidates.scores[i], 0,
                         config->classNames.front());
    objects.back().shapes.push_back(std::move(*shape));
  }
  append(frame->objects, std::move(objects));
  return true;
}

}  // namespace

std::unique_ptr<VsaDetect> makeOvDetectYolo8Pose(const VsaModelConfig* config,
                                                 const std::string& modelRoot) {
  return std::make_unique<OvDetectYolo8Pose>(config, modelRoot);
}

}  // namespace TolCompatibleLib
