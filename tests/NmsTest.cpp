// NMS compared with cv::dnn::NMSBoxes, on boxes that are rare in a network's output too.

#include "Utils/Nms.h"

#include <gtest/gtest.h>

#include <limits>
#include <opencv2/dnn.hpp>

#include "support/TestHost.h"

namespace {

using namespace TolCompatibleLib;

struct Boxes {
  std::vector<cv::Rect> boxes;
  std::vector<float> scores;
};

std::vector<int> indicesByOpenCv(const Boxes& set, float scoreThreshold, float nmsThreshold) {
  std::vector<int> kept;
  cv::dnn::NMSBoxes(set.boxes, set.scores, scoreThreshold, nmsThreshold, kept);
  return kept;
}

/// Ranges of offsets and sides, including their ends.
struct Ranges {
  const char* name;
  int minOffset, maxOffset;
  int minSide, maxSide;
};

/// Few different scores, so ties are frequent.
float randomScore(cv::RNG& random) {
  constexpr float kRare[] = {kNan, kInf, -kInf, 0.0F, -0.0F, 0.25F};
  return random.uniform(0, 16) == 0 ? kRare[random.uniform(0, 6)] : static_cast<float>(random.uniform(1, 64)) / 64.0F;
}

/// Every eighth box equals an earlier one, or is close to it.
Boxes randomBoxes(cv::RNG& random, const Ranges& ranges, int count) {
  Boxes made;
  for (int i = 0; i < count; ++i) {
    const auto offset = [&] { return random.uniform(ranges.minOffset, ranges.maxOffset + 1); };
    const auto side = [&] { return random.uniform(ranges.minSide, ranges.maxSide + 1); };
    cv::Rect box(offset(), offset(), side(), side());
    if (i > 0 && random.uniform(0, 8) == 0) {
      box = made.boxes[static_cast<std::size_t>(random.uniform(0, i))];
      box.width += random.uniform(0, 2);
    }
    made.boxes.push_back(box);
    made.scores.push_back(randomScore(random));
  }
  return made;
}

TEST(Nms, KeepsTheSameBoxesAsOpenCv) {
  constexpr Ranges kRanges[] = {{"apart", 0, 4000, 1, 20},
                                {"a dense scene", 0, 640, 20, 120},
                                {"sides of every size", -700, 700, 1, 700},
                                {"around sides of groups", -40, 600, 63, 65},
                                {"piled", 0, 4, 28, 34},
                                {"few pixels", 0, 9, 0, 3},
                                {"empty and negative", -300, 300, -4, 16},
                                {"mostly empty", -300, 300, -16, 4},
                                {"the whole indexed range", -32767, 32767, 0, 32766},
                                {"beyond it", -40000, 40000, 0, 20000}};
  constexpr float kThresholds[] = {0.0F, 1e-7F, 0.2F, 0.45F, 0.5F, 0.7F, 0.999F, 1.0F, 1.5F, kInf};
  cv::RNG random(53);
  for (const Ranges& ranges : kRanges) {
    std::size_t kept = 0;
    for (int round = 0; round < 200; ++round) {
      const Boxes set = randomBoxes(random, ranges, random.uniform(0, round % 4 == 0 ? 400 : 60));
      const float scoreThreshold = round % 2 == 0 ? 0.0F : 0.25F;
      const float nmsThreshold = kThresholds[random.uniform(0, 10)];
      const auto expected = indicesByOpenCv(set, scoreThreshold, nmsThreshold);
      ASSERT_EQ(indicesAfterNms(set.boxes, set.scores, scoreThreshold, nmsThreshold), expected)
          << ranges.name << ", round " << round << ", threshold " << nmsThreshold;
      kept += expected.size();
    }
    EXPECT_GT(kept, 1000U) << ranges.name;
  }
}

/// Appends boxes to 40 that are kept and far away, so that those appended are indexed.
Boxes afterFortyOthers(const std::vector<cv::Rect>& boxes) {
  Boxes made;
  for (int i = 1; i <= 40; ++i) made.boxes.emplace_back(-1000 - 20 * i, 0, 10, 10);
  made.boxes.insert(made.boxes.end(), boxes.begin(), boxes.end());
  for (std::size_t i = 0; i < made.boxes.size(); ++i) made.scores.push_back(i < 40 ? 0.9F : 0.5F);
  return made;
}

void expectSameAsOpenCv(const Boxes& set, float nmsThreshold) {
  EXPECT_EQ(indicesAfterNms(set.boxes, set.scores, 0.0F, nmsThreshold), indicesByOpenCv(set, 0.0F, nmsThreshold))
      << set.boxes.back() << ' ' << nmsThreshold;
}

TEST(Nms, ComparesOverlapWithThresholdAsOpenCvDoes) {
  for (int width = 1; width <= 100; ++width) {
    const Boxes set = afterFortyOthers({{0, 0, 100, 7}, {0, 0, width, 7}});
    const float overlap = static_cast<float>(width) / 100.0F;
    for (const float threshold : {std::nextafter(overlap, 0.0F), overlap, std::nextafter(overlap, 2.0F)}) {
      expectSameAsOpenCv(set, threshold);
    }
  }
}

TEST(Nms, FindsBoxesThatShareOneRowOrColumnOfPixels) {
  constexpr int kSide = 64;  // the largest side of a group
  constexpr int kDistances[] = {-kSide, 1 - kSide, 0, kSide - 1, kSide};
  for (int y = 0; y < kSide; ++y) {
    for (const int dx : kDistances) {
      for (const int dy : kDistances) {
        expectSameAsOpenCv(afterFortyOthers({{0, y, kSide, kSide}, {dx, y + dy, kSide, kSide}}), 0.0F);
      }
    }
  }
}

TEST(Nms, ComparesAreasOfEmptyBoxesAsOpenCvDoes) {
  // Their overlap with a box is 1 if the areas sum to 0 or less, wherever both are.
  for (const cv::Rect& empty : {cv::Rect(500, 0, 0, 5), {500, 0, -2, 3}, {500, 0, -2, -3}}) {
    for (const int side : {2, 3, 20}) {
      for (const float threshold : {0.0F, 0.999F, 1.0F}) {
        expectSameAsOpenCv(afterFortyOthers({{0, 0, 2, 3}, empty, {50, 50, side, 2}, empty}), threshold);
        expectSameAsOpenCv(afterFortyOthers({{0, 0, side, side}, empty}), threshold);
      }
    }
  }
}

TEST(Nms, LeavesCoordinatesThatOverflowToOpenCv) {
  constexpr int kMax = std::numeric_limits<int>::max();
  constexpr int kMin = std::numeric_limits<int>::min();
  constexpr int kEdges[] = {kMin, kMin + 1, -32768, 0, 1, 32768, 46341, 65536, kMax - 1, kMax};
  cv::RNG random(59);
  const auto edge = [&] { return kEdges[random.uniform(0, 10)]; };
  for (int round = 0; round < 500; ++round) {
    Boxes set = randomBoxes(random, {"", 0, 300, 1, 60}, 50);
    for (int i = random.uniform(1, 20); i > 0; --i) {
      set.boxes[static_cast<std::size_t>(i)] = {edge(), edge(), edge(), edge()};
    }
    expectSameAsOpenCv(set, 0.5F);
  }
}

TEST(Nms, ThrowsAsOpenCvDoes) {
  const Boxes none;
  const Boxes one{{{0, 0, 4, 4}}, {0.5F}};
  const Boxes different{{{0, 0, 4, 4}}, {}};
  const struct {
    const Boxes& set;
    float scoreThreshold, nmsThreshold;
    bool isRefused;
  } cases[] = {{none, 0.0F, 0.0F, false},    {one, -0.0F, -0.0F, false}, {one, kInf, kInf, false},
               {none, -0.1F, 0.5F, true},    {none, 0.5F, -0.1F, true},  {one, -0.1F, 0.5F, true},
               {one, 0.5F, -1e-30F, true},   {one, kNan, 0.5F, true},    {one, 0.5F, kNan, true},
               {different, 0.5F, 0.5F, true}};
  for (const auto& [set, scoreThreshold, nmsThreshold, isRefused] : cases) {
    const auto run = [&, s = scoreThreshold, n = nmsThreshold](auto nms) {
      try {
        nms(s, n);
      } catch (const cv::Exception&) {
        return true;
      }
      return false;
    };
    EXPECT_EQ(run([&set = set](float s, float n) { indicesByOpenCv(set, s, n); }), isRefused);
    EXPECT_EQ(run([&set = set](float s, float n) { indicesAfterNms(set.boxes, set.scores, s, n); }), isRefused);
  }
}

}  // namespace
