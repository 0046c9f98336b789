// YOLOv5 detection: one anchor-based head.
// Input is [1, H, W, 3] bytes: the normalisation is compiled into the network.
// Output 0 is [1, N, 5 + classes] floats; row i is candidate i:
//   columns 0-3  centre x, centre y, width, height in network pixels
//   column 4     objectness; it alone is the candidate's score
//   columns 5-   one score per class
// NMS works across classes, and before the host's class filter.

#include "OpenVINO/OvModel.h"
#include "OpenVINO/OvModels.h"
#include "Utils/Log.h"
#include "Utils/Objects.h"
#include "Utils/YoloDecode.h"

namespace TolCompatibleLib {
namespace {

/// Reads the network and prepends the conversion from bytes to planes with values 0 to 1.
ov::CompiledModel compileWithNormalisation(ov::Core& core, const std::string& file,
                                           const std::string& device) {
  ov::preprocess::PrePostProcessor stages(core.read_model(file));
  // Deliberate: input and model are both declared RGB, so no channels are swapped and the network
  // gets the host's order, blue first.
  stages.input()
      .tensor()
      .set_element_type(ov::element::u8)
      .set_layout("NHWC")
      .set_color_format(ov::preprocess::ColorFormat::RGB);
  stages.input()
      .preprocess()
      .convert_element_type(ov::element::f32)
      .convert_color(ov::preprocess::ColorFormat::RGB)
      .scale({255.0F, 255.0F, 255.0F});
  stages.input().model().set_layout("NCHW");
  stages.output(0).tensor().set_element_type(ov::element::f32);
  return core.compile_model(stages.build(), device, ov::AnyMap{});
}

class OvDetectYolo5 final : public OvModel<VsaDetect> {
 public:
  OvDetectYolo5(const VsaModelConfig* modelConfig, const std::string& root)
      : OvModel("OvDetectYolo5", modelConfig, root, compileWithNormalisation) {}
  ~OvDetectYolo5() override { logInfo("~OvDetectYolo5()"); }
  bool run(VsaFrame* frame) override;
};

bool OvDetectYolo5::run(VsaFrame* frame) {
  const auto inference = inferLetterboxed(frame, InputFormat::kPixels);
  if (!inference) return false;
  const FloatGrid& rows = inference->grid;
  if (!checkDimension("Yolo5", std::size_t(rows.cols), std::size_t{config->classCount} + 5)) {
    return false;
  }
  const Candidates candidates = decodeYolo5(rows, static_cast<int>(config->classCount),
                                            config->objThreshold, config->scoreThreshold);
  FrameObjects found = wantedObjects(candidates, inference->scale, *config, *frame);
  if (logBadBox(found.badBox)) return false;
  append(frame->objects, std::move(found.objects));
  return true;
}

}  // namespace

std::unique_ptr<VsaDetect> makeOvDetectYolo5(const VsaModelConfig* config,
                                             const std::string& modelRoot) {
  return std::make_unique<OvDetectYolo5>(config, modelRoot);
}

}  // namespace TolCompatibleLib
