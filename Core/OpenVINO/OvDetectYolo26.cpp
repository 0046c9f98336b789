// YOLO26 detection: an end-to-end head that needs no suppression.
// Output 0 is [1, N, 6 or more] floats; row i is candidate i:
//   columns 0-3  x1, y1, x2, y2 in network pixels
//   column 4     score
//   column 5     class id, as a float; its fraction is dropped

#include "OpenVINO/OvModel.h"
#include "OpenVINO/OvModels.h"
#include "Utils/Log.h"
#include "Utils/Objects.h"
#include "Utils/YoloDecode.h"

namespace TolCompatibleLib {
namespace {

class OvDetectYolo26 final : public OvModel<VsaDetect> {
 public:
  OvDetectYolo26(const VsaModelConfig* modelConfig, const std::string& root)
      : OvModel("OvDetectYolo26", modelConfig, root) {}
  ~OvDetectYolo26() override { logInfo("~OvDetectYolo26()"); }
  bool run(VsaFrame* frame) override;
};

bool OvDetectYolo26::run(VsaFrame* frame) {
  const auto inference = inferLetterboxed(frame);
  if (!inference) return false;
  if (inference->grid.cols < kYolo26Columns) {
    logError("Yolo26 dimensions error:" + std::to_string(inference->grid.cols));
    return false;
  }
  FrameObjects found = decodeYolo26(inference->grid, inference->scale, *config, *frame);
  if (logBadBox(found.badBox)) return false;
  append(frame->objects, std::move(found.objects));
  return true;
}

}  // namespace

std::unique_ptr<VsaDetect> makeOvDetectYolo26(const VsaModelConfig* config,
                                              const std::string& modelRoot) {
  return std::make_unique<OvDetectYolo26>(config, modelRoot);
}

}  // namespace TolCompatibleLib
