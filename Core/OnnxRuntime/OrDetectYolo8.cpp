// YOLOv8 detection on ONNX Runtime: one anchor-free head.
// Input is [1, 3, H, W] floats, red first.
// Output 0 is [1, 4 + classes, N] floats; column i is candidate i, as decodeYolo8 reads it.
//
// The list of ONNX Runtime's devices is here, too: its log line carries this file's name.

#include <algorithm>

#include "OnnxRuntime/OrDetect.h"
#include "OnnxRuntime/OrModels.h"
#include "Utils/Log.h"
#include "Utils/Objects.h"
#include "Utils/YoloDecode.h"

namespace TolCompatibleLib {
namespace {

class OrDetectYolo8 final : public OrDetect {
 public:
  OrDetectYolo8(const VsaModelConfig* modelConfig, const std::string& root)
      : OrDetect(modelConfig, root, kCandidateColumns) {}
  // Deliberate: an empty line; these models have no name in the log.
  ~OrDetectYolo8() override { logInfo(""); }
  bool run(VsaFrame* frame) override;
};

bool OrDetectYolo8::run(VsaFrame* frame) {
  const std::optional<cv::Mat> image = openFrame(frame);
  if (!image) return false;
  // Deliberate: before inference, against the size that the network had when it was opened.
  if (!checkDimension("Yolo8", std::size_t(outputDimensions[0]),
                      std::size_t{config->classCount} + 4)) {
    return false;
  }
  const auto inference = inferLetterboxed(*image);
  if (!inference) return false;
  const Candidates candidates =
      decodeYolo8(inference->grid, static_cast<int>(config->classCount), config->scoreThreshold);
  FrameObjects found = wantedObjects(candidates, inference->scale, *config, *frame);
  if (logBadBox(found.badBox)) return false;
  append(frame->objects, std::move(found.objects));
  return true;
}

}  // namespace

std::unique_ptr<VsaDetect> makeOrDetectYolo8(const VsaModelConfig* config,
                                             const std::string& modelRoot) {
  return std::make_unique<OrDetectYolo8>(config, modelRoot);
}

void addOnnxRuntimeDevices(VsaDeviceSet& devices) {
  logInfo(std::string("OnnxRuntime ") + OrtGetApiBase()->GetVersionString());
  openApi();
  // Deliberate: no other provider is reported, whatever ONNX Runtime offers; models run on the CPU.
  const std::vector<std::string> providers = Ort::GetAvailableProviders();
  if (std::ranges::count(providers, "CPUExecutionProvider") > 0) devices.insert("ONNXRuntime-CPU");
}

}  // namespace TolCompatibleLib
