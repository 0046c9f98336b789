// YOLO decoders on extreme values. ReferenceTest compares them on random data with ties and NaN.

#include "Utils/YoloDecode.h"

#include <gtest/gtest.h>

#include <tuple>

#include "Utils/Numbers.h"
#include "support/TestHost.h"

namespace {

using namespace TolCompatibleLib;

TEST(Numbers, TruncationIsDefinedForEveryFloat) {
  constexpr int kMax = std::numeric_limits<int>::max();
  constexpr int kMin = std::numeric_limits<int>::min();
  const std::pair<float, int> cases[] = {{2.9F, 2},
                                         {-0.5F, 0},
                                         {2147483520.0F, 2147483520},
                                         {2147483648.0F, kMax},
                                         {-2147483648.0F, kMin},
                                         {3e38F, kMax},
                                         {-3e38F, kMin},
                                         {kInf, kMax},
                                         {-kInf, kMin},
                                         {kNan, 0}};
  for (const auto& [value, expected] : cases) EXPECT_EQ(truncateToInt(value), expected) << value;
}

TEST(FloatGrid, FindsMaximaBelowZeroAndNextToNan) {
  for (const int count : {1, 16, 17, 31, 33}) {
    std::vector<float> values(static_cast<std::size_t>(count), -2.0F);
    EXPECT_EQ(firstMaximum(values.data(), count), 0);
    values.back() = -1.0F;
    values.front() = count > 1 ? kNan : -1.0F;
    EXPECT_EQ(firstMaximum(values.data(), count), count - 1);
    const FloatGrid column{values.data(), count, 1};
    ASSERT_EQ(columnsAbove(column, count - 1, 1, -1.5F).size(), 1U);
    EXPECT_EQ(columnsAbove(column, 0, count, -1.5F).at(0).row, count - 1);
  }
  EXPECT_EQ(firstMaximum(nullptr, 0), 0);
  const std::vector<float> zeros = {-1.0F, -0.0F, 0.0F};
  EXPECT_EQ(firstMaximum(zeros.data(), 3), 1);
  // More than one block of the search.
  const std::vector<float> equal(1030, 1.0F);
  EXPECT_EQ(firstMaximum(equal.data(), 1030), 0);
}

TEST(Yolo8Decode, ReportsBadBoxOnlyIfItsScoreExceedsThreshold) {
  for (const float bad : {kNan, kInf, -kInf, 1e30F, -5e9F, 2147483648.0F}) {
    for (std::size_t row = 0; row < 4; ++row) {
      std::vector<float> output = {8, 8, 8, 8, 8, 8, 8, 8, 0.5F, 0.5F};
      output[row * 2 + 1] = bad;
      const Candidates found = decodeYolo8({output.data(), 5, 2}, 1, 0.25F);
      ASSERT_TRUE(found.badBox.has_value());
      EXPECT_EQ(found.badBox->outputIndex, 1);
      output[9] = 0.25F;
      EXPECT_FALSE(decodeYolo8({output.data(), 5, 2}, 1, 0.25F).badBox);
    }
  }
  const std::vector<float> largest = {0, 0, 2147483520.0F, 2, 1};
  EXPECT_EQ(decodeYolo8({largest.data(), 5, 1}, 1, 0.5F).boxes.at(0).width, 2147483520);
}

TEST(OtherDecoders, ReportBadBoxesAndAcceptNoCandidates) {
  const std::vector<float> bad = {10, kInf, 5, 5, 0.5F, 0.5F};
  EXPECT_TRUE(decodeYolo5({bad.data(), 1, 6}, 1, 0.5F, 0.25F).badBox);
  EXPECT_TRUE(decodeYolo5({bad.data(), 0, 6}, 1, 0.5F, 0.25F).boxes.empty());
  EXPECT_TRUE(decodeYolo5({bad.data(), 1, 5}, 0, 0.0F, 0.0F).boxes.empty());
  const std::vector<float> pose = {5.3F, 5.3F, 3, 3, 0.5F};
  EXPECT_EQ(decodeYolo8Pose({pose.data(), 5, 1}, 0.25F, 1e30F).badBox->outputIndex, 0);
  // (14 - 8 / 2) * 1.3 is 13; 14 * 1.3 - 8 * 1.3 / 2 is less than 13 in single precision.
  const std::vector<float> scaled = {14, 14, 8, 8, 0.5F};
  EXPECT_EQ(decodeYolo8Pose({scaled.data(), 5, 1}, 0.25F, 1.3F).boxes.at(0),
            cv::Rect(13, 13, 10, 10));
  // The objectness may equal its threshold, the score of the best class may not.
  const std::vector<float> equal = {10, 10, 5, 5, 0.5F, 0.3F, 10, 10, 5, 5, 0.9F, 0.25F};
  EXPECT_EQ(decodeYolo5({equal.data(), 2, 6}, 1, 0.5F, 0.25F).outputIndices, std::vector<int>{0});
}

TEST(Yolo26Decode, ReportsBadValuesOnlyOfReportedObjects) {
  VsaModelConfig config;
  config.classNames = {"a", "b", "c"};
  config.classCount = 4;
  config.scoreThreshold = 0.25F;
  VsaFrame frame;
  frame.wantedClasses = {"a", "c", ""};
  const std::vector<float> ignored[] = {
      {kNan, 10, 20, 20, 0.5F, 1},    // unwanted
      {kNan, 10, 20, 20, 0.5F, 3},    // without a name
      {kNan, 10, 20, 20, 0.5F, 4},    // not less than classCount
      {kNan, 10, 20, 20, 0.5F, -1},   // negative
      {kNan, 10, 20, 20, 0.25F, 0},   // score equal to the threshold
      {10, 10, 20, 20, kNan, kNan}};  // score NaN
  for (const std::vector<float>& row : ignored) {
    const FrameObjects found = decodeYolo26({row.data(), 1, 6}, 1.5F, config, frame);
    EXPECT_TRUE(found.objects.empty() && !found.badBox) << row[5];
  }
  const std::vector<float> bad[] = {
      {1, 1, 2, kInf, 0.5F, 0}, {1, 1, 2, 2, 0.5F, kNan}, {1, 1, 2, 2, 0.5F, 1e30F}};
  for (const std::vector<float>& row : bad)
    EXPECT_TRUE(decodeYolo26({row.data(), 1, 6}, 1.0F, config, frame).badBox);
}

TEST(WantedObjects, RefusesCornersOutsideInt32) {
  VsaModelConfig config;
  config.classNames = {"a", "b"};
  config.nmsThreshold = 0.5F;
  VsaFrame frame;
  frame.width = frame.height = 100;
  frame.wantedClasses = {"a"};
  const auto mapped = [&](const cv::Rect& box, float scale, int classId = 0) {
    Candidates candidates;
    candidates.add(1, 1, 2, 2, 0.9F, 0, 3);
    candidates.add(static_cast<float>(box.x), static_cast<float>(box.y),
                   static_cast<float>(box.width), static_cast<float>(box.height), 0.8F, classId, 7);
    return wantedObjects(candidates, scale, config, frame);
  };
  constexpr int kLarge = 1 << 30;
  const std::tuple<cv::Rect, float> bad[] = {{{kLarge, 0, 5, 5}, 2.0F},
                                             {{0, -kLarge, 5, 5}, 2.5F},
                                             {{10, 10, kLarge, 5}, 2.0F},
                                             {{10, 10, 5, kLarge}, 2.0F},
                                             {{kLarge, 0, kLarge, 5}, 1.0F}};
  for (const auto& [box, scale] : bad) {
    const FrameObjects found = mapped(box, scale);
    ASSERT_TRUE(found.badBox.has_value()) << box;
    EXPECT_EQ(found.badBox->outputIndex, 7);
    EXPECT_FALSE(mapped(box, scale, 1).badBox) << "an unwanted object is not mapped";
  }
  const FrameObjects found = mapped({kLarge, -kLarge, 5, 5}, 1.999F);
  EXPECT_EQ(found.objects.size(), 2U);
  EXPECT_EQ(found.outputIndices, (std::vector<int>{3, 7}));
}

TEST(BadFarEdge, IsSumOutsideInt32) {
  constexpr int kMax = std::numeric_limits<int>::max();
  const auto isBad = [](const cv::Rect& box) {
    Candidates candidates;
    candidates.boxes = {box};
    candidates.outputIndices = {0};
    return badFarEdge(candidates, 0).has_value();
  };
  EXPECT_FALSE(isBad({1, 1, kMax - 1, 5}));
  EXPECT_TRUE(isBad({2, 1, kMax - 1, 5}));
  EXPECT_TRUE(isBad({1, 2, 5, kMax - 1}));
  EXPECT_TRUE(isBad({-kMax, 1, -kMax, 5}));
}

TEST(FramePoint, NeedsBothCoordinatesWithinInt32) {
  const auto point = framePoint(1.9F, -2.9F, "point", 0);
  ASSERT_TRUE(point.has_value());
  EXPECT_EQ(std::tuple(point->x, point->y), std::tuple(1, -2));
  EXPECT_FALSE(framePoint(kInf, 0, "point", 0));
  EXPECT_FALSE(framePoint(0, 2147483648.0F, "point", 0));
}

}  // namespace
