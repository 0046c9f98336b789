#include "benchmarks/Networks.h"

#include <chrono>
#include <opencv2/imgproc.hpp>
#include <openvino/opsets/opset8.hpp>
#include <random>

#include "support/TinyNetworks.h"

namespace {

namespace op = ov::opset8;
using Node = ov::Output<ov::Node>;

/// Makes layers with random weights.
class Layers {
 public:
  Node convolve(const Node& x, std::size_t in, std::size_t out, std::size_t stride) {
    const ov::CoordinateDiff pad{1, 1};
    return std::make_shared<op::Swish>(std::make_shared<op::Convolution>(
        x, makeWeights({out, in, 3, 3}), ov::Strides{stride, stride}, pad, pad, ov::Strides{1, 1}));
  }
  Node convolveRepeatedly(Node x, std::size_t channels, int times) {
    for (int i = 0; i < times; ++i) x = convolve(x, channels, channels, 1);
    return x;
  }
  Node makeWeights(const ov::Shape& shape) {
    std::vector<float> values(ov::shape_size(shape));
    std::uniform_real_distribution<float> small(-0.05F, 0.05F);
    for (float& value : values) value = small(random_);
    return floats(shape, values);
  }

 private:
  std::mt19937 random_{1};
};

/// Random numbers: floats of 0 to 1, integers below a limit.
class RandomNumbers {
 public:
  float operator()() { return distribution_(random_); }
  int below(int end) { return static_cast<int>(random_() % static_cast<unsigned>(end)); }

 private:
  std::mt19937 random_{1};
  std::uniform_real_distribution<float> distribution_{0.0F, 1.0F};
};

}  // namespace

std::string writePlainNetwork(const PlainNetwork& network) {
  Layers layers;
  const ov::PartialShape shape{1, 3, network.input.height, network.input.width};
  return writeNetwork(shape, [&](const Node& input) {
    std::size_t channels = network.channels;
    Node x = layers.convolve(layers.convolve(input, 3, channels, 2), channels, channels, 2);
    x = layers.convolveRepeatedly(x, channels, network.depth - 1);
    for (int stage = 1; stage < 4; ++stage, channels *= 2) {
      x = layers.convolveRepeatedly(layers.convolve(x, channels, 2 * channels, 2), 2 * channels,
                                    network.depth - 1);
    }
    const Node axes = op::Constant::create(ov::element::i64, {2}, {2, 3});
    const Node mean = std::make_shared<op::ReduceMean>(x, axes, false);
    std::size_t numbers = 1;
    for (const int side : network.output) numbers *= static_cast<std::size_t>(side);
    const Node full = std::make_shared<op::MatMul>(mean, layers.makeWeights({channels, numbers}));
    return ov::OutputVector{reshaped(full, network.output)};
  });
}

std::vector<float> makeYolo8Output(int classes, int extraRows, int candidates, int count) {
  RandomNumbers random;
  const auto columns = static_cast<std::size_t>(candidates);
  std::vector<float> output(static_cast<std::size_t>(4 + classes + extraRows) * columns);
  for (float& value : output) value = 0.2F * random();
  for (std::size_t i = 0; i < columns; ++i) {
    for (std::size_t row = 0; row < 2; ++row) output[row * columns + i] = 640.0F * random();
    for (std::size_t row = 2; row < 4; ++row) output[row * columns + i] = 20.0F + 100.0F * random();
    if (random.below(candidates) >= count) continue;
    output[static_cast<std::size_t>(4 + random.below(classes)) * columns + i] =
        0.3F + 0.6F * random();
  }
  return output;
}

std::vector<float> makeYolo5Output(int count) {
  RandomNumbers random;
  constexpr std::size_t kColumns = kClasses + 5;
  std::vector<float> output(kYolo5Rows * kColumns);
  for (float& value : output) value = 0.2F * random();
  for (std::size_t i = 0; i < kYolo5Rows; ++i) {
    float* const row = output.data() + i * kColumns;
    row[0] = 640.0F * random();
    row[1] = 640.0F * random();
    row[2] = row[3] = 20.0F + 100.0F * random();
    if (random.below(kYolo5Rows) >= count) continue;
    row[4] = row[5 + random.below(kClasses)] = 0.3F + 0.6F * random();
  }
  return output;
}

std::vector<float> makePoseOutput(int count) {
  RandomNumbers random;
  std::vector<float> output(std::size_t{56} * kCandidates);
  for (float& value : output) value = 300.0F * random();
  float* const scores = output.data() + std::ptrdiff_t{4} * kCandidates;
  for (int i = 0; i < kCandidates; ++i) {
    scores[i] = random.below(kCandidates) < count ? 0.5F + 0.4F * random() : 0.1F;
  }
  return output;
}

std::vector<float> makeYolo26Output(int count) {
  std::vector<float> output;
  for (int i = 0; i < 300; ++i) {
    const auto corner = static_cast<float>(i);
    output.insert(output.end(), {corner, corner, corner + 50, corner + 50, i < count ? 0.5F : 0.1F,
                                 static_cast<float>(i % kClasses)});
  }
  return output;
}

Masks randomMasks(int count, int minSide, int maxSide) {
  RandomNumbers random;
  constexpr std::size_t kPlane = std::size_t{kMaskSide} * kMaskSide;
  Masks masks;
  masks.prototypes.resize(TolCompatibleLib::kMaskCoefficients * kPlane);
  for (std::size_t k = 0; k < TolCompatibleLib::kMaskCoefficients; ++k) {
    cv::Mat coarse(8, 8, CV_32FC1);
    for (float& value : cv::Mat_<float>(coarse)) value = 2.0F * random() - 1.0F;
    cv::Mat plane(kMaskSide, kMaskSide, CV_32FC1, masks.prototypes.data() + k * kPlane);
    cv::resize(coarse, plane, plane.size(), 0, 0, cv::INTER_CUBIC);
  }
  for (int i = 0; i < count; ++i) {
    for (float& value : masks.coefficients.emplace_back()) value = 2.0F * random() - 1.0F;
    const cv::Size size(minSide + random.below(maxSide - minSide),
                        minSide + random.below(maxSide - minSide));
    masks.boxes.emplace_back(
        cv::Point(random.below(kSide - size.width), random.below(kSide - size.height)), size);
  }
  return masks;
}

cv::Mat makeTextMap(int count) {
  cv::Mat map = cv::Mat::zeros(544, 960, CV_32FC1);
  for (int i = 0; i < count; ++i) {
    const int row = i / 5;
    const cv::Point2f centre(100.0F + 185.0F * static_cast<float>(i % 5),
                             30.0F + 52.0F * static_cast<float>(row));
    const cv::RotatedRect line(centre, {140, 18}, static_cast<float>(i % 7) - 3.0F);
    std::array<cv::Point2f, 4> corners;
    line.points(corners.data());
    cv::fillPoly(map, std::vector<std::vector<cv::Point>>{{corners.begin(), corners.end()}},
                 cv::Scalar(0.9));
  }
  return map;
}

void fillInput(ov::InferRequest& request) {
  ov::Tensor input = request.get_input_tensor();
  cv::Mat numbers(1, static_cast<int>(input.get_size()), CV_32FC1, input.data<float>());
  cv::randu(numbers, 0.0, 1.0);
}

double milliseconds(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
      .count();
}
