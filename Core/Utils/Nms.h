// Greedy non-maximum suppression (NMS) of axis-aligned boxes.
#pragma once

#include <opencv2/core.hpp>
#include <vector>

namespace TolCompatibleLib {

/// Indices of the boxes that NMS keeps, by descending score: the result of cv::dnn::NMSBoxes with
/// the same arguments (eta 1, top_k 0), in less time if there are many boxes. Boxes are compared
/// across all classes. @param boxes in pixels; those with a score above `scoreThreshold` are
/// candidates.
/// @param nmsThreshold the maximum overlap (intersection over union) of two boxes that are kept.
/// Throws cv::Exception if a threshold is negative or NaN, or if the numbers of boxes and scores
/// differ.
std::vector<int> indicesAfterNms(const std::vector<cv::Rect>& boxes,
                                 const std::vector<float>& scores, float scoreThreshold,
                                 float nmsThreshold);

}  // namespace TolCompatibleLib
