// YOLO26 detection on ONNX Runtime: an end-to-end head that needs no suppression.
// Input is [1, 3, H, W] floats, red first.
// Output 0 is [1, N, 6 or more] floats; row i is candidate i, as decodeYolo26 reads it.

#include "OnnxRuntime/OrDetect.h"
#include "OnnxRuntime/OrModels.h"
#include "Utils/Log.h"
#include "Utils/Objects.h"
#include "Utils/YoloDecode.h"

namespace TolCompatibleLib {
namespace {

class OrDetectYolo26 final : public OrDetect {
 public:
  OrDetectYolo26(const VsaModelConfig* modelConfig, const std::string& root)
      : OrDetect(modelConfig, root, kCandidateRows) {}
  // Deliberate: an empty line; these models have no name in the log.
  ~OrDetectYolo26() override { logInfo(""); }
  bool run(VsaFrame* frame) override;
};

bool OrDetectYolo26::run(VsaFrame* frame) {
  const std::optional<cv::Mat> image = openFrame(frame);
  if (!image) return false;
  if (outputDimensions[0] < kYolo26Columns) {
    logError("Yolo26 dimensions error:" + std::to_string(outputDimensions[0]));
    return false;
  }
  const auto inference = inferLetterboxed(*image);
  if (!inference) return false;
  FrameObjects found = decodeYolo26(inference->grid, inference->scale, *config, *frame);
  if (logBadBox(found.badBox)) return false;
  append(frame->objects, std::move(found.objects));
  return true;
}

}  // namespace

std::unique_ptr<VsaDetect> makeOrDetectYolo26(const VsaModelConfig* config,
                                              const std::string& modelRoot) {
  return std::make_unique<OrDetectYolo26>(config, modelRoot);
}

}  // namespace TolCompatibleLib
