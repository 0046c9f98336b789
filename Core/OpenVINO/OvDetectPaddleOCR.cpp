// Text-region detection: a map of the probability that a pixel belongs to text.
// Input is [1, 3, H, W] floats: the frame, shrunk to the configured limit, its sides rounded up to
// multiples of 32. Output 0 is [1, 1, Hm, Wm] floats, 0 to 1. Every region becomes an object with
// four corners; there is no class filter.

#include <algorithm>
#include <cmath>

#include "OpenVINO/OvModel.h"
#include "OpenVINO/OvModels.h"
#include "Utils/Log.h"
#include "Utils/Numbers.h"
#include "Utils/Objects.h"
#include "Utils/PreProcessUtils.h"
#include "Utils/TextRegions.h"

namespace TolCompatibleLib {
namespace {

constexpr std::uint32_t kDefaultSideLimit = 960;

class OvDetectPaddleOCR final : public OvModel<VsaDetect> {
 public:
  OvDetectPaddleOCR(const VsaModelConfig* modelConfig, const std::string& root)
      : OvModel("OvDetectPaddleOCR", modelConfig, root) {}
  ~OvDetectPaddleOCR() override { logInfo("~OvDetectPaddleOCR()"); }
  bool run(VsaFrame* frame) override;

 private:
  VsaObject regionObject(const TextRegion& region, float score, cv::Size frame) const;
};

VsaObject OvDetectPaddleOCR::regionObject(const TextRegion& region, float score,
                                          cv::Size frame) const {
  const auto onFrame = [](float coordinate, int length) {
    return std::clamp(truncateToInt(std::round(coordinate)), 0, length - 1);
  };
  VsaObject object;
  object.imageWidth = frame.width;
  object.imageHeight = frame.height;
  // Deliberate: the box fields hold the first two corners, not a box.
  object.left = onFrame(region[0].x, frame.width);
  object.top = onFrame(region[0].y, frame.height);
  object.right = onFrame(region[1].x, frame.width);
  object.bottom = onFrame(region[1].y, frame.height);
  object.cornerX2 = onFrame(region[2].x, frame.width);
  object.cornerY2 = onFrame(region[2].y, frame.height);
  object.cornerX3 = onFrame(region[3].x, frame.width);
  object.cornerY3 = onFrame(region[3].y, frame.height);
  object.score = score;
  if (!config->classNames.empty()) object.className = config->classNames.front();
  return object;
}

bool OvDetectPaddleOCR::run(VsaFrame* frame) {
  const std::optional<cv::Mat> image = imageOf(frame);
  if (!image) return false;
  const cv::Size resized =
      textInputSize(image->size(), config->inputWidth > 0 ? config->inputWidth : kDefaultSideLimit);
  const ov::Shape shape{1, 3, static_cast<std::size_t>(resized.height),
                        static_cast<std::size_t>(resized.width)};
  ov::Tensor input(ov::element::f32, shape);
  fillTextPlanes(*image, resized, input.data<float>());
  inferRequest.set_input_tensor(input);
  inferRequest.infer();

  const ov::Tensor output = inferRequest.get_output_tensor();
  const std::optional<FloatGrid> probabilities = gridOf(output, 4);
  if (!probabilities) return false;
  if (probabilities->rows == 0 || probabilities->cols == 0) {
    logError("network output is empty," + output.get_shape().to_string());
    return false;
  }
  // A cv::Mat cannot wrap const memory; the map is only read.
  const cv::Mat map(probabilities->rows, probabilities->cols, CV_32FC1,
                    const_cast<float*>(probabilities->data));
  TextBoxParams params;
  if (config->scoreThreshold > 0.0F) params.boxThreshold = config->scoreThreshold;
  const TextRegions found = extractTextBoxes(params, map, image->size(), resized);

  std::vector<VsaObject> objects;
  objects.reserve(found.regions.size());
  for (std::size_t i = 0; i < found.regions.size(); ++i) {
    objects.push_back(regionObject(found.regions[i], found.scores[i], image->size()));
  }
  append(frame->objects, std::move(objects));
  return true;
}

}  // namespace

std::unique_ptr<VsaDetect> makeOvDetectPaddleOCR(const VsaModelConfig* config,
                                                 const std::string& modelRoot) {
  return std::make_unique<OvDetectPaddleOCR>(config, modelRoot);
}

}  // namespace TolCompatibleLib
