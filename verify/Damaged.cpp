// Usage: Damaged openvino|onnx FOLDER FIRST LAST
//
// For each seed from FIRST to LAST - 1, damages a model file, opens it and, if that works, runs it
// on a frame. Prints one line per seed: the seed and the outcome. Damages the tiny networks of all
// families of the engine; those on ONNX Runtime must be in FOLDER (make_onnx.py). Damaged files are
// written to FOLDER/damaged.

#include <glog/logging.h>
#include <onnxruntime_cxx_api.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <openvino/openvino.hpp>

#include "support/TestHost.h"
#include "support/TinyNetworks.h"
#include "verify/Damage.h"

namespace {

namespace fs = std::filesystem;

/// Opens the model and runs it on a frame with two objects.
const char* outcomeOf(TestModel& model) {
  cv::Mat image = randomImage(50, 40);
  VsaFrame frame = frameOf(image, {"a", "b"});
  frame.wantedLabels = frame.wantedClasses;
  frame.objects.assign(2, VsaObject(50, 40, 5, 5, 35, 20, 0.5F, 0, "a"));
  try {
    const bool opened = model.init();
    bool done = false;
    for (const auto run : {VsaModelDetect, VsaModelClassify, VsaModelFeature}) {
      if (run(&model.context, &frame)) done = true;
    }
    if (!opened) return "refused";
    return done ? "ran" : "ran and returned false";
  } catch (const ov::Exception&) {
    return "ov::Exception";
  } catch (const Ort::Exception&) {
    return "Ort::Exception";
  } catch (const cv::Exception&) {
    return "cv::Exception";
  } catch (const std::exception&) {
    return "std::exception";
  } catch (...) {
    return "FINDING: another exception";
  }
}

/// The families of an engine; on ONNX Runtime also YOLO8 with other networks of make_onnx.py.
std::vector<Family> familiesToDamage(const std::string& engine) {
  std::vector<Family> found = familiesOn(engine);
  if (engine == "ONNXRuntime") {
    Family yolo8 = findFamily(engine, "Detect", "YOLO8");
    for (const char* file : {"dynamic_output.onnx", "wrong_declared_shape.onnx"}) {
      yolo8.onnxFile = file;
      found.push_back(yolo8);
    }
    yolo8.onnxFile = "echo8.onnx";
    yolo8.input = {8, 4};
    yolo8.classNames = {"a"};
    found.push_back(yolo8);
  }
  return found;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) return 2;
  FLAGS_minloglevel = google::FATAL;
  cv::setNumThreads(1);
  cv::redirectError([](int, const char*, const char*, const char*, int, void*) { return 0; });
  const fs::path folder = argv[2];
  fs::create_directories(folder / "damaged");
  const std::string engine = std::string(argv[1]) == "openvino" ? "OpenVINO" : "ONNXRuntime";
  const std::vector<Family> families = familiesToDamage(engine);
  std::vector<std::string> networks;
  for (const Family& family : families) networks.push_back(networkOf(family, folder.string()));
  for (unsigned long long seed = std::stoull(argv[3]); seed < std::stoull(argv[4]); ++seed) {
    Random random(seed);
    const std::size_t index = seed % families.size();
    const Family& family = families[index];
    const std::string path = (folder / "damaged" / std::to_string(seed)).string();
    (engine == "OpenVINO" ? writeDamagedIr : writeDamagedOnnx)(networks[index], random, path);
    TestModel model(family.category, family.name, path);
    model.config.engine = engine;
    model.setInput(static_cast<std::uint32_t>(std::max(family.input.width, 0)),
                   static_cast<std::uint32_t>(std::max(family.input.height, 0)));
    model.setClasses(family.classNames);
    std::printf("%llu %s\n", seed, outcomeOf(model));
    std::fflush(stdout);
    for (const char* suffix : {"", ".xml", ".bin"}) fs::remove(path + suffix);
  }
}
