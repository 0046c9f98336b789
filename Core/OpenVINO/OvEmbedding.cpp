#include "OpenVINO/OvEmbedding.h"

namespace TolCompatibleLib {

bool OvEmbedding::embed(VsaFrame* frame,
                        void (*fit)(const cv::Mat& region, cv::Size size, float* planes),
                        std::size_t length, std::source_location where) {
  if (isImageWithoutObjects(frame)) return true;
  const std::optional<cv::Mat> image = imageOf(frame, where);
  if (!image) return false;
  Results<std::vector<float>> features;
  float* planes = nullptr;  // the same for every region
  for (std::size_t i = 0; i < frame->objects.size(); ++i) {
    const cv::Mat region = regionOf(*image, frame->objects[i]);
    if (planes == nullptr) planes = shapedInputPlanes(where);
    if (planes == nullptr) return false;
    fit(region, inputSize, planes);
    inferRequest.infer();
    const ov::Tensor output = inferRequest.get_output_tensor(0);
    const auto numbers = firstFloats(output, length, where);
    if (!numbers) return false;
    features.emplace_back(i, std::vector<float>(numbers->begin(), numbers->end()));
  }
  rewrite(frame->objects, features, [](VsaObject& object, std::vector<float>& feature) noexcept {
    object.feature = std::move(feature);
  });
  return true;
}

}  // namespace TolCompatibleLib
