// The steps before and after inference give the same bits as their reference versions, over random
// input.

#include <gtest/gtest.h>

#include <cstring>
#include <opencv2/imgproc.hpp>
#include <tuple>

#include "Utils/ByteTables.h"
#include "Utils/MaskOutline.h"
#include "Utils/PreProcessUtils.h"
#include "Utils/TextDecode.h"
#include "Utils/TextRegions.h"
#include "Utils/YoloDecode.h"
#include "benchmarks/Reference.h"
#include "support/LogCapture.h"
#include "support/TestHost.h"

namespace {

using namespace TolCompatibleLib;

/// An image of random size and content. Its buffer ends with the last pixel, so that the address
/// sanitizer reports reads past it. The first rounds have one row or one column.
struct RandomImage {
  RandomImage(int round, cv::RNG& random) {
    const cv::Size kThin[] = {{1, 1}, {3, 1}, {1, 5}, {300, 1}, {1, 200}, {2, 2}};
    const cv::Size size =
        round < 6 ? kThin[round]
                  : cv::Size(random.uniform(1, 300), random.uniform(1, round % 2 == 0 ? 300 : 90));
    bytes.resize(std::size_t{3} * static_cast<std::size_t>(size.area()));
    image = cv::Mat(size, CV_8UC3, bytes.data());
    random.fill(image, cv::RNG::UNIFORM, 0, 256);
  }
  std::vector<uchar> bytes;
  cv::Mat image;
};

/// The bits that a step writes into the planes of an input. What it does not write stays NaN.
template <class Fill>
std::vector<std::uint32_t> bitsOf(cv::Size input, Fill fill) {
  std::vector<float> planes(std::size_t{3} * static_cast<std::size_t>(input.area()), kNan);
  fill(planes.data());
  std::vector<std::uint32_t> bits(planes.size());
  std::memcpy(bits.data(), planes.data(), planes.size() * sizeof(float));
  return bits;
}

TEST(Reference, LetterboxedPlanesAreTheSame) {
  EXPECT_TRUE(unitTables().linear) << "the planes are looked up instead of computed";
  cv::RNG random(29);
  LogCapture log;
  std::vector<float> keptPlanes(30000);
  std::vector<uchar> keptPixels(30000);
  LetterboxWriter writer;
  LetterboxWriter pixelWriter;
  for (int round = 0; round < 200; ++round) {
    const RandomImage source(round, random);
    const cv::Size input(random.uniform(1, 100), random.uniform(1, 100));
    const reference::Letterboxed expected = reference::letterbox(source.image, input);
    const auto boxed = letterbox(source.image, input);
    std::optional<float> scale;
    const auto planes = bitsOf(input, [&](float* out) {
      scale = LetterboxWriter().writePlanes(source.image, input, out);
    });
    ASSERT_EQ(boxed.has_value(), !expected.canvas.empty());
    ASSERT_EQ(scale.has_value(), !expected.canvas.empty());
    if (!scale) continue;
    EXPECT_EQ(boxed->scale, expected.scale);
    EXPECT_EQ(*scale, expected.scale);
    EXPECT_EQ(cv::norm(boxed->canvas, expected.canvas, cv::NORM_INF), 0.0);
    const cv::Mat blob = reference::unitBlob(expected.canvas);
    EXPECT_EQ(planes,
              bitsOf(input, [&](float* out) { std::copy_n(blob.ptr<float>(), blob.total(), out); }))
        << source.image.size() << input;
    // The same if the input still holds another image of this size, before that one of twice the
    // size, which is scaled to the same size, and before that one of another size.
    const cv::Mat larger(source.image.size() * 2, CV_8UC3, cv::Scalar::all(33));
    const cv::Mat other(source.image.size(), CV_8UC3, cv::Scalar::all(99));
    for (const cv::Mat& image : {larger, other, source.image}) {
      writer.writePlanes(image, input, keptPlanes.data());
      pixelWriter.writePixels(image, input, keptPixels.data());
    }
    EXPECT_EQ(bitsOf(input, [&](float* out) { std::copy_n(keptPlanes.data(), blob.total(), out); }),
              planes);
    EXPECT_TRUE(std::equal(expected.canvas.datastart, expected.canvas.dataend, keptPixels.data()));
  }
}

using Fill = void (*)(const cv::Mat& region, cv::Size size, float* planes);

TEST(Reference, PlanesOfRegionsAreTheSame) {
  const std::tuple<const char*, Fill, Fill> steps[] = {
      {"text detector", fillTextPlanes, reference::fillTextPlanes},
      {"text line", PrepareTextLine, reference::prepareTextLine},
      {"classifier", fillClassifierPlanes, reference::fillClassifierPlanes},
      {"face embedding", FitToInput, reference::fitToInput},
      {"re-identification", FitToInputNormalized, reference::fitToInputNormalized},
      {"second recogniser", PrepareOcrInput, reference::prepareOcrInput}};
  cv::RNG random(31);
  for (const auto& [name, step, referenceStep] : steps) {
    int compared = 0;
    for (int round = 0; round < 120; ++round) {
      const RandomImage source(round, random);
      // Every second region is the bottom-right part of the image, so its stride is larger than its
      // rows.
      const cv::Point corner(random.uniform(0, source.image.cols),
                             random.uniform(0, source.image.rows));
      const cv::Mat region = round % 2 == 0
                                 ? source.image
                                 : source.image(cv::Rect(corner, cv::Point(source.image.size())));
      const cv::Size input(random.uniform(1, 120), random.uniform(1, 120));
      const auto planesOf = [&region = region, input](Fill fill) {
        try {
          return bitsOf(input, [&](float* out) { fill(region, input, out); });
        } catch (const cv::Exception&) {
          return std::vector<std::uint32_t>();  // a region that scaling leaves empty or too large
        }
      };
      const auto expected = planesOf(referenceStep);
      ASSERT_EQ(planesOf(step), expected) << name << region.size() << input;
      compared += expected.empty() ? 0 : 1;
    }
    EXPECT_GT(compared, 30) << name;
  }
}

/// A score above 0.25 with the given probability. There are few different values, so ties are
/// frequent; those up to 0.25 include NaN and minus infinity.
float randomScore(cv::RNG& random, float probability) {
  if (random.uniform(0.0F, 1.0F) < probability)
    return 0.25F + 0.05F * static_cast<float>(random.uniform(0, 12));
  constexpr float kLow[] = {kNan, -kInf, -1.0F, -0.0F, 0.0F, 0.25F};
  return random.uniform(0, 20) == 0 ? kLow[random.uniform(0, 6)] : 0.2F;
}

void expectSame(const Candidates& found, const Candidates& expected) {
  EXPECT_EQ(std::tie(found.boxes, found.scores, found.classIds, found.outputIndices),
            std::tie(expected.boxes, expected.scores, expected.classIds, expected.outputIndices));
  EXPECT_FALSE(found.badBox);
}

TEST(Reference, YoloCandidatesAndObjectsAreTheSame) {
  cv::RNG random(37);
  VsaFrame frame;
  VsaModelConfig config;
  frame.width = 640;
  frame.height = 480;
  config.nmsThreshold = 0.5F;
  config.objThreshold = 0.3F;
  config.scoreThreshold = 0.25F;
  for (int round = 0; round < 60; ++round) {
    const int classes = round % 3 == 0 ? random.uniform(1, 4) : random.uniform(1, 90);
    const int count = round % 4 == 0 ? 1 : random.uniform(1, 1500);
    constexpr float kProbabilities[] = {0.0F, 0.001F, 0.05F, 0.9F};
    const float probability = kProbabilities[random.uniform(0, 4)];
    config.classNames.clear();
    frame.wantedClasses.clear();
    for (int c = 0; c < classes; ++c) {
      config.classNames.push_back("class " + std::to_string(c));
      if (c % 3 != 1) frame.wantedClasses.insert(config.classNames.back());
    }
    config.classCount = static_cast<std::uint32_t>(classes);
    // One candidate per row: box, objectness (or the score of a pose), class scores.
    cv::Mat rows(count, 5 + classes, CV_32FC1);
    for (int r = 0; r < count; ++r) {
      for (int c = 0; c < rows.cols; ++c) {
        rows.at<float>(r, c) = c < 4 ? random.uniform(c < 2 ? -50.0F : 0.0F, 700.0F)
                                     : randomScore(random, probability);
      }
    }
    const FloatGrid byRow{rows.ptr<float>(), count, rows.cols};
    const float scale = random.uniform(0.1F, 4.0F);
    const Candidates yolo5 = reference::decodeYolo5(byRow, classes, config.objThreshold, 0.25F);
    expectSame(decodeYolo5(byRow, classes, config.objThreshold, 0.25F), yolo5);
    // The other heads have one candidate per column; to them, the objectness is the first class
    // score.
    const cv::Mat columns = rows.t();
    const FloatGrid byColumn{columns.ptr<float>(), rows.cols, count};
    const Candidates yolo8 = reference::decodeYolo8(byColumn, classes, 0.25F);
    expectSame(decodeYolo8(byColumn, classes, 0.25F), yolo8);
    expectSame(decodeYolo8Pose(byColumn, 0.25F, scale),
               reference::decodeYolo8Pose(byColumn, 0.25F, scale));
    for (const Candidates& found : {yolo5, yolo8}) {
      EXPECT_EQ(bytesOf(wantedObjects(found, scale, config, frame).objects),
                bytesOf(reference::wantedObjects(found, scale, config, frame)));
    }
    // Column 5 becomes a class id: with a fraction, negative, or past the last class.
    for (int r = 0; r < count; ++r)
      rows.at<float>(r, 5) = random.uniform(-2.0F, static_cast<float>(classes + 2));
    const FrameObjects yolo26 = decodeYolo26(byRow, scale, config, frame);
    EXPECT_FALSE(yolo26.badBox);
    EXPECT_EQ(bytesOf(yolo26.objects),
              bytesOf(reference::decodeYolo26(byRow, scale, config, frame)));
  }
}

/// Fills the field with smooth values, mostly of -1 to 1, by enlarging a coarse random one.
void fillSmoothly(cv::Mat field, cv::RNG& random) {
  cv::Mat coarse(6, 6, CV_32FC1);
  random.fill(coarse, cv::RNG::UNIFORM, -1.0F, 1.0F);
  cv::resize(coarse, field, field.size(), 0, 0, cv::INTER_CUBIC);
}

TEST(Reference, MaskOutlinesAreTheSame) {
  // Ratios that are a power of two up to 64 have code of their own.
  const std::pair<cv::Size, cv::Size> cases[] = {
      {{160, 160}, {640, 640}}, {{40, 40}, {160, 160}}, {{40, 24}, {160, 96}},
      {{24, 40}, {48, 320}},    {{30, 30}, {30, 30}},   {{20, 20}, {60, 60}},
      {{32, 32}, {48, 48}},     {{64, 64}, {32, 32}},   {{1, 1}, {32, 32}},
      {{3, 50}, {12, 200}},     {{40, 24}, {96, 160}},  {{20, 20}, {40, 60}},
      {{2, 2}, {256, 256}}};
  cv::RNG random(11);
  std::vector<std::uint8_t> memory;
  int outlineCount = 0;
  for (const auto& [size, input] : cases) {
    const auto plane = static_cast<std::size_t>(size.area());
    std::vector<float> prototypes(kMaskCoefficients * plane);
    for (int round = 0; round < 120; ++round) {
      for (std::size_t k = 0; round % 20 == 0 && k < kMaskCoefficients; ++k) {
        fillSmoothly(cv::Mat(size, CV_32FC1, prototypes.data() + k * plane), random);
      }
      MaskCoefficients coefficients;
      // Every fourth mask is close to one half everywhere, where the order of roundings decides.
      const float strength = round % 4 == 3 ? 2e-7F : 2.0F;
      for (float& c : coefficients) c = random.uniform(-strength, strength);
      const cv::Rect box(random.uniform(-20, input.width), random.uniform(-20, input.height),
                         random.uniform(0, input.width), random.uniform(0, input.height));
      const auto expected =
          reference::maskOutline({prototypes.data(), size}, coefficients, box, input);
      ASSERT_EQ(maskOutline({prototypes.data(), size}, coefficients, box, input, memory), expected)
          << size << input << box;
      outlineCount += expected.empty() ? 0 : 1;
    }
  }
  EXPECT_GT(outlineCount, 500);
}

TEST(Reference, TextRegionsAreTheSame) {
  cv::RNG random(41);
  std::size_t regionCount = 0;
  for (int round = 0; round < 40; ++round) {
    cv::Mat map(random.uniform(1, 200), random.uniform(1, 300), CV_32FC1);
    fillSmoothly(map, random);
    TextBoxParams params;
    params.boxThreshold = random.uniform(0.1F, 0.7F);
    params.candidateLimit = round % 8 == 0 ? 2 : 1000;
    // Every other frame is so flat that corners of a region share their height.
    const cv::Size frame(random.uniform(1, 2000), random.uniform(1, round % 2 == 0 ? 2000 : 12));
    const cv::Size resized(random.uniform(1, 30) * 32, random.uniform(1, 30) * 32);
    const TextRegions expected = reference::extractTextBoxes(params, map, frame, resized);
    const TextRegions found = extractTextBoxes(params, map, frame, resized);
    EXPECT_EQ(std::tie(found.regions, found.scores), std::tie(expected.regions, expected.scores));
    regionCount += expected.regions.size();
  }
  EXPECT_GT(regionCount, 50U);
}

TEST(Reference, DecodedTextIsTheSame) {
  cv::RNG random(43);
  for (int round = 0; round < 120; ++round) {
    const int steps = random.uniform(0, 60);
    const int classes = random.uniform(round % 3 == 0 ? 0 : 2, round % 3 == 1 ? 200 : 20);
    std::vector<float> scores;
    for (int i = 0; i < steps * classes; ++i) scores.push_back(randomScore(random, 0.1F));
    std::vector<std::string> characters;
    for (int i = 0; i < classes; ++i) characters.push_back(std::to_string(i) + ",");
    const auto t = static_cast<std::size_t>(steps);
    const auto c = static_cast<std::size_t>(classes);
    EXPECT_EQ(decodeOcr(scores.data(), {t, c, c, 1}, characters),
              reference::decodeOcr(scores.data(), t, c, false, characters));
    EXPECT_EQ(decodeOcr(scores.data(), {t, c, 1, t}, characters),
              reference::decodeOcr(scores.data(), t, c, true, characters));
    if (classes > 3) characters.resize(c - 2);
    const CharacterDictionary dictionary(characters);
    const FloatGrid grid{scores.data(), steps, classes};
    EXPECT_EQ(CtcGreedyDecode(grid, dictionary), reference::ctcGreedyDecode(grid, dictionary));
  }
}

TEST(Reference, SpectrogramRequestsAreTheSame) {
  cv::RNG random(47);
  for (int size = 0; size < 100; ++size) {
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(size));
    for (std::uint8_t& byte : bytes) byte = static_cast<std::uint8_t>(random.uniform(0, 256));
    VsaFrame frame;
    frame.audioData = bytes.data();
    frame.audioFrameSize = size;
    frame.pts = std::int64_t{size} << 40;
    EXPECT_EQ(spectrogramRequest(frame), reference::spectrogramRequest(frame));
  }
}

}  // namespace
