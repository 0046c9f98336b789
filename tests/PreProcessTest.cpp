// What reaches a network, against OpenCV's calls one after the other.

#include "Utils/PreProcessUtils.h"

#include <gtest/gtest.h>

#include <limits>
#include <opencv2/dnn.hpp>
#include <opencv2/imgproc.hpp>

#include "support/LogCapture.h"
#include "support/TestHost.h"

namespace {

using namespace TolCompatibleLib;

TEST(Letterbox, ScalesIntoTheTopLeftCorner) {
  struct Case {
    cv::Size frame, input, scaled;
    float scale;
  };
  const Case cases[] = {
      {{1920, 1080}, {640, 640}, {640, 360}, 3.0F},
      {{1080, 1920}, {640, 640}, {360, 640}, 3.0F},
      {{640, 640}, {640, 640}, {640, 640}, 1.0F},
      {{1000, 700}, {640, 640}, {640, 448}, 1.5625F},
      {{64, 48}, {640, 640}, {640, 480}, 0.1F},
      {{3, 3}, {7, 5}, {5, 5}, 0.6F},
      // Not square: the factor is the longer side over the height, whatever limited the scaling.
      {{1920, 1080}, {640, 320}, {568, 320}, 6.0F},
      {{1000, 100}, {320, 640}, {320, 32}, 1.5625F},
  };
  for (const Case& c : cases) {
    const cv::Mat image = randomImage(c.frame.width, c.frame.height);
    const auto made = letterbox(image, c.input);
    ASSERT_TRUE(made.has_value());
    EXPECT_EQ(made->scale, c.scale) << c.frame;
    ASSERT_EQ(made->canvas.size(), c.input);
    cv::Mat expected = cv::Mat::zeros(c.input, CV_8UC3);
    cv::Mat scaled;
    cv::resize(image, scaled, c.scaled, 0, 0, cv::INTER_NEAREST);
    scaled.copyTo(expected(cv::Rect({0, 0}, c.scaled)));
    EXPECT_EQ(cv::norm(made->canvas, expected, cv::NORM_INF), 0.0) << c.frame;
  }
}

TEST(Letterbox, RefusesAPictureOfWhichNothingWouldBeLeft) {
  LogCapture log;
  EXPECT_FALSE(letterbox(randomImage(641, 1), {640, 640}));
  EXPECT_FALSE(letterbox(randomImage(1, 641), {640, 640}));
  EXPECT_FALSE(letterbox(randomImage(8, 8), {0, 640}));
  EXPECT_EQ(log.take().size(), 3U);
  EXPECT_TRUE(letterbox(randomImage(640, 1), {640, 640}));
  // Here the scaled width, in single precision, comes out one pixel wider than the input.
  std::vector<float> planes(std::size_t{3} * 10000001 + 1, 7.0F);
  EXPECT_TRUE(letterboxPlanes(randomImage(1148, 1), {10000001, 1}, planes.data()).has_value());
  EXPECT_EQ(planes.back(), 7.0F);
}

std::vector<float> filled(std::size_t count, const std::function<void(float*)>& fill) {
  std::vector<float> planes(count + 1, -7.0F);
  fill(planes.data());
  EXPECT_EQ(planes.back(), -7.0F) << "written past the end";
  planes.pop_back();
  return planes;
}

/// The three channels of a float picture one after the other.
std::vector<float> planesOf(const cv::Mat& image) {
  std::vector<cv::Mat> channels;
  cv::split(image, channels);
  std::vector<float> planes;
  for (const cv::Mat& channel : channels) planes.insert(planes.end(), channel.begin<float>(), channel.end<float>());
  return planes;
}

const cv::Size kOddSizes[] = {{1, 1}, {3, 1}, {1, 5}, {17, 9}, {64, 31}, {333, 127}};

TEST(Planes, OfYoloNetworksAreThoseOfTheLetterboxedBlob) {
  // Portrait and landscape, larger and smaller than the input, rows and columns of one pixel.
  cv::RNG random(29);
  for (int round = 0; round < 120; ++round) {
    const cv::Size input(random.uniform(1, 90), random.uniform(1, 90));
    const cv::Size frame = round < 6 ? kOddSizes[round] : cv::Size(random.uniform(1, 300), random.uniform(1, 300));
    const cv::Mat image = randomImage(frame.width, frame.height, static_cast<std::uint64_t>(round));
    LogCapture log;
    const auto boxed = letterbox(image, input);
    const auto count = static_cast<std::size_t>(3 * input.area());
    std::optional<float> scale;
    const std::vector<float> planes = filled(count, [&](float* out) { scale = letterboxPlanes(image, input, out); });
    ASSERT_EQ(boxed.has_value(), scale.has_value());
    if (!boxed) continue;
    EXPECT_EQ(*scale, boxed->scale);
    const cv::Mat blob =
        cv::dnn::blobFromImage(boxed->canvas, 0.00392156862745098, input, cv::Scalar(), true, false, CV_32F);
    EXPECT_EQ(planes, std::vector<float>(blob.ptr<float>(), blob.ptr<float>() + count)) << frame << input;
  }
}

TEST(Planes, OfTheTextDetectorAreNormalisedAsStored) {
  const cv::Size targets[] = {{32, 32}, {96, 64}, {320, 160}};
  for (const cv::Size size : kOddSizes) {
    for (const cv::Size target : targets) {
      const cv::Mat image = randomImage(size.width, size.height, 5);
      cv::Mat resized;
      cv::resize(image, resized, target, 0, 0, cv::INTER_LINEAR);
      resized.convertTo(resized, CV_32FC3, 0.00392156862745098);
      cv::subtract(resized, cv::Scalar(0.485, 0.456, 0.406), resized);
      cv::divide(resized, cv::Scalar(0.229, 0.224, 0.225), resized);
      EXPECT_EQ(filled(static_cast<std::size_t>(3 * target.area()),
                       [&](float* planes) { fillTextPlanes(image, target, planes); }),
                planesOf(resized))
          << size << target;
    }
  }
}

TEST(Planes, OfATextLineEndInZeros) {
  struct Case {
    cv::Size region, input;
    int width;  ///< of the line in the input
  };
  const Case cases[] = {{{400, 10}, {320, 48}, 320},
                        {{48, 48}, {320, 48}, 48},
                        {{1, 500}, {320, 48}, 1},
                        {{47, 31}, {640, 48}, 73},
                        {{500, 47}, {640, 48}, 511}};
  for (const Case& c : cases) {
    const cv::Mat region = randomImage(c.region.width, c.region.height, 9);
    cv::Mat line;
    cv::resize(region, line, {c.width, c.input.height}, 0, 0, cv::INTER_LINEAR);
    line.convertTo(line, CV_32FC3, 0.00784313725490196);
    cv::subtract(line, cv::Scalar::all(1), line);
    cv::Mat padded = cv::Mat::zeros(c.input, CV_32FC3);
    line.copyTo(padded(cv::Rect({0, 0}, line.size())));
    EXPECT_EQ(filled(static_cast<std::size_t>(3 * c.input.area()),
                     [&](float* planes) { PrepareTextLine(region, c.input, planes); }),
              planesOf(padded))
        << c.region;
  }
}

/// Blue, green and red planes of a float picture the other way round.
std::vector<float> planesRedFirst(const cv::Mat& image) {
  cv::Mat swapped;
  cv::cvtColor(image, swapped, cv::COLOR_BGR2RGB);
  return planesOf(swapped);
}

TEST(Planes, OfTheImageClassifierMixUpTheStatisticsOfRedAndBlue) {
  for (const cv::Size size : kOddSizes) {
    const cv::Mat region = randomImage(size.width, size.height, 13);
    const cv::Size target(24, 16);
    cv::Mat resized;
    cv::resize(region, resized, target, 0, 0, cv::INTER_LINEAR);
    std::vector<float> expected;
    for (const auto& [channel, mean, deviation] :
         {std::tuple{2, 0.406F, 0.225F}, {1, 0.456F, 0.224F}, {0, 0.485F, 0.229F}}) {
      for (int y = 0; y < target.height; ++y) {
        for (int x = 0; x < target.width; ++x) {
          expected.push_back((static_cast<float>(resized.at<cv::Vec3b>(y, x)[channel]) / 255.0F - mean) / deviation);
        }
      }
    }
    EXPECT_EQ(filled(expected.size(), [&](float* planes) { fillClassifierPlanes(region, target, planes); }), expected);
  }
}

TEST(Planes, OfEmbeddingsAreFittedByTheWidthAndCentred) {
  struct Case {
    cv::Size region, input, scaled;
  };
  const Case cases[] = {{{200, 100}, {64, 128}, {64, 32}},
                        {{40, 40}, {64, 64}, {64, 64}},
                        {{13, 27}, {32, 33}, {15, 32}},
                        {{3, 2}, {16, 16}, {16, 11}}};
  for (const Case& c : cases) {
    const cv::Mat region = randomImage(c.region.width, c.region.height, 17);
    const auto literal = [&](double grey) {
      cv::Mat image;
      cv::resize(region, image, c.scaled, 0, 0, cv::INTER_NEAREST);
      const int top = (c.input.height - c.scaled.height) / 2;
      const int left = (c.input.width - c.scaled.width) / 2;
      cv::copyMakeBorder(image, image, top, c.input.height - c.scaled.height - top, left,
                         c.input.width - c.scaled.width - left, cv::BORDER_CONSTANT, cv::Scalar(grey, grey, grey, 0));
      image.convertTo(image, CV_32FC3, 0.00392156862745098);
      return image;
    };
    const auto count = static_cast<std::size_t>(3 * c.input.area());
    EXPECT_EQ(filled(count, [&](float* planes) { FitToInput(region, c.input, planes); }), planesRedFirst(literal(128)));
    cv::Mat normalised = literal(114);
    cv::subtract(normalised, cv::Scalar(0.406F, 0.456F, 0.485F), normalised);
    cv::divide(normalised, cv::Scalar(0.225F, 0.224F, 0.229F), normalised);
    EXPECT_EQ(filled(count, [&](float* planes) { FitToInputNormalized(region, c.input, planes); }),
              planesRedFirst(normalised));
  }
  // A tall region outgrows an input that is wider than high; a thin one vanishes: OpenCV refuses
  // both.
  std::vector<float> planes(3 * 64 * 32);
  EXPECT_THROW(FitToInput(randomImage(50, 100), {64, 32}, planes.data()), cv::Exception);
  EXPECT_THROW(FitToInput(randomImage(1000, 1), {64, 32}, planes.data()), cv::Exception);
}

TEST(Planes, OfTheSecondRecogniserUseTheFoldedConstants) {
  const cv::Mat region = randomImage(50, 20, 19);
  const cv::Size target(100, 32);
  cv::Mat resized;
  cv::resize(region, resized, target, 0, 0, cv::INTER_LINEAR);
  std::vector<float> expected;
  for (const auto& [channel, factor, offset] :
       {std::tuple{2, 0.017124755F, 2.117904F}, {1, 0.017507004F, 2.0357141F}, {0, 0.017429195F, 1.8044444F}}) {
    for (int i = 0; i < target.area(); ++i) {
      const volatile float product = static_cast<float>(resized.ptr<cv::Vec3b>()[i][channel]) * factor;
      expected.push_back(product - offset);
    }
  }
  EXPECT_EQ(filled(expected.size(), [&](float* planes) { PrepareOcrInput(region, target, planes); }), expected);
}

TEST(Regions, OutsideThePictureAreOpenCvsToRefuse) {
  const cv::Mat image = randomImage(40, 30);
  const int most = std::numeric_limits<int>::max();
  const int least = std::numeric_limits<int>::min();
  const auto cut = [&image](int left, int top, int right, int bottom) {
    VsaObject object;
    object.left = left;
    object.top = top;
    object.right = right;
    object.bottom = bottom;
    return regionOf(image, object).size();
  };
  EXPECT_EQ(cut(0, 0, 40, 30), cv::Size(40, 30));
  EXPECT_EQ(cut(39, 29, 40, 30), cv::Size(1, 1));
  EXPECT_THROW(cut(0, 0, 41, 30), cv::Exception);
  EXPECT_THROW(cut(-1, 0, 10, 10), cv::Exception);
  EXPECT_THROW(cut(20, 0, 10, 10), cv::Exception);
  EXPECT_THROW(cut(5, 5, most, 10), cv::Exception);
  EXPECT_THROW(cut(5, 5, least, 10), cv::Exception);
  EXPECT_THROW(cut(least, least, most, most), cv::Exception);
  EXPECT_THROW(cut(most, 0, most, 10), cv::Exception);
}

TEST(TextInputSize, ShrinksToTheLimitAndRoundsUpTo32) {
  struct Case {
    cv::Size frame;
    std::uint32_t limit;
    cv::Size expected;
  };
  const Case cases[] = {{{100, 50}, 960, {128, 64}}, {{1920, 1080}, 960, {960, 544}},
                        {{10, 10}, 960, {32, 32}},   {{960, 960}, 960, {960, 960}},
                        {{961, 1}, 960, {960, 32}},  {{64, 33}, 0xFFFFFFFFU, {64, 64}},
                        {{1000, 500}, 7, {32, 32}},  {{4000, 3000}, 640, {640, 480}}};
  for (const Case& c : cases) EXPECT_EQ(textInputSize(c.frame, c.limit), c.expected) << c.frame;
}

}  // namespace
