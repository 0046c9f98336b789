// YOLOv8 instance segmentation: one anchor-free head with mask coefficients, and prototype masks.
// Output 0 is [1, 4 + classes + 32, N] floats; column i is candidate i:
//   rows 0-3       centre x, centre y, width, height in network pixels
//   rows 4-        one activated score per class
//   last 32 rows   the weight of each prototype in the candidate's mask
// Output 1 is [1, 32, Hm, Wm] floats: the prototypes.
// The host gets the outline of the largest part of a mask; objects without one are not reported.

#include <algorithm>
#include <array>

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
  std::optional<VsaObject> segmentObject(const Candidates& candidates, int index, FloatGrid columns,
                                         const MaskPrototypes& prototypes, float scale,
                                         const VsaFrame& frame);

  std::vector<std::uint8_t> maskMemory_;
};

/// Candidate `index` as an object with its outline; without a shape if it has no outline. Returns
/// nullopt, after one "[E]" line, if a coordinate does not fit an int32.
std::optional<VsaObject> OvDetectYolo8Seg::segmentObject(const Candidates& candidates, int index,
                                                         FloatGrid columns,
                                                         const MaskPrototypes& prototypes,
                                                         float scale, const VsaFrame& frame) {
  const auto i = static_cast<std::size_t>(index);
  const int candidate = candidates.outputIndices[i];
  const cv::Rect& box = candidates.boxes[i];
  if (logBadBox(badFarEdge(candidates, index))) return std::nullopt;

  MaskCoefficients coefficients;
  for (std::size_t k = 0; k < kMaskCoefficients; ++k) {
    coefficients[k] = columns.row(static_cast<int>(config->classCount + 4 + k))[candidate];
  }
  VsaShape outline;
  outline.tag = kVsaOutlineTag;
  for (const cv::Point& corner :
       maskOutline(prototypes, coefficients, box, inputSize, maskMemory_)) {
    const auto point = framePoint(static_cast<float>(corner.x) * scale,
                                  static_cast<float>(corner.y) * scale, "outline point", candidate);
    if (!point) return std::nullopt;
    outline.points.push_back(*point);
  }
  if (outline.points.empty()) return VsaObject();

  // Both edges are scaled as a whole, unlike those of plain detectors.
  const std::array<float, 4> edges{static_cast<float>(box.x) * scale,
                                   static_cast<float>(box.y) * scale,
                                   static_cast<float>(box.x + box.width) * scale,
                                   static_cast<float>(box.y + box.height) * scale};
  if (!std::ranges::all_of(edges, fitsInt)) {
    logBadBox(BadBox{candidate, edges});
    return std::nullopt;
  }
  const int classId = candidates.classIds[i];
  VsaObject object(static_cast<int>(frame.width), static_cast<int>(frame.height),
                   truncateToInt(edges[0]), truncateToInt(edges[1]), truncateToInt(edges[2]),
                   truncateToInt(edges[3]), candidates.scores[i], classId,
                   config->classNames[static_cast<std::size_t>(classId)]);
  object.shapes.push_back(std::move(outline));
  return object;
}

bool OvDetectYolo8Seg::run(VsaFrame* frame) {
  const auto inference = inferLetterboxed(frame);
  if (!inference) return false;
  const FloatGrid& columns = inference->grid;
  const std::size_t classes = config->classCount;
  if (!checkDimension("Yolo8-Seg", std::size_t(columns.rows), classes + 4 + kMaskCoefficients)) {
    return false;
  }
  const ov::Tensor masks = inferRequest.get_output_tensor(1);
  const std::optional<FloatGrid> prototype = gridOf(masks, 4);
  if (!prototype ||
      !checkDimension("Yolo8-Seg mask coeffs", masks.get_shape()[1], kMaskCoefficients)) {
    return false;
  }
  const MaskPrototypes prototypes{prototype->data, {prototype->cols, prototype->rows}};

  const Candidates candidates =
      decodeYolo8(columns, static_cast<int>(classes), config->scoreThreshold);
  if (logBadBox(candidates.badBox)) return false;
  std::vector<VsaObject> objects;
  for (const int index : wantedAfterNms(candidates, *config, frame->wantedClasses)) {
    std::optional<VsaObject> object =
        segmentObject(candidates, index, columns, prototypes, inference->scale, *frame);
    if (!object) return false;
    if (!object->shapes.empty()) objects.push_back(std::move(*object));
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
