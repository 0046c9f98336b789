#include "benchmarks/Reference.h"

#include <json/json.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <opencv2/dnn.hpp>
#include <opencv2/imgproc.hpp>
#include <string_view>
#include <utility>

namespace reference {
namespace {

using namespace TolCompatibleLib;

constexpr double kOneOver255 = 0.00392156862745098;

cv::Mat wrap(FloatGrid grid) {
  return cv::Mat(grid.rows, grid.cols, CV_32FC1, const_cast<float*>(grid.data));
}

std::size_t toIndex(int i) {
  return static_cast<std::size_t>(i);
}

void add(Candidates& candidates, float x, float y, float width, float height, float score,
         int classId, int index) {
  candidates.boxes.emplace_back(static_cast<int>(x), static_cast<int>(y), static_cast<int>(width),
                                static_cast<int>(height));
  candidates.scores.push_back(score);
  candidates.classIds.push_back(classId);
  candidates.outputIndices.push_back(index);
}

std::vector<int> suppress(const Candidates& candidates, const VsaModelConfig& config) {
  std::vector<int> indices;
  cv::dnn::NMSBoxes(candidates.boxes, candidates.scores, config.scoreThreshold, config.nmsThreshold,
                    indices, 1.0F, 0);
  return indices;
}

/// Copies three channels of a float image to planes, in the given order.
void copyPlanes(const cv::Mat& image, const std::array<std::size_t, 3>& order, float* planes) {
  std::vector<cv::Mat> channels;
  cv::split(image, channels);
  for (const std::size_t channel : order) {
    std::memcpy(planes, channels[channel].data, image.total() * sizeof(float));
    planes += image.total();
  }
}

/// The region scaled to fit `size`, centred on grey, as floats of 0 to 1.
cv::Mat fitToSize(const cv::Mat& region, cv::Size size, double grey) {
  const float scale =
      static_cast<float>(size.width) / static_cast<float>(std::max(region.cols, region.rows));
  const cv::Size scaled(static_cast<int>(std::round(static_cast<float>(region.cols) * scale)),
                        static_cast<int>(std::round(static_cast<float>(region.rows) * scale)));
  cv::Mat image;
  cv::resize(region, image, scaled, 0, 0, cv::INTER_NEAREST);
  const int top = (size.height - scaled.height) / 2;
  const int left = (size.width - scaled.width) / 2;
  cv::copyMakeBorder(image, image, top, size.height - scaled.height - top, left,
                     size.width - scaled.width - left, cv::BORDER_CONSTANT,
                     cv::Scalar(grey, grey, grey, 0));
  image.convertTo(image, CV_32FC3, kOneOver255);
  return image;
}

/// Stretches the region to `size` and writes `value(byte, channel)` of each byte, red plane first.
template <class Value>
void fillStretched(const cv::Mat& region, cv::Size size, float* planes, Value value) {
  cv::Mat resized;
  cv::resize(region, resized, size, 0, 0, cv::INTER_LINEAR);
  for (int y = 0; y < size.height; ++y) {
    for (int x = 0; x < size.width; ++x, ++planes) {
      const auto& pixel = resized.at<cv::Vec3b>(y, x);
      for (int c = 0; c < 3; ++c)
        planes[static_cast<std::ptrdiff_t>(2 - c) * size.area()] =
            value(static_cast<float>(pixel[c]), c);
    }
  }
}

template <class Score>
std::size_t firstMaximum(std::size_t count, Score score) {
  std::size_t best = 0;
  float maximum = -std::numeric_limits<float>::infinity();
  for (std::size_t c = 0; c < count; ++c) {
    if (!(score(c) > maximum)) continue;
    maximum = score(c);
    best = c;
  }
  return best;
}

float polygonScore(const cv::Point2f (&corners)[4], const cv::Mat& map) {
  float minX = std::numeric_limits<float>::max();
  float minY = std::numeric_limits<float>::max();
  float maxX = std::numeric_limits<float>::min();
  float maxY = std::numeric_limits<float>::min();
  for (const cv::Point2f& corner : corners) {
    minX = std::min(minX, corner.x);
    maxX = std::max(maxX, corner.x);
    minY = std::min(minY, corner.y);
    maxY = std::max(maxY, corner.y);
  }
  const float left = std::max(std::floor(minX), 0.0F);
  const float top = std::max(std::floor(minY), 0.0F);
  const float right = std::min(std::ceil(maxX), static_cast<float>(map.cols - 1));
  const float bottom = std::min(std::ceil(maxY), static_cast<float>(map.rows - 1));
  const cv::Size size(static_cast<int>(right - left + 1), static_cast<int>(bottom - top + 1));
  if (size.width < 1 || size.height < 1) return 0.0F;
  std::vector<cv::Point> polygon;
  for (const cv::Point2f& corner : corners) {
    polygon.emplace_back(static_cast<int>(corner.x - left), static_cast<int>(corner.y - top));
  }
  cv::Mat mask = cv::Mat::zeros(size, CV_8UC1);
  cv::fillPoly(mask, std::vector<std::vector<cv::Point>>{polygon}, cv::Scalar(1));
  const cv::Rect box(cv::Point(static_cast<int>(left), static_cast<int>(top)), size);
  if (box.br().x > map.cols || box.br().y > map.rows) return 0.0F;
  return static_cast<float>(cv::mean(map(box), mask)[0]);
}

}  // namespace

Letterboxed letterbox(const cv::Mat& image, cv::Size input) {
  const float ratioX = static_cast<float>(input.width) / static_cast<float>(image.cols);
  const float ratioY = static_cast<float>(input.height) / static_cast<float>(image.rows);
  const float ratio = ratioX <= ratioY ? ratioX : ratioY;
  const cv::Size scaled(static_cast<int>(static_cast<float>(image.cols) * ratio),
                        static_cast<int>(static_cast<float>(image.rows) * ratio));
  const float scale =
      static_cast<float>(std::max(image.cols, image.rows)) / static_cast<float>(input.height);
  if (scaled.empty()) return {{}, scale};
  cv::Mat canvas = cv::Mat::zeros(input, image.type());
  cv::Mat resized;
  cv::resize(image, resized, scaled, 0, 0, cv::INTER_NEAREST);
  resized.copyTo(canvas(cv::Rect({0, 0}, scaled)));
  return {canvas, scale};
}

cv::Mat unitBlob(const cv::Mat& canvas) {
  return cv::dnn::blobFromImage(canvas, kOneOver255, canvas.size(), cv::Scalar(), true, false,
                                CV_32F);
}

Candidates decodeYolo5(FloatGrid rows, int classCount, float objThreshold, float scoreThreshold) {
  Candidates candidates;
  const cv::Mat output = wrap(rows);
  for (int r = 0; r < output.rows; ++r) {
    const float* row = output.ptr<float>(r);
    if (!(row[4] >= objThreshold)) continue;
    double best = 0;
    cv::Point bestClass;
    cv::minMaxLoc(output.row(r).colRange(5, 5 + classCount), nullptr, &best, nullptr, &bestClass);
    if (!(best > scoreThreshold)) continue;
    add(candidates, row[0] - 0.5F * row[2], row[1] - 0.5F * row[3], row[2], row[3], row[4],
        bestClass.x, r);
  }
  return candidates;
}

Candidates decodeYolo8(FloatGrid columns, int classCount, float scoreThreshold) {
  Candidates candidates;
  const cv::Mat output = wrap(columns).t();
  for (int r = 0; r < output.rows; ++r) {
    double best = 0;
    cv::Point bestClass;
    cv::minMaxLoc(output.row(r).colRange(4, 4 + classCount), nullptr, &best, nullptr, &bestClass);
    if (!(best > scoreThreshold)) continue;
    const float* row = output.ptr<float>(r);
    add(candidates, row[0] - 0.5F * row[2], row[1] - 0.5F * row[3], row[2], row[3],
        static_cast<float>(best), bestClass.x, r);
  }
  return candidates;
}

Candidates decodeYolo8Pose(FloatGrid columns, float scoreThreshold, float scale) {
  Candidates candidates;
  const cv::Mat output = wrap(columns).t();
  for (int r = 0; r < output.rows; ++r) {
    const float* row = output.ptr<float>(r);
    if (!(row[4] > scoreThreshold)) continue;
    add(candidates, (row[0] - row[2] * 0.5F) * scale, (row[1] - row[3] * 0.5F) * scale,
        row[2] * scale, row[3] * scale, row[4], 0, r);
  }
  return candidates;
}

std::vector<VsaObject> decodeYolo26(FloatGrid rows, float scale, const VsaModelConfig& config,
                                    const VsaFrame& frame) {
  std::vector<VsaObject> objects;
  for (int r = 0; r < rows.rows; ++r) {
    const float* row = rows.row(r);
    if (!(row[4] > config.scoreThreshold)) continue;
    const int classId = static_cast<int>(row[5]);
    if (classId < 0 || classId >= static_cast<int>(config.classCount)) continue;
    const std::string& name = config.classNames.at(toIndex(classId));
    if (!frame.wantedClasses.contains(name)) continue;
    objects.emplace_back(static_cast<int>(frame.width), static_cast<int>(frame.height),
                         static_cast<int>(row[0] * scale), static_cast<int>(row[1] * scale),
                         static_cast<int>(row[2] * scale), static_cast<int>(row[3] * scale), row[4],
                         classId, name);
  }
  return objects;
}

std::vector<VsaObject> wantedObjects(const Candidates& candidates, float scale,
                                     const VsaModelConfig& config, const VsaFrame& frame) {
  std::vector<VsaObject> objects;
  for (const int i : suppress(candidates, config)) {
    const std::string& name = config.classNames.at(toIndex(candidates.classIds[toIndex(i)]));
    if (!frame.wantedClasses.contains(name)) continue;
    const cv::Rect& box = candidates.boxes[toIndex(i)];
    const int x1 = static_cast<int>(static_cast<float>(box.x) * scale);
    const int y1 = static_cast<int>(static_cast<float>(box.y) * scale);
    const int x2 = static_cast<int>(static_cast<float>(box.width) * scale + static_cast<float>(x1));
    const int y2 =
        static_cast<int>(static_cast<float>(box.height) * scale + static_cast<float>(y1));
    objects.emplace_back(static_cast<int>(frame.width), static_cast<int>(frame.height), x1, y1, x2,
                         y2, candidates.scores[toIndex(i)], candidates.classIds[toIndex(i)], name);
  }
  return objects;
}

std::vector<cv::Point> maskOutline(const MaskPrototypes& prototypes,
                                   const MaskCoefficients& coefficients, const cv::Rect& box,
                                   cv::Size input) {
  const cv::Size size = prototypes.size;
  cv::Mat mask = cv::Mat::zeros(size, CV_32FC1);
  for (std::size_t k = 0; k < kMaskCoefficients; ++k) {
    const cv::Mat plane(size, CV_32FC1, const_cast<float*>(prototypes.data) + k * mask.total());
    mask += coefficients[k] * plane;
  }
  cv::Mat power;
  cv::exp(-mask, power);
  mask = 1.0 / (1.0 + power);
  const float ratioX = static_cast<float>(size.width) / static_cast<float>(input.width);
  const float ratioY = static_cast<float>(size.height) / static_cast<float>(input.height);
  const int x0 = std::max(static_cast<int>(std::floor(static_cast<float>(box.x) * ratioX)), 0);
  const int y0 = std::max(static_cast<int>(std::floor(static_cast<float>(box.y) * ratioY)), 0);
  const int x1 = std::min(
      static_cast<int>(std::ceil(static_cast<float>(box.x + box.width) * ratioX)), size.width);
  const int y1 = std::min(
      static_cast<int>(std::ceil(static_cast<float>(box.y + box.height) * ratioY)), size.height);
  if (x1 <= x0 || y1 <= y0) return {};
  const cv::Rect crop(x0, y0, x1 - x0, y1 - y0);
  cv::Mat cropped = cv::Mat::zeros(size, CV_32FC1);
  mask(crop).copyTo(cropped(crop));
  cv::Mat resized;
  cv::resize(cropped, resized, input, 0, 0, cv::INTER_LINEAR);
  cv::Mat binary;
  cv::threshold(resized, binary, 0.5, 255, cv::THRESH_BINARY);
  binary.convertTo(binary, CV_8U);
  std::vector<std::vector<cv::Point>> contours;
  cv::findContours(binary, contours, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_SIMPLE);
  std::vector<cv::Point> largest;
  double largestArea = 0;
  for (const std::vector<cv::Point>& contour : contours) {
    if (contour.size() < 3 || !(cv::contourArea(contour) > largestArea)) continue;
    largestArea = cv::contourArea(contour);
    largest = contour;
  }
  return largest;
}

void fillTextPlanes(const cv::Mat& image, cv::Size size, float* planes) {
  cv::Mat resized;
  cv::resize(image, resized, size, 0, 0, cv::INTER_LINEAR);
  resized.convertTo(resized, CV_32FC3, kOneOver255);
  cv::subtract(resized, cv::Scalar(0.485, 0.456, 0.406), resized);
  cv::divide(resized, cv::Scalar(0.229, 0.224, 0.225), resized);
  const cv::Mat blob =
      cv::dnn::blobFromImage(resized, 1.0, cv::Size(), cv::Scalar(), false, false, CV_32F);
  std::memcpy(planes, blob.data, blob.total() * sizeof(float));
}

void prepareTextLine(const cv::Mat& region, cv::Size size, float* planes) {
  const float width = std::ceil(static_cast<float>(size.height) * static_cast<float>(region.cols) /
                                static_cast<float>(region.rows));
  cv::Mat line;
  cv::resize(region, line, {std::min(static_cast<int>(width), size.width), size.height}, 0, 0,
             cv::INTER_LINEAR);
  line.convertTo(line, CV_32FC3, 0.00784313725490196);
  cv::subtract(line, cv::Scalar(1.0, 1.0, 1.0), line);
  std::vector<float> buffer(3 * toIndex(size.area()), 0.0F);
  for (int c = 0; c < 3; ++c) {
    for (int y = 0; y < line.rows; ++y) {
      for (int x = 0; x < line.cols; ++x) {
        buffer[toIndex((c * size.height + y) * size.width + x)] = line.at<cv::Vec3f>(y, x)[c];
      }
    }
  }
  std::memcpy(planes, buffer.data(), buffer.size() * sizeof(float));
}

void fillClassifierPlanes(const cv::Mat& region, cv::Size size, float* planes) {
  constexpr float kMeans[] = {0.485F, 0.456F, 0.406F};
  constexpr float kDeviations[] = {0.229F, 0.224F, 0.225F};
  fillStretched(region, size, planes,
                [&](float byte, int c) { return (byte / 255.0F - kMeans[c]) / kDeviations[c]; });
}

void fitToInput(const cv::Mat& region, cv::Size size, float* planes) {
  copyPlanes(fitToSize(region, size, 128), {2, 1, 0}, planes);
}

void fitToInputNormalized(const cv::Mat& region, cv::Size size, float* planes) {
  cv::Mat image = fitToSize(region, size, 114);
  cv::subtract(image, cv::Scalar(0.406F, 0.456F, 0.485F), image);
  cv::divide(image, cv::Scalar(0.225F, 0.224F, 0.229F), image);
  copyPlanes(image, {2, 1, 0}, planes);
}

void prepareOcrInput(const cv::Mat& region, cv::Size size, float* planes) {
  constexpr float kFactors[] = {0.017429195F, 0.017507004F, 0.017124755F};
  constexpr float kOffsets[] = {1.8044444F, 2.0357141F, 2.117904F};
  fillStretched(region, size, planes,
                [&](float byte, int c) { return byte * kFactors[c] - kOffsets[c]; });
}

TextRegions extractTextBoxes(const TextBoxParams& params, const cv::Mat& map, cv::Size frame,
                             cv::Size resized) {
  cv::Mat text;
  cv::threshold(map, text, params.binThreshold, 255, cv::THRESH_BINARY);
  text.convertTo(text, CV_8U);
  std::vector<std::vector<cv::Point>> contours;
  cv::findContours(text, contours, cv::RETR_LIST, cv::CHAIN_APPROX_SIMPLE);
  const float scaleX = static_cast<float>(frame.width) / static_cast<float>(resized.width);
  const float scaleY = static_cast<float>(frame.height) / static_cast<float>(resized.height);
  TextRegions found;
  for (std::size_t i = 0;
       i < contours.size() && i < static_cast<std::size_t>(params.candidateLimit); ++i) {
    if (contours[i].size() < static_cast<std::size_t>(params.minSize)) continue;
    cv::RotatedRect rectangle = cv::minAreaRect(contours[i]);
    cv::Size2f& side = rectangle.size;
    if (static_cast<float>(params.minSize) > std::min(side.width, side.height)) continue;
    cv::Point2f corners[4];
    rectangle.points(corners);
    const float score = polygonScore(corners, map);
    if (params.boxThreshold > score) continue;
    const float perimeter = 2.0F * (side.width + side.height);
    if (perimeter < 1e-6F) continue;
    const float distance = side.width * side.height * params.unclipRatio / perimeter;
    side += cv::Size2f(2.0F * distance, 2.0F * distance);
    if (static_cast<float>(params.minSize + 2) > std::min(side.width, side.height)) continue;
    rectangle.points(corners);
    for (cv::Point2f& corner : corners) {
      corner.x = std::clamp(std::round(corner.x * scaleX), 0.0F, static_cast<float>(frame.width));
      corner.y = std::clamp(std::round(corner.y * scaleY), 0.0F, static_cast<float>(frame.height));
    }
    std::stable_sort(corners, corners + 4, [](const auto& a, const auto& b) { return a.x < b.x; });
    // The order is clockwise from the top-left corner: of the two left points and of the two right
    // points, the upper one comes first.
    if (corners[1].y <= corners[0].y) std::swap(corners[0], corners[1]);
    if (corners[3].y <= corners[2].y) std::swap(corners[2], corners[3]);
    found.regions.push_back({corners[0], corners[2], corners[3], corners[1]});
    found.scores.push_back(score);
  }
  return found;
}

std::string ctcGreedyDecode(FloatGrid scores, const CharacterDictionary& dictionary) {
  std::string text;
  std::size_t previous = 0;
  for (int step = 0; step < scores.rows; ++step) {
    const float* row = scores.row(step);
    const std::size_t best =
        firstMaximum(toIndex(scores.cols), [row](std::size_t c) { return row[c]; });
    if (best != 0 && best != previous && best < dictionary.size()) text += dictionary[best];
    previous = best;
  }
  return text;
}

std::string decodeOcr(const float* scores, std::size_t steps, std::size_t classes,
                      bool isClassMajor, const std::vector<std::string>& alphabet) {
  std::string text;
  std::size_t previous = classes;
  for (std::size_t t = 0; t < steps; ++t) {
    const std::size_t best = firstMaximum(classes, [&](std::size_t c) {
      return isClassMajor ? scores[c * steps + t] : scores[t * classes + c];
    });
    if (best != 0 && best != previous && best < classes) text += alphabet.at(best);
    previous = best;
  }
  return text;
}

std::string base64(const std::uint8_t* bytes, std::size_t size) {
  constexpr std::string_view kAlphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  for (std::size_t i = 0; i < size; i += 3) {
    std::uint32_t group = 0;
    for (std::size_t k = i; k < i + 3; ++k) group = group << 8U | (k < size ? bytes[k] : 0U);
    const std::size_t count = std::min<std::size_t>(size - i, 3) + 1;
    for (std::size_t k = 0; k < 4; ++k) {
      text += k < count ? kAlphabet[group >> (18 - 6 * k) & 63U] : '=';
    }
  }
  return text;
}

std::string spectrogramRequest(const VsaFrame& frame) {
  Json::Value request;
  request["pts"] = Json::Int64{frame.pts};
  request["audio_frame_count"] = Json::Int64{frame.audioFrameCount};
  request["audio_frame_max_size"] = frame.audioFrameMaxSize;
  request["audio_frame_size"] = frame.audioFrameSize;
  request["audio_sample_rate"] = frame.audioSampleRate;
  request["audio_nb_samples"] = frame.audioNbSamples;
  request["audio_sample_fmt"] = frame.audioSampleFmt;
  request["audio_sample_fmt_byte_num"] = frame.audioSampleFmtByteNum;
  request["audio_pcm_base64"] =
      base64(frame.audioData, static_cast<std::size_t>(frame.audioFrameSize));
  return request.toStyledString();
}

}  // namespace reference
