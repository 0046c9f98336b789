// Image classification of the objects that a detector found.
// Input is [1, 3, H, W] floats: the object's box, stretched to that size.
// Output 0 begins with one score per class; the best one's share of the positive scores is what
// counts. Objects that no wanted class was found for are dropped from the frame.

#include <cmath>

#include "OpenVINO/OvModel.h"
#include "OpenVINO/OvModels.h"
#include "Utils/ClassScore.h"
#include "Utils/Log.h"
#include "Utils/Objects.h"
#include "Utils/PreProcessUtils.h"

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
  if (isImageWithoutObjects(frame)) return true;
  const std::optional<cv::Mat> image = imageOf(frame);
  if (!image) return false;
  Results<Classification> results;
  float* planes = nullptr;  // the same for every region
  for (std::size_t i = 0; i < frame->objects.size(); ++i) {
    const cv::Mat region = regionOf(*image, frame->objects[i]);
    if (planes == nullptr) planes = shapedInputPlanes();
    if (planes == nullptr) return false;
    fillClassifierPlanes(region, inputSize, planes);
    inferRequest.infer();
    const ov::Tensor output = inferRequest.get_output_tensor(0);
    const auto scores = firstFloats(output, config->classCount);
    if (!scores) return false;
    const ClassScore best = bestClass(*scores);
    if (best.score < config->scoreThreshold || std::isnan(best.score)) continue;
    const std::string* label = wantedName(best.classId, *config, frame->wantedLabels);
    if (label != nullptr) results.emplace_back(i, Classification{best, *label});
  }
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
