// The ONNX Runtime detectors through the exported functions, on networks of support/make_onnx.py.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>
#include <thread>

#include "OnnxRuntime/OrDetect.h"
#include "Utils/PreProcessUtils.h"
#include "support/LogCapture.h"
#include "support/TestHost.h"
#include "support/TinyNetworks.h"

namespace {

std::string pathOf(const std::string& name) {
  return std::string(TOL_ONNX_NETWORKS) + "/" + name;
}

/// The first part of the log lines of a model.
std::string sourceFileOf(const std::string& modelName) {
  return "Core/OnnxRuntime/OrDetectYolo" + modelName.substr(4) + ": ";
}

struct OnnxModel : TestModel {
  OnnxModel(const std::string& modelName, const std::string& file)
      : TestModel("Detect", modelName, pathOf(file + ".onnx")) {
    config.engine = "ONNXRuntime";
    config.objThreshold = 0.25F;
    setInput(64, 64);
    setClasses({"a", "b"});
  }
};

TEST(OrDetect, DecodesEachFamily) {
  struct Case {
    const char* model;
    const char* file;
    Texts objects;
  };
  const Case cases[] = {
      {"YOLO8", "yolo8", {"b 1 0.75: 23,22 43,42 of 64x64", "b 1 0.3: 6,6 10,10 of 64x64"}},
      {"YOLO5", "yolo5", {"a 0 0.9: 22,22 42,42 of 64x64", "b 1 0.5: 6,6 10,10 of 64x64"}},
      {"YOLO26",
       "yolo26",
       {"a 0 0.5: 22,22 42,42 of 64x64", "a 0 0.5: 22,22 42,42 of 64x64",
        "b 1 0.7: 0,0 64,64 of 64x64"}},
  };
  cv::Mat image = randomImage(64, 64);
  for (const Case& c : cases) {
    OnnxModel model(c.model, c.file);
    ASSERT_TRUE(model.init());
    VsaFrame frame = frameOf(image, {"a", "b"});
    LogCapture log;
    EXPECT_TRUE(model.detect(frame));
    EXPECT_EQ(describe(frame.objects), c.objects);
    VsaFrame unwanted = frameOf(image);
    EXPECT_TRUE(model.detect(unwanted));
    EXPECT_TRUE(unwanted.objects.empty());
    VsaFrame audio = frameOf(image);
    audio.kind = kVsaAudioFrame;
    EXPECT_FALSE(model.detect(audio));
    EXPECT_EQ(log.takeTexts(), Texts{});
    EXPECT_FALSE(model.run(nullptr));
    EXPECT_EQ(log.takeLines(), Texts{sourceFileOf(c.model) + "[E]frame is null"});
    cv::Mat line = randomImage(4000, 1);
    VsaFrame thin = frameOf(line);
    EXPECT_FALSE(model.detect(thin));
    EXPECT_EQ(log.takeLines(),
              Texts{sourceFileOf(c.model) + "[E]frame leaves no pixel in the network input," +
                    "width=4000,height=1,input_width=64,input_height=64"});
  }
}

TEST(OrDetect, LogsPathWhenOpenedAndEmptyLineWhenReleased) {
  LogCapture log;
  for (const std::string name : {"YOLO5", "YOLO8", "YOLO26"}) {
    const std::string file = "yolo" + name.substr(4);
    {
      OnnxModel model(name, file);
      ASSERT_TRUE(model.init());
    }
    EXPECT_EQ(log.takeLines(),
              (Texts{sourceFileOf(name) + "[I]modelPath=" + pathOf(file + ".onnx") + ",device=CPU",
                     sourceFileOf(name) + "[I]"}));
  }
}

TEST(OrDetect, DisablesTelemetryOfTheEngine) {
  OnnxModel model("YOLO8", "yolo8");
  ASSERT_TRUE(model.init());
  EXPECT_STREQ(std::getenv("ORT_DISABLE_TELEMETRY"), "1");
}

TEST(OrDetect, RefusesUnsuitableNetworks) {
  const std::pair<std::string, std::string> cases[] = {
      {"two_inputs", "numInputNodes error:2"},
      {"no_inputs", "numInputNodes error:0"},
      {"other_size", "input_height=64,input_width=32"},
      {"dynamic_input", "input_height=-1,input_width=-1"},
      {"rank_2_input", "network input is no picture,type=1,element=1,dimensions=[3,64]"},
      {"dynamic_output", "network output has no fixed size,[1,6,-1]"},
      {"rank_2_output",
       "network output is no float tensor of rank 3,type=1,element=1,dimensions=[6,3]"},
      {"scalar_output",
       "network output is no float tensor of rank 3,type=1,element=1,dimensions=[]"},
      {"list_output", "network output is no float tensor of rank 3,type=2,element=0,dimensions=[]"},
  };
  cv::Mat image = randomImage(64, 64);
  for (const auto& [file, text] : cases) {
    OnnxModel model("YOLO8", file);
    LogCapture log;
    EXPECT_FALSE(model.init()) << file;
    ASSERT_NE(model.context.models, nullptr);
    EXPECT_NE(model.context.models->detect, nullptr);
    EXPECT_EQ(log.takeLines().back(), sourceFileOf("YOLO8") + "[E]" + text);
    VsaFrame frame = frameOf(image, {"a"});
    EXPECT_FALSE(model.detect(frame));
    EXPECT_EQ(log.takeLines(),
              Texts{sourceFileOf("YOLO8") + "[E]network was refused when it was opened"});
  }
  OnnxModel missing("YOLO8", "missing");
  EXPECT_THROW(missing.init(), Ort::Exception);
  EXPECT_EQ(missing.context.models, nullptr);
}

TEST(OrDetect, ChecksClassCountBeforeInference) {
  struct Case {
    const char* model;
    const char* file;
    std::uint32_t classCount;
    const char* line;
  };
  // Inference on "one_plane" throws, so a line shows that the check comes first.
  const Case cases[] = {{"YOLO8", "yolo8", 3, "Yolo8 dimensions error:6"},
                        {"YOLO8", "one_plane", 3, "Yolo8 dimensions error:6"},
                        {"YOLO8", "yolo8", 0xFFFFFFFFU, "Yolo8 dimensions error:6"},
                        {"YOLO5", "yolo5", 1, "Yolo5 dimensions error:7"},
                        {"YOLO5", "one_plane", 2, "Yolo5 dimensions error:3"},
                        {"YOLO26", "yolo26_short", 2, "Yolo26 dimensions error:5"}};
  cv::Mat image = randomImage(64, 64);
  for (const Case& c : cases) {
    OnnxModel model(c.model, c.file);
    model.config.classCount = c.classCount;
    ASSERT_TRUE(model.init());
    VsaFrame frame = frameOf(image, {"a"});
    LogCapture log;
    EXPECT_FALSE(model.detect(frame));
    EXPECT_EQ(log.takeLines(), Texts{sourceFileOf(c.model) + "[E]" + c.line});
    EXPECT_TRUE(frame.objects.empty());
  }
  for (const char* file : {"one_plane", "byte_input"}) {
    OnnxModel model("YOLO8", file);
    ASSERT_TRUE(model.init());
    VsaFrame frame = frameOf(image, {"a"});
    EXPECT_THROW(model.detect(frame), Ort::Exception);
    EXPECT_TRUE(frame.objects.empty());
  }
}

TEST(OrDetect, BadBoxFailsTheFrame) {
  cv::Mat image = randomImage(64, 64);
  for (const std::string name : {"YOLO8", "YOLO5", "YOLO26"}) {
    OnnxModel model(name, "yolo" + name.substr(4) + "_far");
    ASSERT_TRUE(model.init());
    VsaFrame frame = frameOf(image, {"a"});
    LogCapture log;
    EXPECT_FALSE(model.detect(frame));
    EXPECT_TRUE(frame.objects.empty());
    const Texts lines = log.takeLines();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_TRUE(lines[0].starts_with(sourceFileOf(name) + "[E]candidate 0 is out of range: "));
  }
}

TEST(OrDetect, OutputShorterThanDeclaredFailsItsFrameOnly) {
  OnnxModel model("YOLO8", "wrong_declared_shape");
  ASSERT_TRUE(model.init());
  cv::Mat black(64, 64, CV_8UC3, cv::Scalar::all(0));
  cv::Mat white(64, 64, CV_8UC3, cv::Scalar::all(255));
  VsaFrame dark = frameOf(black, {"a"});
  LogCapture log;
  EXPECT_FALSE(model.detect(dark));
  EXPECT_EQ(log.takeLines(),
            Texts{sourceFileOf("YOLO8") + "[E]network output is too short,[1,6,2]"});
  VsaFrame bright = frameOf(white, {"a"});
  EXPECT_TRUE(model.detect(bright));
  EXPECT_EQ(bright.objects.size(), 1U);
}

/// Writes the network echo8 of make_onnx.py for OpenVINO.
std::string writeEcho8() {
  constexpr int kCount = 3 * 4 * 8;
  std::vector<float> boxes(std::size_t{4} * kCount, 2.0F);
  for (int i = 0; i < kCount; ++i) {
    boxes[static_cast<std::size_t>(i)] = static_cast<float>(4 * i);
    boxes[static_cast<std::size_t>(kCount + i)] = 1.0F;
  }
  return writeNetwork({1, 3, 4, 8}, [&](const Value& input) {
    return Values{
        concatenated({floats({1, 4, kCount}, boxes), reshaped(input, {1, 1, kCount})}, 1)};
  });
}

TEST(BothEngines, GetTheSamePlanes) {
  // The left edge of candidate i of this network is 4 i - 1; its score is float i of the input.
  OnnxModel onnx("YOLO8", "echo8");
  TestModel ir("Detect", "YOLO8", writeEcho8());
  for (TestModel* model : {static_cast<TestModel*>(&onnx), &ir}) {
    model->setInput(8, 4);
    model->setClasses({"a"});
    ASSERT_TRUE(model->init());
  }
  for (std::uint64_t seed = 2; seed < 9; ++seed) {
    // Each size twice: the padding is kept for the second image.
    cv::Mat image = randomImage(20 * static_cast<int>(seed / 2), 37, seed);
    VsaFrame first = frameOf(image, {"a"});
    VsaFrame second = first;
    ASSERT_TRUE(onnx.detect(first));
    ASSERT_TRUE(ir.detect(second));
    EXPECT_EQ(bytesOf(first), bytesOf(second));
    std::vector<float> planes(std::size_t{3} * 8 * 4);
    const auto scale =
        TolCompatibleLib::LetterboxWriter().writePlanes(image, {8, 4}, planes.data());
    std::map<int, float> expected, found;
    for (std::size_t k = 0; k < planes.size(); ++k) {
      const float left = static_cast<float>(4 * static_cast<int>(k) - 1) * *scale;
      if (planes[k] > 0.25F) expected[std::max(0, static_cast<int>(left))] = planes[k];
    }
    for (const VsaObject& object : first.objects) found[object.left] = object.score;
    EXPECT_EQ(found, expected);
  }
}

TEST(OrDetect, RunsOfOneContextMayOverlap) {
  OnnxModel model("YOLO8", "echo8");
  model.setInput(8, 4);
  model.setClasses({"a"});
  ASSERT_TRUE(model.init());
  // Different sizes, so that the padding differs as well.
  cv::Mat images[] = {cv::Mat(110, 40, CV_8UC3, cv::Scalar::all(90)),
                      cv::Mat(40, 220, CV_8UC3, cv::Scalar::all(200))};
  std::atomic<int> different = 0;
  const auto runMany = [&](cv::Mat& image, const std::string& expected) {
    for (int i = 0; i < 300; ++i) {
      VsaFrame frame = frameOf(image, {"a"});
      different += !model.detect(frame) || bytesOf(frame) != expected;
    }
  };
  std::string alone[2];
  for (const std::size_t i : {0U, 1U}) {
    VsaFrame frame = frameOf(images[i], {"a"});
    ASSERT_TRUE(model.detect(frame));
    ASSERT_FALSE(frame.objects.empty());
    alone[i] = bytesOf(frame);
  }
  std::thread other(runMany, std::ref(images[1]), alone[1]);
  runMany(images[0], alone[0]);
  other.join();
  EXPECT_EQ(different, 0);
}

TEST(OrDetect, OpensPathThatIsNotAscii) {
  namespace fs = std::filesystem;
  const std::string folder =
      testing::TempDir() + "OrDetect\xC3\xA4" + std::to_string(std::random_device()());
  const fs::path native = TolCompatibleLib::widened<ORTCHAR_T>(folder);
  fs::create_directories(native);
  fs::copy_file(pathOf("yolo8.onnx"), native / "yolo8.onnx");
  {
    OnnxModel model("YOLO8", "");
    model.context.modelRoot = folder + "/yolo8.onnx";
    EXPECT_TRUE(model.init());
  }
  fs::remove_all(native);
}

TEST(WidenedPath, TakesEachByteAsSignedCharacter) {
  EXPECT_EQ(TolCompatibleLib::widened<wchar_t>("a/b.onnx"), L"a/b.onnx");
  const std::wstring wide = TolCompatibleLib::widened<wchar_t>("\xE4");
  ASSERT_EQ(wide.size(), 1U);
  EXPECT_EQ(wide[0], static_cast<wchar_t>(-28));
  EXPECT_EQ(TolCompatibleLib::widened<char>("\xE4x"), "\xE4x");
}

}  // namespace
