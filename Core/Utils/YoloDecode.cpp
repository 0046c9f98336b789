#include "Utils/YoloDecode.h"

#include <algorithm>

#include "Utils/Log.h"
#include "Utils/Nms.h"
#include "Utils/Numbers.h"
#include "Utils/Objects.h"

namespace TolCompatibleLib {
namespace {

constexpr int kBoxRows = 4;  // centre x, centre y, width, height

bool allFit(const std::array<float, 4>& numbers) {
  return std::ranges::all_of(numbers, [](float number) { return fitsInt(number); });
}

}  // namespace

bool Candidates::add(float x, float y, float width, float height, float score, int classId,
                     int outputIndex) {
  const std::array<float, 4> numbers{x, y, width, height};
  if (!allFit(numbers)) {
    badBox = BadBox{outputIndex, numbers};
    return false;
  }
  boxes.emplace_back(truncateToInt(x), truncateToInt(y), truncateToInt(width),
                     truncateToInt(height));
  scores.push_back(score);
  classIds.push_back(classId);
  outputIndices.push_back(outputIndex);
  return true;
}

bool logBadBox(const std::optional<BadBox>& badBox, std::source_location where) {
  if (!badBox) return false;
  std::string text = "candidate " + std::to_string(badBox->outputIndex) + " is out of range:";
  for (const float number : badBox->numbers) {
    text += ' ';
    text += std::to_string(number);
  }
  logError(text, where);
  return true;
}

std::optional<VsaPoint> framePoint(float x, float y, std::string_view what, int outputIndex,
                                   std::source_location where) {
  if (fitsInt(x) && fitsInt(y)) return VsaPoint{truncateToInt(x), truncateToInt(y)};
  logError(std::string(what) + " of candidate " + std::to_string(outputIndex) +
               " is out of range:" + std::to_string(x) + "," + std::to_string(y),
           where);
  return std::nullopt;
}

bool checkDimension(std::string_view family, std::size_t actual, std::size_t expected,
                    std::source_location where) {
  if (actual == expected) return true;
  logError(std::string(family) + " dimensions error:" + std::to_string(actual), where);
  return false;
}

Candidates decodeYolo5(FloatGrid rows, int classCount, float objThreshold, float scoreThreshold) {
  Candidates found;
  if (classCount < 1) return found;
  for (int r = 0; r < rows.rows; ++r) {
    const float* row = rows.row(r);
    const float objectness = row[4];
    if (!(objectness >= objThreshold)) continue;
    const float* scores = row + 5;
    const int classId = firstMaximum(scores, classCount);
    if (!(scores[classId] > scoreThreshold)) continue;
    // Deliberate: the score is the objectness alone, not its product with the class score.
    if (!found.add(row[0] - 0.5F * row[2], row[1] - 0.5F * row[3], row[2], row[3], objectness,
                   classId, r)) {
      break;
    }
  }
  return found;
}

Candidates decodeYolo8(FloatGrid columns, int classCount, float scoreThreshold) {
  Candidates found;
  for (const ColumnMaximum& best : columnsAbove(columns, kBoxRows, classCount, scoreThreshold)) {
    const int i = best.column;
    const float width = columns.row(2)[i];
    const float height = columns.row(3)[i];
    if (!found.add(columns.row(0)[i] - 0.5F * width, columns.row(1)[i] - 0.5F * height, width,
                   height, best.value, best.row, i)) {
      break;
    }
  }
  return found;
}

Candidates decodeYolo8Pose(FloatGrid columns, float scoreThreshold, float scale) {
  Candidates found;
  for (int i = 0; i < columns.cols; ++i) {
    const float score = columns.row(kBoxRows)[i];
    if (!(score > scoreThreshold)) continue;
    const float width = columns.row(2)[i];
    const float height = columns.row(3)[i];
    // Deliberate: scaled before it is truncated, unlike the boxes of the other heads.
    if (!found.add((columns.row(0)[i] - width * 0.5F) * scale,
                   (columns.row(1)[i] - height * 0.5F) * scale, width * scale, height * scale,
                   score, /*classId=*/0, i)) {
      break;
    }
  }
  return found;
}

FrameObjects decodeYolo26(FloatGrid rows, float scale, const VsaModelConfig& config,
                          const VsaFrame& frame) {
  FrameObjects found;
  for (int r = 0; r < rows.rows; ++r) {
    const float* row = rows.row(r);
    const float score = row[4];
    if (!(score > config.scoreThreshold)) continue;
    if (!fitsInt(row[5])) {
      found.badBox = BadBox{r, {row[2], row[3], score, row[5]}};
      break;
    }
    const int classId = truncateToInt(row[5]);
    if (classId < 0 || static_cast<std::uint32_t>(classId) >= config.classCount) continue;
    const std::string* name = wantedName(classId, config, frame.wantedClasses);
    if (name == nullptr) continue;
    const std::array<float, 4> box{row[0] * scale, row[1] * scale, row[2] * scale, row[3] * scale};
    if (!allFit(box)) {
      found.badBox = BadBox{r, box};
      break;
    }
    found.objects.emplace_back(static_cast<int>(frame.width), static_cast<int>(frame.height),
                               truncateToInt(box[0]), truncateToInt(box[1]), truncateToInt(box[2]),
                               truncateToInt(box[3]), score, classId, *name);
    found.outputIndices.push_back(r);
  }
  return found;
}

std::vector<int> keptAfterNms(const Candidates& candidates, const VsaModelConfig& config) {
  return indicesAfterNms(candidates.boxes, candidates.scores, config.scoreThreshold,
                         config.nmsThreshold);
}

std::vector<int> wantedAfterNms(const Candidates& candidates, const VsaModelConfig& config,
                                const std::set<std::string>& wantedClasses) {
  std::vector<int> kept = keptAfterNms(candidates, config);
  std::erase_if(kept, [&](int index) {
    const int classId = candidates.classIds[static_cast<std::size_t>(index)];
    return wantedName(classId, config, wantedClasses) == nullptr;
  });
  return kept;
}

std::optional<BadBox> badFarEdge(const Candidates& candidates, int index) {
  const auto i = static_cast<std::size_t>(index);
  const cv::Rect& box = candidates.boxes[i];
  const std::int64_t right = std::int64_t{box.x} + box.width;
  const std::int64_t bottom = std::int64_t{box.y} + box.height;
  if (right == static_cast<std::int32_t>(right) && bottom == static_cast<std::int32_t>(bottom)) {
    return std::nullopt;
  }
  return BadBox{candidates.outputIndices[i],
                {static_cast<float>(box.x), static_cast<float>(box.y), static_cast<float>(right),
                 static_cast<float>(bottom)}};
}

FrameObjects wantedObjects(const Candidates& candidates, float scale, const VsaModelConfig& config,
                           const VsaFrame& frame) {
  FrameObjects found;
  found.badBox = candidates.badBox;
  if (found.badBox) return found;
  const std::vector<int> kept = wantedAfterNms(candidates, config, frame.wantedClasses);
  found.objects.reserve(kept.size());
  found.outputIndices.reserve(kept.size());
  for (const int index : kept) {
    const auto i = static_cast<std::size_t>(index);
    const cv::Rect& box = candidates.boxes[i];
    const float x1 = static_cast<float>(box.x) * scale;
    const float y1 = static_cast<float>(box.y) * scale;
    const float x2 = static_cast<float>(box.width) * scale + static_cast<float>(truncateToInt(x1));
    const float y2 = static_cast<float>(box.height) * scale + static_cast<float>(truncateToInt(y1));
    if (!allFit({x1, y1, x2, y2})) {
      found.badBox = BadBox{candidates.outputIndices[i], {x1, y1, x2, y2}};
      break;
    }
    const int classId = candidates.classIds[i];
    found.objects.emplace_back(static_cast<int>(frame.width), static_cast<int>(frame.height),
                               truncateToInt(x1), truncateToInt(y1), truncateToInt(x2),
                               truncateToInt(y2), candidates.scores[i], classId,
                               config.classNames[static_cast<std::size_t>(classId)]);
    found.outputIndices.push_back(candidates.outputIndices[i]);
  }
  return found;
}

}  // namespace TolCompatibleLib
