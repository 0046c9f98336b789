// Candidates are visited by descending score. A candidate that has not been removed yet is kept,
// and the later candidates that overlap it by more than the threshold are removed. This gives the
// result of cv::dnn::NMSBoxes, which compares each candidate with all candidates kept before it.
//
// Boxes that do not intersect have overlap 0 and need not be compared, because no threshold is
// below 0. To find those that may intersect a kept box, boxes are grouped by size; a group is
// divided into rows, and each row is sorted by x. The boxes of a group that can intersect the kept
// box are in a few adjacent rows, and in each of them between two values of x.
//
// Exception: two boxes with areas whose sum is 0 or less have overlap 1 (see cv::jaccardDistance).
// This needs an empty box, one with a side of 0 or less. Each candidate is therefore also compared
// with the smallest kept box.

#include "Utils/Nms.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <opencv2/dnn.hpp>
#include <span>

namespace TolCompatibleLib {
namespace {

/// Maximum absolute value of coordinates and sides. Up to it, no sum of coordinates or areas
/// overflows an int; larger boxes are passed to NMSBoxes.
constexpr int kMaxBits = 15;
constexpr int kMaxIndexed = (1 << kMaxBits) - 1;

/// The first kept boxes are compared with all others: an index costs more than it saves if few
/// boxes are kept.
constexpr std::size_t kMaxUnindexed = 32;

struct Candidate {
  cv::Rect box;
  int index;  ///< In the caller's list of boxes.
  float score;
};

bool canBeIndexed(const cv::Rect& box) {
  const auto isInRange = [](int value) { return value >= -kMaxIndexed && value <= kMaxIndexed; };
  return isInRange(box.x) && isInRange(box.y) && isInRange(box.width) && isInRange(box.height);
}

/// Whether the overlap of two boxes, by the arithmetic of cv::jaccardDistance and NMSBoxes, exceeds
/// the threshold. There is only one branch, which is rarely taken, because a branch misprediction
/// takes longer than the division.
inline bool overlaps(const cv::Rect& a, const cv::Rect& b, float nmsThreshold) {
  const int areas = a.area() + b.area();
  if (areas <= 0) return nmsThreshold < 1;
  const int width = std::min(a.x + a.width, b.x + b.width) - std::max(a.x, b.x);
  const int height = std::min(a.y + a.height, b.y + b.height) - std::max(a.y, b.y);
  const double intersection = std::max(width, 0) * std::max(height, 0);
  return 1.0F - static_cast<float>(1.0 - intersection / (areas - intersection)) > nmsThreshold;
}

/// The boxes with a score above the threshold, by descending score; equal scores keep their order.
std::vector<Candidate> sortByScore(const std::vector<cv::Rect>& boxes,
                                   const std::vector<float>& scores, float scoreThreshold) {
  std::vector<Candidate> candidates;
  candidates.reserve(boxes.size());
  for (std::size_t i = 0; i < boxes.size(); ++i) {
    if (scores[i] > scoreThreshold) {
      candidates.push_back({boxes[i], static_cast<int>(i), scores[i]});
    }
  }
  std::ranges::sort(candidates, [](const Candidate& a, const Candidate& b) {
    return a.score > b.score || (a.score == b.score && a.index < b.index);
  });
  return candidates;
}

/// Boxes with sides of at most `maxSide`, sorted by row and x. A box is in the row of its top edge;
/// rows are half of `maxSide` high.
class SizeGroup {
 public:
  void setMaxSide(int bits) {
    maxSide_ = 1 << bits;
    rowBits_ = bits - 1;
  }

  void add(const cv::Rect& box, std::size_t position) {
    entries_.push_back({keyOf(box.y >> rowBits_, box.x), box, position});
  }

  void sort() { std::ranges::sort(entries_, {}, &Entry::key); }

  template <class Predicate>
  void removeIf(Predicate isRemoved) {
    std::erase_if(entries_, [&](const Entry& entry) { return isRemoved(entry.position); });
  }

  /// Calls `visit(box, position)` for all boxes that intersect `area`, and for some near it.
  template <class Visit>
  void forEachNear(const cv::Rect& area, Visit visit) const {
    if (entries_.empty()) return;
    const int minX = area.x - maxSide_ + 1;
    const int endX = area.x + area.width;
    const int firstRow = (area.y - maxSide_ + 1) >> rowBits_;
    const int lastRow = (area.y + area.height - 1) >> rowBits_;
    auto entry = find(keyOf(firstRow, minX), entries_.begin());
    while (entry != entries_.end()) {
      const int row = entry->box.y >> rowBits_;
      if (row > lastRow) break;
      if (entry->box.x < minX) {
        entry = find(keyOf(row, minX), entry);
      } else if (entry->box.x >= endX) {
        entry = find(keyOf(row + 1, minX), entry);
      } else {
        visit(entry->box, entry->position);
        ++entry;
      }
    }
  }

