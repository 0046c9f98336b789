// What the two models that describe an object by a list of numbers have in common.
#pragma once

#include <utility>
#include <vector>

#include "OpenVINO/OvModel.h"
#include "Utils/Objects.h"
#include "Utils/PreProcessUtils.h"

namespace TolCompatibleLib {

/// A feature extractor whose network takes [1, 3, H, W] floats, the object's box as a
/// pre-processing routine fits it into the input, and whose output 0 begins with the feature.
class OvEmbedding : public OvModel<VsaFeature> {
 protected:
  using OvModel::OvModel;

  /// Gives every object of the frame `length` numbers, as the network gives them.
  bool embed(VsaFrame* frame, void (*fit)(const cv::Mat& region, cv::Size size, float* planes),
             std::size_t length, std::source_location where = std::source_location::current());
};

}  // namespace TolCompatibleLib
