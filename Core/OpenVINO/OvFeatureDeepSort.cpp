// Appearance features for re-identification: 256 numbers for every object of the frame, not
// normalised. Input is [1, 3, H, W] floats: the object's box, as FitToInputNormalized fits it.
// Output 0 begins with the 256 numbers.

#include "OpenVINO/OvEmbedding.h"
#include "OpenVINO/OvModels.h"
#include "Utils/Log.h"

namespace TolCompatibleLib {
namespace {

class OvFeatureDeepSort final : public OvEmbedding {
 public:
  OvFeatureDeepSort(const VsaModelConfig* modelConfig, const std::string& root)
      : OvEmbedding("OvFeatureDeepSort", modelConfig, root) {}
  ~OvFeatureDeepSort() override { logInfo("~OvFeatureDeepSort()"); }
  bool run(VsaFrame* frame) override { return embed(frame, FitToInputNormalized, 256); }
};

}  // namespace

std::unique_ptr<VsaFeature> makeOvFeatureDeepSort(const VsaModelConfig* config,
                                                  const std::string& modelRoot) {
  return std::make_unique<OvFeatureDeepSort>(config, modelRoot);
}

}  // namespace TolCompatibleLib
