// YOLOv5 detection on ONNX Runtime: one anchor-based head.
// Input is [1, 3, H, W] floats, red first (on OpenVINO the same family is shown bytes, blue first).
// Output 0 is [1, N, 5 + classes] floats; row i is candidate i, as decodeYolo5 reads it.

#include "OnnxRuntime/OrDetect.h"
#include "OnnxRuntime/OrModels.h"
#include "Utils/Log.h"
#include "Utils/Objects.h"
#include "Utils/PreProcessUtils.h"
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
  const std::optional<cv::Mat> image = imageOf(frame);
  if (!image || !isOpen()) return false;
  // Deliberate: before inference, against the size that the network had when it was opened.
  if (static_cast<std::size_t>(outputDimensions[0]) != std::size_t{config->classCount} + 5) {
    logError("Yolo5 dimensions error:" + std::to_string(outputDimensions[0]));
    return false;
  }
  const std::optional<Answer> answer = inferLetterboxed(*image);
  if (!answer) return false;
  const Candidates found = decodeYolo5(answer->grid, static_cast<int>(config->classCount),
                                       config->objThreshold, config->scoreThreshold);
  if (!usable(found.badBox)) return false;
  append(frame->objects, wantedObjects(found, answer->scale, *config, *frame));
  return true;
}

}  // namespace

std::unique_ptr<VsaDetect> makeOrDetectYolo5(const VsaModelConfig* config,
                                             const std::string& modelRoot) {
  return std::make_unique<OrDetectYolo5>(config, modelRoot);
}

}  // namespace TolCompatibleLib
