// YOLOv5 detection on ONNX Runtime: one anchor-based head.
// Input is [1, 3, H, W] floats, red first (on OpenVINO the same family gets bytes, blue first).
// Output 0 is [1, N, 5 + classes] floats; row i is candidate i, as decodeYolo5 reads it.

#include "OnnxRuntime/OrDetect.h"
#include "OnnxRuntime/OrModels.h"
#include "Utils/Log.h"
#include "Utils/Objects.h"
#include "Utils/YoloDecode.h"

namespace TolCompatibleLib {
namespace {

class OrDetectYolo5 final : public OrDetect {
 public:
  OrDetectYolo5(const VsaModelConfig* modelConfig, const std::string& root)
      : OrDetect(modelConfig, root, kCandidateRows) {}
  // Deliberate: an empty line; these models have no name in the log.
  ~OrDetectYolo5() override { logInfo(""); }
  bool run(VsaFrame* frame) override;
};

bool OrDetectYolo5::run(VsaFrame* frame) {
  const std::optional<cv::Mat> image = openFrame(frame);
  if (!image) return false;
  // Deliberate: before inference, against the size that the network had when it was opened.
  if (!checkDimension("Yolo5", std::size_t(outputDimensions[0]),
                      std::size_t{config->classCount} + 5)) {
    return false;
  }
  const auto inference = inferLetterboxed(*image);
  if (!inference) return false;
  const Candidates candidates = decodeYolo5(inference->grid, static_cast<int>(config->classCount),
                                            config->objThreshold, config->scoreThreshold);
  FrameObjects found = wantedObjects(candidates, inference->scale, *config, *frame);
  if (logBadBox(found.badBox)) return false;
  append(frame->objects, std::move(found.objects));
  return true;
}

}  // namespace

std::unique_ptr<VsaDetect> makeOrDetectYolo5(const VsaModelConfig* config,
                                             const std::string& modelRoot) {
  return std::make_unique<OrDetectYolo5>(config, modelRoot);
}

}  // namespace TolCompatibleLib
