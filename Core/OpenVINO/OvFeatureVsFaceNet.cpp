// Face embeddings: 128 numbers for every object of the frame, not normalised.
// Input is [1, 3, H, W] floats: the object's box, as FitToInput fits it.
// Output 0 begins with the 128 numbers.

#include "OpenVINO/OvEmbedding.h"
#include "OpenVINO/OvModels.h"
#include "Utils/Log.h"

namespace TolCompatibleLib {
namespace {

class OvFeatureVsFaceNet final : public OvEmbedding {
 public:
  OvFeatureVsFaceNet(const VsaModelConfig* modelConfig, const std::string& root)
      : OvEmbedding("OvFeatureVsFaceNet", modelConfig, root) {}
  ~OvFeatureVsFaceNet() override { logInfo("~OvFeatureVsFaceNet()"); }
  bool run(VsaFrame* frame) override { return embed(frame, FitToInput, 128); }
};

}  // namespace

std::unique_ptr<VsaFeature> makeOvFeatureVsFaceNet(const VsaModelConfig* config,
                                                   const std::string& modelRoot) {
  return std::make_unique<OvFeatureVsFaceNet>(config, modelRoot);
}

}  // namespace TolCompatibleLib
