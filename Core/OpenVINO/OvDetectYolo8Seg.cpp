// YOLOv8 instance segmentation: one anchor-free head with mask coefficients, and prototype masks.
// Output 0 is [1, 4 + classes + 32, N] floats; column i is candidate i:
//   rows 0-3       centre x, centre y, width, height in network pixels
//   rows 4-        one activated score per class
//   last 32 rows   how much of each prototype goes into the candidate's mask
// Output 1 is [1, 32, Hm, Wm] floats: the prototypes.
// A mask leaves the library as the outline of its largest part; objects without one are not
// reported.

#include "OpenVINO/OvModel.h"
#include "OpenVINO/OvModels.h"
#include "Utils/Log.h"
#include "Utils/MaskOutline.h"
#include "Utils/Numbers.h"
#include "Utils/Objects.h"
#include "Utils/YoloDecode.h"

namespace TolCompatibleLib {
namespace {

class OvDetectYolo8Seg final : public OvModel<VsaDetect> {
 public:
  OvDetectYolo8Seg(const VsaModelConfig* modelConfig, const std::string& root)
      : OvModel("OvDetectYolo8Seg", modelConfig, root) {}
  ~OvDetectYolo8Seg() override { logInfo("~OvDetectYolo8Seg()"); }
  bool run(VsaFrame* frame) override;

 private:
  std::vector<std::uint8_t> maskMemory_;
};

/// The object of candidate `index` without its outline. Both edges are scaled as a whole, unlike
/// those of plain detectors.
VsaObject segmentObject(const Candidates& found, int index, float scale,
                        const VsaModelConfig& config, const VsaFrame& frame) {
  const auto i = static_cast<std::size_t>(index);
  const cv::Rect& box = found.boxes[i];
  const auto scaled = [scale](int edge) { return truncateToInt(static_cast<float>(edge) * scale); };
  const int classId = found.classIds[i];
  return VsaObject(static_cast<int>(frame.width), static_cast<int>(frame.height), scaled(box.x),
                   scaled(box.y), scaled(saturatedSum(box.x, box.width)),
                   scaled(saturatedSum(box.y, box.height)), found.scores[i], classId,
                   config.classNames[static_cast<std::size_t>(classId)]);
}

bool OvDetectYolo8Seg::run(VsaFrame* frame) {
  const std::optional<float> scale = inferLetterboxed(frame);
  if (!scale) return false;
  const ov::Tensor output = inferRequest.get_output_tensor(0);
  const std::optional<FloatGrid> columns = gridOf(output, 3);
  if (!columns) return false;
  const std::size_t classes = config->classCount;
  if (static_cast<std::size_t>(columns->rows) != classes + 4 + kMaskCoefficients) {
    logError("Yolo8-Seg dimensions error:" + std::to_string(columns->rows));
    return false;
  }
  const ov::Tensor masks = inferRequest.get_output_tensor(1);
  const std::optional<FloatGrid> prototype = gridOf(masks, 4);
  if (!prototype) return false;
  if (const std::size_t count = masks.get_shape()[1]; count != kMaskCoefficients) {
    logError("Yolo8-Seg mask coeffs dimensions error:" + std::to_string(count));
    return false;
  }
  const MaskPrototypes prototypes{prototype->data, {prototype->cols, prototype->rows}};

  const Candidates found = decodeYolo8(*columns, static_cast<int>(classes), config->scoreThreshold);
  if (!usable(found.badBox)) return false;
  std::vector<VsaObject> objects;
  for (const int i : wantedAfterSuppression(found, *config, frame->wantedClasses)) {
    MaskCoefficients coefficients;
    for (std::size_t k = 0; k < kMaskCoefficients; ++k) {
      coefficients[k] = columns->row(
          static_cast<int>(classes + 4 + k))[found.places[static_cast<std::size_t>(i)]];
    }
    const std::vector<cv::Point> outline = maskOutline(
        prototypes, coefficients, found.boxes[static_cast<std::size_t>(i)], inputSize, maskMemory_);
    if (outline.empty()) continue;
    VsaShape shape;
    shape.tag = kVsaOutlineTag;
    for (const cv::Point& point : outline) {
      shape.points.push_back({truncateToInt(static_cast<float>(point.x) * *scale),
                              truncateToInt(static_cast<float>(point.y) * *scale)});
    }
    objects.push_back(segmentObject(found, i, *scale, *config, *frame));
    objects.back().shapes.push_back(std::move(shape));
  }
  append(frame->objects, std::move(objects));
  return true;
}

}  // namespace

std::unique_ptr<VsaDetect> makeOvDetectYolo8Seg(const VsaModelConfig* config,
                                                const std::string& modelRoot) {
  return std::make_unique<OvDetectYolo8Seg>(config, modelRoot);
}

}  // namespace TolCompatibleLib
