// Image classification of the objects that a detector found.
// Input is [1, 3, H, W] floats: the object's box, stretched to that size.
// Output 0 begins with one score per class; the result is the best one divided by the sum of the
// positive ones. Objects without a wanted class are dropped from the frame.

#include <cmath>

#include "OpenVINO/OvModel.h"
#include "OpenVINO/OvModels.h"
#include "Utils/ClassScore.h"
#include "Utils/Log.h"
#include "Utils/Objects.h"

namespace TolCompatibleLib {
namespace {

class OvClassifyResNet final : public OvModel<VsaClassify> {
 public:
  OvClassifyResNet(const VsaModelConfig* modelConfig, const std::string& root)
      : OvModel("OvClassifyResNet", modelConfig, root) {}
  ~OvClassifyResNet() override { logInfo("~OvClassifyResNet()"); }
  bool run(VsaFrame* frame) override;
};

struct Classification {
  ClassScore best;
  std::string label;
};

bool OvClassifyResNet::run(VsaFrame* frame) {
  Results<Classification> results;
  const auto readClass = [&](std::size_t index, const ov::Tensor& output) {
    const auto scores = firstFloats(output, config->classCount);
    if (!scores) return false;
    const ClassScore best = bestClass(*scores);
    if (best.score < config->scoreThreshold || std::isnan(best.score)) return true;
    const std::string* label = wantedName(best.classId, *config, frame->wantedLabels);
    if (label != nullptr) results.emplace_back(index, Classification{best, *label});
    return true;
  };
  if (!inferRegions(frame, fillClassifierPlanes, readClass)) return false;
  rewrite(frame->objects, results, [](VsaObject& object, Classification& result) noexcept {
    object.classifyScore = result.best.score;
    object.classifyId = result.best.classId;
    object.classifyName = std::move(result.label);
  });
  return true;
}

}  // namespace

std::unique_ptr<VsaClassify> makeOvClassifyResNet(const VsaModelConfig* config,
                                                  const std::string& modelRoot) {
  return std::make_unique<OvClassifyResNet>(config, modelRoot);
}

}  // namespace TolCompatibleLib
