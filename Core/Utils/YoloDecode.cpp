#include "Utils/YoloDecode.h"

#include <cmath>
#include <opencv2/dnn.hpp>

#include "Utils/Numbers.h"

namespace TolCompatibleLib {
namespace {

constexpr int kBoxRows = 4;  // centre x, centre y, width, height

}  // namespace

bool Candidates::add(float x, float y, float width, float height, float score, int classId,
                     int place) {
  if (!std::isfinite(x) || !std::isfinite(y) || !std::isfinite(width) || !std::isfinite(height)) {
    badBox = BadBox{place, x, y, width, height};
    return false;
  }
  boxes.emplace_back(truncateToInt(x), truncateToInt(y), truncateToInt(width),
                     truncateToInt(height));
  scores.push_back(score);
  classIds.push_back(classId);
  places.push_back(place);
  return true;
}

std::string describe(const BadBox& box) {
  return "box is not finite,candidate=" + std::to_string(box.place) +
         ",x=" + std::to_string(box.x) + ",y=" + std::to_string(box.y) +
         ",width=" + std::to_string(box.width) + ",height=" + std::to_string(box.height);
}

Candidates decodeYolo8(FloatGrid columns, int classCount, float scoreThreshold) {
  Candidates found;
  const ColumnMaxima best = bestPerColumn(columns, kBoxRows, classCount);
  for (int i = 0; i < columns.cols; ++i) {
    const float score = best.values[static_cast<std::size_t>(i)];
    if (!(score > scoreThreshold)) continue;
    const float centreX = columns.row(0)[i];
    const float centreY = columns.row(1)[i];
    const float width = columns.row(2)[i];
    const float height = columns.row(3)[i];
    if (!found.add(centreX - 0.5F * width, centreY - 0.5F * height, width, height, score,
                   best.rows[static_cast<std::size_t>(i)], i)) {
      break;
    }
  }
  return found;
}

std::vector<int> suppressed(const Candidates& candidates, const VsaModelConfig& config) {
  std::vector<int> kept;
  cv::dnn::NMSBoxes(candidates.boxes, candidates.scores, config.scoreThreshold, config.nmsThreshold,
                    kept, /*eta=*/1.0F, /*top_k=*/0);
  return kept;
}

std::vector<int> wantedAfterSuppression(const Candidates& candidates, const VsaModelConfig& config,
                                        const std::set<std::string>& wantedClasses) {
  std::vector<int> kept = suppressed(candidates, config);
  std::erase_if(kept, [&](int index) {
    const auto classId =
        static_cast<std::size_t>(candidates.classIds[static_cast<std::size_t>(index)]);
    return classId >= config.classNames.size() ||
           !wantedClasses.contains(config.classNames[classId]);
  });
  return kept;
}

VsaObject frameObject(const Candidates& candidates, int index, float scale,
                      const VsaModelConfig& config, const VsaFrame& frame) {
  const auto i = static_cast<std::size_t>(index);
  const cv::Rect& box = candidates.boxes[i];
  const int x1 = truncateToInt(static_cast<float>(box.x) * scale);
  const int y1 = truncateToInt(static_cast<float>(box.y) * scale);
  const int x2 = truncateToInt(static_cast<float>(box.width) * scale + static_cast<float>(x1));
  const int y2 = truncateToInt(static_cast<float>(box.height) * scale + static_cast<float>(y1));
  const int classId = candidates.classIds[i];
  return VsaObject(static_cast<int>(frame.width), static_cast<int>(frame.height), x1, y1, x2, y2,
                   candidates.scores[i], classId,
                   config.classNames[static_cast<std::size_t>(classId)]);
}

}  // namespace TolCompatibleLib
