// Text recognition with the host's own alphabet: reads the box of every object of the frame as one
// line. Input is [1, 3, H, W] floats: the box, stretched to that size. Output 0 holds the scores of
// each class at each time step, class 0 being the CTC blank, in a layout that follows from its
// shape.

#include "OpenVINO/OvModel.h"
#include "OpenVINO/OvModels.h"
#include "Utils/Log.h"
#include "Utils/Objects.h"
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

/// The text in an output; empty, after one "[E]" line, if its shape has no known layout.
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
  Results<std::string> texts;
  const auto readText = [&](std::size_t index, const ov::Tensor& output) {
    const auto scores = firstFloats(output, output.get_size());
    if (scores) texts.emplace_back(index, DecodeOcrOutput(output, *scores, config->classNames));
    return scores.has_value();
  };
  if (!inferRegions(frame, PrepareOcrInput, readText)) return false;
  rewrite(frame->objects, texts, setText);
  return true;
}

}  // namespace

std::unique_ptr<VsaFeature> makeOvFeatureVsOCR(const VsaModelConfig* config,
                                               const std::string& modelRoot) {
  return std::make_unique<OvFeatureVsOCR>(config, modelRoot);
}

}  // namespace TolCompatibleLib
