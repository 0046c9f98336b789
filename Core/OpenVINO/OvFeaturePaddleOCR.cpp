// Text recognition: reads each text region of the frame, one line at a time.
// Input is [1, 3, height, width] floats: the region scaled to the input's height, with zeros to the
// right of it. Output is [1, T, C] floats: the scores of C classes at each of T time steps, class 0
// being the CTC blank. Objects whose region has no pixel in the image are removed from the frame.

#include <algorithm>
#include <utility>

#include "OpenVINO/OvModel.h"
#include "OpenVINO/OvModels.h"
#include "Utils/Log.h"
#include "Utils/Numbers.h"
#include "Utils/Objects.h"
#include "Utils/PaddleOcrDictionary.h"
#include "Utils/PreProcessUtils.h"
#include "Utils/TextDecode.h"

namespace TolCompatibleLib {
namespace {

constexpr int kDefaultLineHeight = 48;
constexpr int kDefaultLineWidth = 320;

class OvFeaturePaddleOCR final : public OvModel<VsaFeature> {
 public:
  OvFeaturePaddleOCR(const VsaModelConfig* modelConfig, const std::string& root);
  ~OvFeaturePaddleOCR() override { logInfo("~OvFeaturePaddleOCR()"); }
  bool run(VsaFrame* frame) override;

 private:
  cv::Size lineSize;  ///< `inputSize`, with defaults in place of sizes below 1.
  CharacterDictionary dictionary = CharacterDictionary::builtIn();
};

OvFeaturePaddleOCR::OvFeaturePaddleOCR(const VsaModelConfig* modelConfig, const std::string& root)
    : OvModel("OvFeaturePaddleOCR", modelConfig, root),
      lineSize(inputSize.width < 1 ? kDefaultLineWidth : inputSize.width,
               inputSize.height < 1 ? kDefaultLineHeight : inputSize.height) {
  const std::vector<std::string>& names = modelConfig->classNames;
  const bool builtIn = names.size() == 1 && names.front() == "paddleocr";
  if (!builtIn) dictionary = CharacterDictionary(names);
  logInfo((builtIn ? "Using hardcoded PaddleOCR character dictionary with "
                   : "Using custom character dictionary with ") +
          std::to_string(dictionary.size()) + " characters");
}

/// The part of the image that a region covers: the bounding box of its four corners or, without
/// corners, its own box. Empty if the region contains no pixel.
cv::Rect lineRegionOf(const VsaObject& object, cv::Size image) {
  std::pair<int, int> x(object.left, object.right);
  std::pair<int, int> y(object.top, object.bottom);
  if (object.cornerX2 >= 0 && object.cornerY2 >= 0 && object.cornerX3 >= 0 &&
      object.cornerY3 >= 0) {
    x = std::minmax({object.left, object.right, object.cornerX2, object.cornerX3});
    y = std::minmax({object.top, object.bottom, object.cornerY2, object.cornerY3});
  }
  const float minX = std::max(static_cast<float>(x.first), 0.0F);
  const float minY = std::max(static_cast<float>(y.first), 0.0F);
  const float maxX = std::min(static_cast<float>(x.second), static_cast<float>(image.width - 1));
  const float maxY = std::min(static_cast<float>(y.second), static_cast<float>(image.height - 1));
  // Deliberate: no + 1, so the last column and row of the region are left out.
  const int width = truncateToInt(maxX - minX);
  const int height = truncateToInt(maxY - minY);
  if (width < 1 || height < 1) return {};
  const int left = truncateToInt(minX);
  const int top = truncateToInt(minY);
  // Above 2^24 pixels, single precision may round the region past the image.
  return {left, top, std::min(width, image.width - left), std::min(height, image.height - top)};
}

bool OvFeaturePaddleOCR::run(VsaFrame* frame) {
  if (isImageWithoutObjects(frame)) return true;
  const std::optional<cv::Mat> image = imageOf(frame);
  if (!image) return false;
  ov::Tensor line(ov::element::f32, {1, 3, static_cast<std::size_t>(lineSize.height),
                                     static_cast<std::size_t>(lineSize.width)});
  Results<std::string> texts;
  for (std::size_t i = 0; i < frame->objects.size(); ++i) {
    const cv::Rect region = lineRegionOf(frame->objects[i], image->size());
    if (region.empty()) continue;
    PrepareTextLine((*image)(region), lineSize, line.data<float>());
    inferRequest.set_input_tensor(line);
    inferRequest.infer();
    const ov::Tensor output = inferRequest.get_output_tensor();
    const std::optional<FloatGrid> scores = gridOf(output, 3);
    if (!scores) return false;
    texts.emplace_back(i, CtcGreedyDecode(*scores, dictionary));
  }

  rewrite(frame->objects, texts, setText);
  return true;
}

}  // namespace

std::unique_ptr<VsaFeature> makeOvFeaturePaddleOCR(const VsaModelConfig* config,
                                                   const std::string& modelRoot) {
  return std::make_unique<OvFeaturePaddleOCR>(config, modelRoot);
}

}  // namespace TolCompatibleLib
