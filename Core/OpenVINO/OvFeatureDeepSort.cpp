// Appearance features for re-identification: 256 numbers for every object of the frame, not
// normalised. Input is [1, 3, H, W] floats: the object's box, as FitToInputNormalized fits it.
// Output 0 begins with the 256 numbers.

#include "OpenVINO/OvModel.h"
#include "OpenVINO/OvModels.h"
#include "Utils/Log.h"
#include "Utils/Objects.h"

namespace TolCompatibleLib {
namespace {

constexpr std::size_t kLength = 256;

class OvFeatureDeepSort final : public OvModel<VsaFeature> {
 public:
  OvFeatureDeepSort(const VsaModelConfig* modelConfig, const std::string& root)
      : OvModel("OvFeatureDeepSort", modelConfig, root) {}
  ~OvFeatureDeepSort() override { logInfo("~OvFeatureDeepSort()"); }
  bool run(VsaFrame* frame) override;
};

bool OvFeatureDeepSort::run(VsaFrame* frame) {
  std::vector<float> features;
  const auto readFeature = [&features](std::size_t /*index*/, const ov::Tensor& output) {
    const auto numbers = firstFloats(output, kLength);
    if (numbers) features.insert(features.end(), numbers->begin(), numbers->end());
    return numbers.has_value();
  };
  if (!inferRegions(frame, FitToInputNormalized, readFeature)) return false;
  setFeatures(frame->objects, features, kLength);
  return true;
}

}  // namespace

std::unique_ptr<VsaFeature> makeOvFeatureDeepSort(const VsaModelConfig* config,
                                                  const std::string& modelRoot) {
  return std::make_unique<OvFeatureDeepSort>(config, modelRoot);
}

}  // namespace TolCompatibleLib
