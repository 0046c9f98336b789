// The library's steps give the same bits as the plainest way to do them.

#include <gtest/gtest.h>

#include <cstring>
#include <opencv2/imgproc.hpp>
#include <tuple>

#include "Utils/MaskOutline.h"
#include "Utils/PreProcessUtils.h"
#include "Utils/TextDecode.h"
#include "Utils/TextRegions.h"
#include "Utils/YoloDecode.h"
#include "support/Literal.h"
#include "support/LogCapture.h"
#include "support/TestHost.h"

namespace {

using namespace TolCompatibleLib;

/// A frame as a host has it: its buffer ends with the last pixel, so that the address sanitizer sees what is read past
/// it. Sizes with a row or column of one pixel come first.
struct Picture {
  Picture(int round, cv::RNG& random) {
    const cv::Size kThin[] = {{1, 1}, {3, 1}, {1, 5}, {300, 1}, {1, 200}, {2, 2}};
    const cv::Size size =
        round < 6 ? kThin[round] : cv::Size(random.uniform(1, 300), random.uniform(1, round % 2 == 0 ? 300 : 90));
    bytes.resize(std::size_t{3} * static_cast<std::size_t>(size.area()));
    image = cv::Mat(size, CV_8UC3, bytes.data());
    random.fill(image, cv::RNG::UNIFORM, 0, 256);
  }
  std::vector<uchar> bytes;
  cv::Mat image;
};

/// The bits that a step writes into the planes of an input; NaN marks what it leaves out.
template <class Fill>
std::vector<std::uint32_t> bitsOf(cv::Size input, Fill fill) {
  std::vector<float> planes(std::size_t{3} * static_cast<std::size_t>(input.area()), kNan);
  fill(planes.data());
  std::vector<std::uint32_t> bits(planes.size());
  std::memcpy(bits.data(), planes.data(), planes.size() * sizeof(float));
  return bits;
}

TEST(Literal, LetterboxedPlanesAreThoseOfTheBlob) {
  cv::RNG random(29);
  LogCapture log;
  std::vector<float> held(30000);
  std::vector<uchar> heldPixels(30000);
  LetterboxWriter writer, pixelWriter;
  for (int round = 0; round < 200; ++round) {
    const Picture picture(round, random);
    const cv::Size input(random.uniform(1, 100), random.uniform(1, 100));
    const literal::Boxed expected = literal::letterbox(picture.image, input);
    const auto boxed = letterbox(picture.image, input);
    std::optional<float> scale;
    const auto planes = bitsOf(input, [&](float* out) { scale = LetterboxWriter().writePlanes(picture.image, input, out); });
    ASSERT_EQ(boxed.has_value(), !expected.canvas.empty());
    ASSERT_EQ(scale.has_value(), !expected.canvas.empty());
    if (!scale) continue;
    EXPECT_EQ(boxed->scale, expected.scale);
    EXPECT_EQ(*scale, expected.scale);
    EXPECT_EQ(cv::norm(boxed->canvas, expected.canvas, cv::NORM_INF), 0.0);
    const cv::Mat blob = literal::unitBlob(expected.canvas);
    EXPECT_EQ(planes, bitsOf(input, [&](float* out) { std::copy_n(blob.ptr<float>(), blob.total(), out); }))
        << picture.image.size() << input;
    // The same where a picture of the same size, and before it one of another, was in the input.
    const cv::Mat other(picture.image.size(), CV_8UC3, cv::Scalar::all(99));
    for (const cv::Mat& image : {other, picture.image}) {
      writer.writePlanes(image, input, held.data());
      pixelWriter.writePixels(image, input, heldPixels.data());
    }
    EXPECT_EQ(bitsOf(input, [&](float* out) { std::copy_n(held.data(), blob.total(), out); }), planes);
    EXPECT_TRUE(std::equal(expected.canvas.datastart, expected.canvas.dataend, heldPixels.data()));
  }
}

using Fill = void (*)(const cv::Mat& region, cv::Size size, float* planes);

TEST(Literal, PlanesOfRegionsAreThoseOfOpenCvsCalls) {
  const std::tuple<const char*, Fill, Fill> steps[] = {
      {"text detector", fillTextPlanes, literal::fillTextPlanes},
      {"text line", PrepareTextLine, literal::prepareTextLine},
      {"classifier", fillClassifierPlanes, literal::fillClassifierPlanes},
      {"fitted", FitToInput, literal::fitToInput},
      {"fitted, normalised", FitToInputNormalized, literal::fitToInputNormalized},
      {"second recogniser", PrepareOcrInput, literal::prepareOcrInput}};
  cv::RNG random(31);
  for (const auto& [name, ours, plain] : steps) {
    int compared = 0;
    for (int round = 0; round < 120; ++round) {
      const Picture picture(round, random);
      // Every other one is the last part of the picture, with a stride of its own.
      const cv::Point corner(random.uniform(0, picture.image.cols), random.uniform(0, picture.image.rows));
      const cv::Mat region =
          round % 2 == 0 ? picture.image : picture.image(cv::Rect(corner, cv::Point(picture.image.size())));
      const cv::Size input(random.uniform(1, 120), random.uniform(1, 120));
      const auto made = [&region = region, input](Fill step) {
        try {
          return bitsOf(input, [&](float* out) { step(region, input, out); });
        } catch (const cv::Exception&) {
          return std::vector<std::uint32_t>();  // a region that does not fit
        }
      };
      const auto expected = made(plain);
      ASSERT_EQ(made(ours), expected) << name << region.size() << input;
      compared += expected.empty() ? 0 : 1;
    }
    EXPECT_GT(compared, 30) << name;
  }
}

/// Scores of few different values, so that there are ties, and among those below 0.25 NaN and minus infinity.
float anyScore(cv::RNG& random, float share) {
  if (random.uniform(0.0F, 1.0F) < share) return 0.25F + 0.05F * static_cast<float>(random.uniform(0, 12));
  constexpr float kLow[] = {kNan, -kInf, -1.0F, -0.0F, 0.0F, 0.25F};
  return random.uniform(0, 20) == 0 ? kLow[random.uniform(0, 6)] : 0.2F;
}

void expectSame(const Candidates& found, const Candidates& expected) {
  EXPECT_EQ(std::tie(found.boxes, found.scores, found.classIds, found.places),
            std::tie(expected.boxes, expected.scores, expected.classIds, expected.places));
  EXPECT_FALSE(found.badBox);
}

TEST(Literal, YoloOutputsGiveTheSameCandidatesAndObjects) {
  cv::RNG random(37);
  VsaFrame frame;
  VsaModelConfig config;
  frame.width = 640, frame.height = 480;
  config.nmsThreshold = 0.5F, config.objThreshold = 0.3F, config.scoreThreshold = 0.25F;
  for (int round = 0; round < 60; ++round) {
    const int classes = round % 3 == 0 ? random.uniform(1, 4) : random.uniform(1, 90);
    const int count = round % 4 == 0 ? 1 : random.uniform(1, 1500);
    constexpr float kShares[] = {0.0F, 0.001F, 0.05F, 0.9F};
    const float share = kShares[random.uniform(0, 4)];
    config.classNames.clear();
    frame.wantedClasses.clear();
    for (int c = 0; c < classes; ++c) {
      config.classNames.push_back("class " + std::to_string(c));
      if (c % 3 != 1) frame.wantedClasses.insert(config.classNames.back());
    }
    config.classCount = static_cast<std::uint32_t>(classes);
    // One candidate a row: box, objectness (or the confidence of a pose), class scores.
    cv::Mat rows(count, 5 + classes, CV_32FC1);
    for (int r = 0; r < count; ++r) {
      for (int c = 0; c < rows.cols; ++c) {
        rows.at<float>(r, c) = c < 4 ? random.uniform(c < 2 ? -50.0F : 0.0F, 700.0F) : anyScore(random, share);
      }
    }
    const FloatGrid byRow{rows.ptr<float>(), count, rows.cols};
    const float scale = random.uniform(0.1F, 4.0F);
    const Candidates yolo5 = literal::decodeYolo5(byRow, classes, config.objThreshold, 0.25F);
    expectSame(decodeYolo5(byRow, classes, config.objThreshold, 0.25F), yolo5);
    // The other heads have a candidate a column; the row of objectness is for them one class more.
    const cv::Mat columns = rows.t();
    const FloatGrid byColumn{columns.ptr<float>(), rows.cols, count};
    const Candidates yolo8 = literal::decodeYolo8(byColumn, classes, 0.25F);
    expectSame(decodeYolo8(byColumn, classes, 0.25F), yolo8);
    expectSame(decodeYolo8Pose(byColumn, 0.25F, scale), literal::decodeYolo8Pose(byColumn, 0.25F, scale));
    for (const Candidates& found : {yolo5, yolo8}) {
      EXPECT_EQ(bytesOf(wantedObjects(found, scale, config, frame).objects),
                bytesOf(literal::objectsOf(found, scale, config, frame)));
    }
    // The first class's score made a class id: with a fraction, below zero and past the last.
    for (int r = 0; r < count; ++r) rows.at<float>(r, 5) = random.uniform(-2.0F, static_cast<float>(classes + 2));
    const FrameObjects yolo26 = decodeYolo26(byRow, scale, config, frame);
    EXPECT_FALSE(yolo26.badBox);
    EXPECT_EQ(bytesOf(yolo26.objects), bytesOf(literal::decodeYolo26(byRow, scale, config, frame)));
  }
}

/// A smooth field of -1 to 1 and a little beyond: a coarse one, enlarged.
void fillSmooth(cv::Mat field, cv::RNG& random) {
  cv::Mat coarse(6, 6, CV_32FC1);
  random.fill(coarse, cv::RNG::UNIFORM, -1.0F, 1.0F);
  cv::resize(coarse, field, field.size(), 0, 0, cv::INTER_CUBIC);
}

TEST(Literal, MasksGiveTheSameOutlines) {
  // Ratios of a power of two up to 64 take the short way, all others the plain one.
  const std::pair<cv::Size, cv::Size> cases[] = {
      {{160, 160}, {640, 640}}, {{40, 40}, {160, 160}}, {{40, 24}, {160, 96}}, {{24, 40}, {48, 320}},
      {{30, 30}, {30, 30}},     {{20, 20}, {60, 60}},   {{32, 32}, {48, 48}},  {{64, 64}, {32, 32}},
      {{1, 1}, {32, 32}},       {{3, 50}, {12, 200}},   {{40, 24}, {96, 160}}, {{20, 20}, {40, 60}},
      {{2, 2}, {256, 256}}};
  cv::RNG random(11);
  std::vector<std::uint8_t> memory;
  int withOutline = 0;
  for (const auto& [size, input] : cases) {
    const auto plane = static_cast<std::size_t>(size.area());
    std::vector<float> prototypes(kMaskCoefficients * plane);
    for (int round = 0; round < 120; ++round) {
      for (std::size_t k = 0; round % 20 == 0 && k < kMaskCoefficients; ++k) {
        fillSmooth(cv::Mat(size, CV_32FC1, prototypes.data() + k * plane), random);
      }
      MaskCoefficients coefficients;
      for (float& c : coefficients) c = random.uniform(-2.0F, 2.0F);
      const cv::Rect box(random.uniform(-20, input.width), random.uniform(-20, input.height),
                         random.uniform(0, input.width), random.uniform(0, input.height));
      const auto expected = literal::maskOutline({prototypes.data(), size}, coefficients, box, input);
      ASSERT_EQ(maskOutline({prototypes.data(), size}, coefficients, box, input, memory), expected)
          << size << input << box;
      withOutline += expected.empty() ? 0 : 1;
    }
  }
  EXPECT_GT(withOutline, 500);
}

TEST(Literal, TextMapsGiveTheSameRegions) {
  cv::RNG random(41);
  std::size_t regions = 0;
  for (int round = 0; round < 40; ++round) {
    cv::Mat map(random.uniform(1, 200), random.uniform(1, 300), CV_32FC1);
    fillSmooth(map, random);
    TextBoxParams params;
    params.boxThreshold = random.uniform(0.1F, 0.7F);
    params.candidateLimit = round % 8 == 0 ? 2 : 1000;
    const cv::Size frame(random.uniform(1, 2000), random.uniform(1, 2000));
    const cv::Size resized(random.uniform(1, 30) * 32, random.uniform(1, 30) * 32);
    const TextRegions expected = literal::extractTextBoxes(params, map, frame, resized);
    const TextRegions found = extractTextBoxes(params, map, frame, resized);
    EXPECT_EQ(std::tie(found.regions, found.scores), std::tie(expected.regions, expected.scores));
    regions += expected.regions.size();
  }
  EXPECT_GT(regions, 50U);
}

TEST(Literal, ScoresGiveTheSameText) {
  cv::RNG random(43);
  for (int round = 0; round < 120; ++round) {
    const int steps = random.uniform(0, 60);
    const int classes = random.uniform(round % 3 == 0 ? 0 : 2, round % 3 == 1 ? 200 : 20);
    std::vector<float> scores;
    for (int i = 0; i < steps * classes; ++i) scores.push_back(anyScore(random, 0.1F));
    std::vector<std::string> letters;
    for (int i = 0; i < classes; ++i) letters.push_back(std::to_string(i) + ",");
    const auto t = static_cast<std::size_t>(steps), c = static_cast<std::size_t>(classes);
    EXPECT_EQ(decodeOcr(scores.data(), {t, c, c, 1}, letters), literal::decodeOcr(scores.data(), t, c, false, letters));
    EXPECT_EQ(decodeOcr(scores.data(), {t, c, 1, t}, letters), literal::decodeOcr(scores.data(), t, c, true, letters));
    if (classes > 3) letters.resize(c - 2);
    const CharacterDictionary dictionary(letters);
    const FloatGrid grid{scores.data(), steps, classes};
    EXPECT_EQ(CtcGreedyDecode(grid, dictionary), literal::ctcGreedyDecode(grid, dictionary));
  }
}

}  // namespace