 private:
  struct Entry {
    std::uint64_t key;
    cv::Rect box;
    std::size_t position;
  };
  using Iterator = std::vector<Entry>::const_iterator;

  static std::uint64_t keyOf(int row, int x) {
    constexpr int kOffset = 1 << 20;  // no row and no x is below -kOffset
    return static_cast<std::uint64_t>(row + kOffset) << 32U |
           static_cast<std::uint64_t>(x + kOffset);
  }

  /// The first entry at or after `from` whose key is not less.
  Iterator find(std::uint64_t key, Iterator from) const {
    return std::ranges::lower_bound(from, entries_.end(), key, {}, &Entry::key);
  }

  int maxSide_ = 0;
  int rowBits_ = 0;
  std::vector<Entry> entries_;
};

/// Boxes that are not empty, in groups with sides of at most 16, 32, 64 and so on.
class BoxIndex {
 public:
  BoxIndex() {
    for (int bits = kMinBits; SizeGroup & group : groups_) group.setMaxSide(bits++);
  }

  void add(const cv::Rect& box, std::size_t position) {
    if (box.empty()) return;
    const auto side = static_cast<unsigned>(std::max(box.width, box.height));
    const int bits = std::max(static_cast<int>(std::bit_width(side - 1)), kMinBits);
    groups_[static_cast<std::size_t>(bits - kMinBits)].add(box, position);
  }

  void sort() {
    for (SizeGroup& group : groups_) group.sort();
  }

  template <class Predicate>
  void removeIf(Predicate isRemoved) {
    for (SizeGroup& group : groups_) group.removeIf(isRemoved);
  }

  template <class Visit>
  void forEachNear(const cv::Rect& area, Visit visit) const {
    for (const SizeGroup& group : groups_) group.forEachNear(area, visit);
  }

 private:
  static constexpr int kMinBits = 4;

  std::array<SizeGroup, kMaxBits - kMinBits + 1> groups_;
};

/// Appends the indices of the candidates that NMS keeps to `kept`. Candidates are sorted by score.
void suppressIndexed(std::span<const Candidate> candidates, float nmsThreshold,
                     std::vector<int>& kept) {
  BoxIndex index;
  for (std::size_t i = 0; i < candidates.size(); ++i) index.add(candidates[i].box, i);
  index.sort();
  std::vector<char> isDone(candidates.size());  // kept or removed
  std::size_t left = candidates.size();
  std::size_t indexed = left;
  const cv::Rect* smallest = nullptr;
  for (std::size_t i = 0; i < candidates.size(); ++i) {
    if (isDone[i] != 0) continue;
    const cv::Rect& box = candidates[i].box;
    isDone[i] = 1;
    --left;
    if (smallest != nullptr && overlaps(box, *smallest, nmsThreshold)) continue;
    kept.push_back(candidates[i].index);
    if (smallest == nullptr || box.area() < smallest->area()) smallest = &box;
    index.forEachNear(box, [&](const cv::Rect& other, std::size_t position) {
      if (!overlaps(other, box, nmsThreshold) || isDone[position] != 0) return;
      isDone[position] = 1;
      --left;
    });
    if (left < indexed - indexed / 4) {
      index.removeIf([&](std::size_t position) { return isDone[position] != 0; });
      indexed = left;
    }
  }
}

}  // namespace

std::vector<int> indicesAfterNms(const std::vector<cv::Rect>& boxes,
                                 const std::vector<float>& scores, float scoreThreshold,
                                 float nmsThreshold) {
  std::vector<int> kept;
  const bool isValid =
      boxes.size() == scores.size() && scoreThreshold >= 0.0F && nmsThreshold >= 0.0F;
  if (!isValid || !std::ranges::all_of(boxes, canBeIndexed)) {
    cv::dnn::NMSBoxes(boxes, scores, scoreThreshold, nmsThreshold, kept);
    return kept;
  }
  std::vector<Candidate> candidates = sortByScore(boxes, scores, scoreThreshold);
  std::size_t next = 0;
  while (next < candidates.size() && next < kMaxUnindexed) {
    const Candidate best = candidates[next++];
    kept.push_back(best.index);
    const auto later = std::span(candidates).subspan(next);
    const auto removed = std::ranges::remove_if(
        later, [&](const Candidate& other) { return overlaps(other.box, best.box, nmsThreshold); });
    candidates.resize(candidates.size() - removed.size());
  }
  const auto others = std::span<const Candidate>(candidates).subspan(next);
  if (!others.empty()) suppressIndexed(others, nmsThreshold, kept);
  return kept;
}

}  // namespace TolCompatibleLib
