// YOLOv8 oriented boxes: one anchor-free head with an angle.
// Output 0 is [1, 4 + classes + 1, N] floats; column i is candidate i:
//   rows 0-3   centre x, centre y, width, height in network pixels, of the box before rotation
//   rows 4-    one activated score per class
//   last row   the angle, which is passed to the host unchanged
// NMS works on the boxes before rotation.

#include "OpenVINO/OvModel.h"
#include "OpenVINO/OvModels.h"
#include "Utils/Log.h"
#include "Utils/Objects.h"
#include "Utils/YoloDecode.h"

namespace TolCompatibleLib {
namespace {

class OvDetectYolo8Obb final : public OvModel<VsaDetect> {
 public:
  OvDetectYolo8Obb(const VsaModelConfig* modelConfig, const std::string& root)
      : OvModel("OvDetectYolo8Obb", modelConfig, root) {}
  ~OvDetectYolo8Obb() override { logInfo("~OvDetectYolo8Obb()"); }
  bool run(VsaFrame* frame) override;
};

bool OvDetectYolo8Obb::run(VsaFrame* frame) {
  const auto inference = inferLetterboxed(frame);
  if (!inference) return false;
  const FloatGrid& columns = inference->grid;
  if (!checkDimension("Yolo8-Obb", std::size_t(columns.rows),
                      std::size_t{config->classCount} + 5)) {
    return false;
  }
  const Candidates candidates =
      decodeYolo8(columns, static_cast<int>(config->classCount), config->scoreThreshold);
  FrameObjects found = wantedObjects(candidates, inference->scale, *config, *frame);
  if (logBadBox(found.badBox)) return false;
  const float* const angles = columns.row(columns.rows - 1);
  for (std::size_t i = 0; i < found.objects.size(); ++i) {
    found.objects[i].angle = angles[found.outputIndices[i]];
  }
  append(frame->objects, std::move(found.objects));
  return true;
}

}  // namespace

std::unique_ptr<VsaDetect> makeOvDetectYolo8Obb(const VsaModelConfig* config,
                                                const std::string& modelRoot) {
  return std::make_unique<OvDetectYolo8Obb>(config, modelRoot);
}

}  // namespace TolCompatibleLib
