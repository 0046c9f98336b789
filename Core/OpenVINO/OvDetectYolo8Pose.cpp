// YOLOv8 pose: one anchor-free head of a single class with K key points.
// Output 0 is [1, 5 + 3 K, N] floats; column i is candidate i:
//   rows 0-3   centre x, centre y, width, height in network pixels
//   row 4      confidence
//   rows 5-    x, y, visibility of each key point; the visibility is not used
// There is no class filter; key points are not clamped to the frame.

#include "OpenVINO/OvModel.h"
#include "OpenVINO/OvModels.h"
#include "Utils/Log.h"
#include "Utils/Numbers.h"
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

/// Key points of one candidate in frame pixels, under their tag; nothing, after one "[E]" line,
/// where no integer holds one.
std::optional<VsaShape> keyPointsOf(FloatGrid columns, int candidate, std::size_t count,
                                    float scale,
                                    std::source_location where = std::source_location::current()) {
  VsaShape shape;
  shape.tag = kVsaKeyPointsTag;
  shape.points.reserve(count);
  for (int row = 5; row + 2 < columns.rows; row += 3) {
    const float x = columns.row(row)[candidate] * scale;
    const float y = columns.row(row + 1)[candidate] * scale;
    if (!fitsInt(x) || !fitsInt(y)) {
      logError("key point of candidate " + std::to_string(candidate) +
                   " is out of range:" + std::to_string(x) + "," + std::to_string(y),
               where);
      return std::nullopt;
    }
    shape.points.push_back({truncateToInt(x), truncateToInt(y)});
  }
  return shape;
}

bool OvDetectYolo8Pose::run(VsaFrame* frame) {
  const std::optional<float> scale = inferLetterboxed(frame);
  if (!scale) return false;
  const ov::Tensor output = inferRequest.get_output_tensor(0);
  const std::optional<FloatGrid> columns = gridOf(output, 3);
  if (!columns) return false;
  // Deliberate: the class count is the number of key points, save that a one-class configuration
  // means 17.
  const std::size_t keyPoints = config->classCount == 1 ? 17 : config->classCount;
  if (static_cast<std::size_t>(columns->rows) != 3 * keyPoints + 5) {
    logError("Yolo8-Pose dimensions error:" + std::to_string(columns->rows));
    return false;
  }
  const Candidates found = decodeYolo8Pose(*columns, config->scoreThreshold, *scale);
  if (!usable(found.badBox)) return false;
  std::vector<VsaObject> objects;
  for (const int i : suppressed(found, *config)) {
    if (config->classNames.empty()) break;  // the one class has no name
    const auto place = static_cast<std::size_t>(i);
    std::optional<VsaShape> shape = keyPointsOf(*columns, found.places[place], keyPoints, *scale);
    if (!shape) return false;
    const cv::Rect& box = found.boxes[place];
    objects.emplace_back(static_cast<int>(frame->width), static_cast<int>(frame->height), box.x,
                         box.y, saturatedSum(box.x, box.width), saturatedSum(box.y, box.height),
                         found.scores[place], 0, config->classNames.front());
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
