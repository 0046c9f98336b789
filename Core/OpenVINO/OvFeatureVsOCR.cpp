// Text recognition with the host's own alphabet: reads the box of every object of the frame as one
// line. Input is [1, 3, H, W] floats: the box, stretched to that size. Output 0 holds the scores of
// each class at each time step, class 0 being the CTC blank, in a layout that its shape tells.

#include "OpenVINO/OvModel.h"
#include "OpenVINO/OvModels.h"
#include "Utils/Log.h"
#include "Utils/Objects.h"
#include "Utils/PreProcessUtils.h"
#include "Utils/TextDecode.h"

namespace TolCompatibleLib {
namespace {

class OvFeatureVsOCR final : public OvModel<VsaFeature> {
 public:
  OvFeatureVsOCR(const VsaModelConfig* modelConfig, const std::string& root)
      : OvModel("OvFeatureVsOCR", modelConfig, root) {}
  ~OvFeatureVsOCR() override { logInfo("~OvFeatureVsOCR()"); }
  bool run(VsaFrame* frame) override;
};

/// The text in an output; empty, after one "[E]" line, where its shape has no known layout.
std::string DecodeOcrOutput(const ov::Tensor& output, std::span<const float> scores,
                            const std::vector<std::string>& alphabet) {
  const ov::Shape& shape = output.get_shape();
  const OcrLayoutResult found = ocrLayoutOf(shape);
  if (found.error != nullptr) {
    logError(found.error);
    return {};
  }
  return decodeOcr(scores.data(), found.layout, alphabet);
}

bool OvFeatureVsOCR::run(VsaFrame* frame) {
  if (isImageWithoutObjects(frame)) return true;
  const std::optional<cv::Mat> image = imageOf(frame);
  if (!image) return false;
  Results<std::string> texts;
  float* planes = nullptr;  // the same for every region
  for (std::size_t i = 0; i < frame->objects.size(); ++i) {
    const cv::Mat region = regionOf(*image, frame->objects[i]);
    if (planes == nullptr) planes = shapedInputPlanes();
    if (planes == nullptr) return false;
    PrepareOcrInput(region, inputSize, planes);
    inferRequest.infer();
    const ov::Tensor output = inferRequest.get_output_tensor(0);
    const auto scores = firstFloats(output, output.get_size());
    if (!scores) return false;
    texts.emplace_back(i, DecodeOcrOutput(output, *scores, config->classNames));
  }
  rewrite(frame->objects, texts, setText);
  return true;
}

}  // namespace

std::unique_ptr<VsaFeature> makeOvFeatureVsOCR(const VsaModelConfig* config,
                                               const std::string& modelRoot) {
  return std::make_unique<OvFeatureVsOCR>(config, modelRoot);
}

}  // namespace TolCompatibleLib
