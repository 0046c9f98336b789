// YOLOv8 oriented boxes: one anchor-free head with an angle.
// Output 0 is [1, 4 + classes + 1, N] floats; column i is candidate i:
//   rows 0-3   centre x, centre y, width, height in network pixels, of the box before it is turned
//   rows 4-    one activated score per class
//   last row   the angle, which reaches the host as it is
// Suppression works on the boxes before they are turned.

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
  const std::optional<float> scale = inferLetterboxed(frame);
  if (!scale) return false;
  const ov::Tensor output = inferRequest.get_output_tensor(0);
  const std::optional<FloatGrid> columns = gridOf(output, 3);
  if (!columns) return false;
  if (static_cast<std::size_t>(columns->rows) != std::size_t{config->classCount} + 5) {
    logError("Yolo8-Obb dimensions error:" + std::to_string(columns->rows));
    return false;
  }
  const Candidates found =
      decodeYolo8(*columns, static_cast<int>(config->classCount), config->scoreThreshold);
  if (!usable(found.badBox)) return false;
  const float* const angles = columns->row(columns->rows - 1);
  std::vector<VsaObject> objects;
  for (const int i : wantedAfterSuppression(found, *config, frame->wantedClasses)) {
    objects.push_back(frameObject(found, i, *scale, *config, *frame));
    objects.back().angle = angles[found.places[static_cast<std::size_t>(i)]];
  }
  append(frame->objects, std::move(objects));
  return true;
}

}  // namespace

std::unique_ptr<VsaDetect> makeOvDetectYolo8Obb(const VsaModelConfig* config,
                                                const std::string& modelRoot) {
  return std::make_unique<OvDetectYolo8Obb>(config, modelRoot);
}

}  // namespace TolCompatibleLib
