// What the YOLO decoders make of odd numbers. ReferenceTest compares them on ordinary ones, with ties and NaN.

#include "Utils/YoloDecode.h"

#include <gtest/gtest.h>

#include "Utils/Numbers.h"
#include "support/TestHost.h"

namespace {

using namespace TolCompatibleLib;

TEST(Numbers, TruncationIsDefinedForEveryFloat) {
  constexpr int kMost = std::numeric_limits<int>::max();
  constexpr int kLeast = std::numeric_limits<int>::min();
  const std::pair<float, int> cases[] = {{2.9F, 2},
                                         {-0.5F, 0},
                                         {2147483520.0F, 2147483520},
                                         {2147483648.0F, kMost},
                                         {-2147483648.0F, kLeast},
                                         {3e38F, kMost},
                                         {-3e38F, kLeast},
                                         {kInf, kMost},
                                         {-kInf, kLeast},
                                         {kNan, 0}};
  for (const auto& [value, expected] : cases) EXPECT_EQ(truncateToInt(value), expected) << value;
}

TEST(FloatGrid, MaximaBelowZeroAndBesideNanAreFound) {
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
}

TEST(Yolo8Decode, NoClassesNoColumnsAndANanThresholdGiveNothing) {
  const std::vector<float> output = {1, 1, 1, 1, 1};
  EXPECT_TRUE(decodeYolo8({output.data(), 4, 1}, 0, -1.0F).boxes.empty());
  EXPECT_TRUE(decodeYolo8({output.data(), 5, 0}, 1, 0.1F).boxes.empty());
  EXPECT_TRUE(decodeYolo8({output.data(), 5, 1}, 1, kNan).boxes.empty());
}

TEST(Yolo8Decode, ABoxThatNoIntegerHoldsIsReportedOnlyWhenItsScorePasses) {
  for (const float bad : {kNan, kInf, -kInf, 1e30F, -5e9F}) {
    for (std::size_t row = 0; row < 4; ++row) {
      std::vector<float> output = {8, 8, 8, 8, 8, 8, 8, 8, 0.5F, 0.5F};
      output[row * 2 + 1] = bad;
      const Candidates found = decodeYolo8({output.data(), 5, 2}, 1, 0.25F);
      ASSERT_TRUE(found.badBox.has_value());
      EXPECT_EQ(found.badBox->place, 1);
      output[9] = 0.25F;
      EXPECT_FALSE(decodeYolo8({output.data(), 5, 2}, 1, 0.25F).badBox);
    }
  }
  const std::vector<float> largest = {0, 0, 2147483520.0F, 2, 1};
  EXPECT_EQ(decodeYolo8({largest.data(), 5, 1}, 1, 0.5F).boxes.at(0).width, 2147483520);
}

TEST(OtherDecoders, ReportBadBoxesAndTakeNoCandidates) {
  const std::vector<float> bad = {10, kInf, 5, 5, 0.5F, 0.5F};
  EXPECT_TRUE(decodeYolo5({bad.data(), 1, 6}, 1, 0.5F, 0.25F).badBox);
  EXPECT_TRUE(decodeYolo5({bad.data(), 0, 6}, 1, 0.5F, 0.25F).boxes.empty());
  EXPECT_TRUE(decodeYolo5({bad.data(), 1, 5}, 0, 0.0F, 0.0F).boxes.empty());
  const std::vector<float> pose = {5.3F, 5.3F, 3, 3, 0.5F};
  EXPECT_EQ(decodeYolo8Pose({pose.data(), 5, 1}, 0.25F, 1e30F).badBox->place, 0);
  // The objectness may equal its threshold, the best class may not.
  const std::vector<float> equal = {10, 10, 5, 5, 0.5F, 0.3F, 10, 10, 5, 5, 0.9F, 0.25F};
  EXPECT_EQ(decodeYolo5({equal.data(), 2, 6}, 1, 0.5F, 0.25F).places, std::vector<int>{0});
}

TEST(Yolo26Decode, ABadNumberCountsOnlyWhereAnObjectWouldCome) {
  VsaModelConfig config;
  config.classNames = {"a", "b", "c"};
  config.classCount = 4;
  config.scoreThreshold = 0.25F;
  VsaFrame frame;
  frame.wantedClasses = {"a", "c", ""};
  const std::vector<float> passedOver[] = {{kNan, 10, 20, 20, 0.5F, 1},    // unwanted
                                           {kNan, 10, 20, 20, 0.5F, 3},    // without a name
                                           {kNan, 10, 20, 20, 0.5F, 4},    // past the count
                                           {kNan, 10, 20, 20, 0.5F, -1},   //
                                           {kNan, 10, 20, 20, 0.25F, 0},   // the score is not above the threshold
                                           {10, 10, 20, 20, kNan, kNan}};  //
  for (const std::vector<float>& row : passedOver) {
    const FrameObjects found = decodeYolo26({row.data(), 1, 6}, 1.5F, config, frame);
    EXPECT_TRUE(found.objects.empty() && !found.badBox) << row[5];
  }
  const std::vector<float> bad[] = {{1, 1, 2, kInf, 0.5F, 0}, {1, 1, 2, 2, 0.5F, kNan}, {1, 1, 2, 2, 0.5F, 1e30F}};
  for (const std::vector<float>& row : bad) EXPECT_TRUE(decodeYolo26({row.data(), 1, 6}, 1.0F, config, frame).badBox);
}

}  // namespace
