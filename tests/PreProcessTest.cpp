// What reaches a network, against OpenCV's calls one after the other.

#include "Utils/PreProcessUtils.h"

#include <gtest/gtest.h>

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
  for (const cv::Mat& channel : channels)
    planes.insert(planes.end(), channel.begin<float>(), channel.end<float>());
  return planes;
}

const cv::Size kOddSizes[] = {{1, 1}, {3, 1}, {1, 5}, {17, 9}, {64, 31}, {333, 127}};

TEST(Planes, OfYoloNetworksAreThoseOfTheBlob) {
  for (const cv::Size size : kOddSizes) {
    const cv::Mat image = randomImage(size.width, size.height, 3);
    const cv::Mat blob =
        cv::dnn::blobFromImage(image, 0.00392156862745098, size, cv::Scalar(), true, false, CV_32F);
    const auto count = static_cast<std::size_t>(3 * size.area());
    const std::vector<float> expected(blob.ptr<float>(), blob.ptr<float>() + count);
    EXPECT_EQ(filled(count, [&](float* planes) { fillUnitPlanes(image, planes); }), expected)
        << size;
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
                     [&](float* planes) { prepareTextLine(region, c.input, planes); }),
              planesOf(padded))
        << c.region;
  }
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
