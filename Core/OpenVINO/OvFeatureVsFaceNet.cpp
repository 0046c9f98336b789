// Face embeddings: 128 numbers for every object of the frame, not normalised.
// Input is [1, 3, H, W] floats: the object's box, as FitToInput fits it.
// Output 0 begins with the 128 numbers.

#include "OpenVINO/OvModel.h"
#include "OpenVINO/OvModels.h"
#include "Utils/Log.h"
#include "Utils/Objects.h"

namespace TolCompatibleLib {
namespace {

constexpr std::size_t kLength = 128;

class OvFeatureVsFaceNet final : public OvModel<VsaFeature> {
 public:
  OvFeatureVsFaceNet(const VsaModelConfig* modelConfig, const std::string& root)
      : OvModel("OvFeatureVsFaceNet", modelConfig, root) {}
  ~OvFeatureVsFaceNet() override { logInfo("~OvFeatureVsFaceNet()"); }
  bool run(VsaFrame* frame) override;
};

bool OvFeatureVsFaceNet::run(VsaFrame* frame) {
  std::vector<float> features;
  const auto readFeature = [&features](std::size_t /*index*/, const ov::Tensor& output) {
    const auto numbers = firstFloats(output, kLength);
    if (numbers) features.insert(features.end(), numbers->begin(), numbers->end());
    return numbers.has_value();
  };
  if (!inferRegions(frame, FitToInput, readFeature)) return false;
  setFeatures(frame->objects, features, kLength);
  return true;
}

}  // namespace

std::unique_ptr<VsaFeature> makeOvFeatureVsFaceNet(const VsaModelConfig* config,
                                                   const std::string& modelRoot) {
  return std::make_unique<OvFeatureVsFaceNet>(config, modelRoot);
}

}  // namespace TolCompatibleLib
