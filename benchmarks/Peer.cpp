// Times the library as a host calls it, for benchmarks/peers.py:
//   Peer NETWORK FRAME RUNS
// NETWORK: path, without ".xml", of a YOLOv8 network of 80 classes at 640 x 640; FRAME: a file of
// 1920 x 1080 BGR pixels. Prints the milliseconds of every run as one JSON object.

#include <glog/logging.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <iostream>
#include <openvino/openvino.hpp>
#include <stdexcept>

#include "support/TestHost.h"

namespace {

constexpr int kWidth = 1920;
constexpr int kHeight = 1080;
constexpr int kWarmUp = 10;

double milliseconds(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
      .count();
}

std::string toJson(const std::vector<double>& values) {
  std::string text;
  for (const double value : values) text += (text.empty() ? "[" : ", ") + std::to_string(value);
  return text + "]";
}

void compare(const std::string& network, const std::string& frameFile, int runs) {
  FLAGS_minloglevel = google::GLOG_WARNING;
  cv::Mat image(kHeight, kWidth, CV_8UC3);
  std::ifstream file(frameFile, std::ios::binary);
  if (!file.read(image.ptr<char>(), std::streamsize{3} * kWidth * kHeight))
    throw std::runtime_error("cannot read the frame");
  TestModel model("Detect", "YOLO8", network);
  model.setInput(640, 640);
  model.setClasses(std::vector<std::string>(80, "thing"));
  model.config.nmsThreshold = 0.7F;
  if (!model.init()) throw std::runtime_error("cannot open the network");
  VsaFrame frame = frameOf(image, {"thing"});
  ov::Core core;
  ov::InferRequest request = core.compile_model(network + ".xml", "CPU").create_infer_request();
  // Memory that was never written is mapped to a single page of zeros, which is read faster than
  // any image.
  ov::Tensor input = request.get_input_tensor();
  cv::randu(cv::Mat(1, static_cast<int>(input.get_size()), CV_32FC1, input.data<float>()), 0.0,
            1.0);
  std::vector<double> calls;
  std::vector<double> inferences;
  for (int i = -kWarmUp; i < runs; ++i) {
    bool done = false;
    const double call = milliseconds([&] {
      frame.objects.clear();
      done = model.detect(frame);
    });
    if (!done) throw std::runtime_error("a run failed");
    const double inference = milliseconds([&] { request.infer(); });
    if (i < 0) continue;
    calls.push_back(call);
    inferences.push_back(inference);
  }
  // The library compiles the network without changes, so its inference time is that of the plain
  // network.
  std::cout << R"({"call": )" << toJson(calls) << R"(, "own": )" << toJson(inferences)
            << R"(, "plain": )" << toJson(inferences) << R"(, "objects": )" << frame.objects.size()
            << "}\n";
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc != 4) throw std::runtime_error("usage: Peer NETWORK FRAME RUNS");
  compare(argv[1], argv[2], std::stoi(argv[3]));
  return 0;
} catch (const std::exception& error) {
  std::cerr << "Peer: " << error.what() << "\n";
  return 1;
}
