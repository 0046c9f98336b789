// The exported calls as a host makes them: versions, the model table, null pointers, codecs,
// devices, log lines.

#include <gtest/gtest.h>

#include <openvino/openvino.hpp>

#include "OpenVINO/OvModels.h"
#include "support/LogCapture.h"
#include "support/TestHost.h"
#include "support/TinyNetworks.h"

namespace {

using Texts = std::vector<std::string>;

TEST(EntryPoints, GlobalCallsLogUnderTheirFileAtInformationSeverity) {
  LogCapture log;
  EXPECT_TRUE(VsaGlobalInit());
  EXPECT_TRUE(VsaGlobalRelease());
  const std::vector<LogLine> lines = log.take();
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines[0].text, "[I]VsaGlobalInit()");
  EXPECT_EQ(lines[1].text, "[I]pub20240113");
  EXPECT_EQ(lines[2].text, "[I]VsaGlobalRelease()");
  for (const LogLine& line : lines) {
    EXPECT_EQ(line.file, "Core/TolCompatible");
    EXPECT_EQ(line.severity, google::GLOG_INFO);
  }
}

TEST(EntryPoints, OtherVersionsAreRefusedAndModelsLeftAlone) {
  LogCapture log;
  VsaModelSet sentinel;
  for (const std::string version : {"pub20240114", "pub20240113 ", "pub2024011", ""}) {
    TestModel model("Detect", "YOLO8", "nowhere");
    model.context.version = version;
    model.context.models = &sentinel;
    EXPECT_FALSE(model.init());
    EXPECT_FALSE(VsaHardwareDecodeInit(&model.context));
    EXPECT_FALSE(VsaHardwareEncodeInit(&model.context));
    EXPECT_EQ(std::exchange(model.context.models, nullptr), &sentinel);
    const std::string line = "[E]core:" + version + " not equal to vsa:pub20240113";
    const std::vector<LogLine> lines = log.take();
    EXPECT_EQ(lines.size(), 3U);
    for (const LogLine& logged : lines) {
      EXPECT_EQ(logged.text, line);
      EXPECT_EQ(logged.severity, google::GLOG_INFO);
      EXPECT_EQ(logged.file, "Core/TolCompatible");
    }
  }
  // A terminator inside the string is a byte like any other.
  TestModel model("Detect", "YOLO8", "nowhere");
  model.context.version = std::string("pub20240113\0", 12);
  EXPECT_FALSE(model.init());
  EXPECT_EQ(log.take().size(), 1U);
}

TEST(EntryPoints, WordsThatNameNoModelGiveAnEmptySetAndNoLine) {
  const char* const rows[][3] = {
      {"OpenVINO", "Detect", "YOLO7"},      {"OpenVINO", "Detect", "yolo8"},
      {"OpenVINO", "Feature", "PaddleOCR"}, {"openvino", "Detect", "YOLO8"},
      {"OpenVINO", "Classify", "YOLO8"},    {"ONNXRuntime", "Classify", "ResNet"},
      {"TensorRT", "Detect", "YOLO8"},      {"", "", ""},
  };
  LogCapture log;
  for (const auto& [engine, category, name] : rows) {
    TestModel model(category, name, "nowhere");
    model.config.engine = engine;
    EXPECT_FALSE(model.init());
    VsaModelSet* const set = model.context.models;
    ASSERT_NE(set, nullptr);
    EXPECT_TRUE(set->detect == nullptr && set->feature == nullptr && set->classify == nullptr);
    EXPECT_FALSE(VsaModelDetect(&model.context, nullptr));
    EXPECT_FALSE(VsaModelClassify(&model.context, nullptr));
    EXPECT_FALSE(VsaModelFeature(&model.context, nullptr));
    VsaModelRelease(&model.context);
    EXPECT_EQ(model.context.models, nullptr);
    VsaModelRelease(&model.context);
  }
  EXPECT_EQ(log.texts(), Texts{});
}

TEST(EntryPoints, NullPointersGiveOneErrorLine) {
  LogCapture log;
  TestModel model("Detect", "YOLO8", "nowhere");
  model.context.config = nullptr;
  EXPECT_FALSE(VsaModelInit(nullptr));
  EXPECT_FALSE(model.init());
  ASSERT_NE(model.context.models,
            nullptr);  // past the version check there is a set, if an empty one
  VsaModelRelease(&model.context);
  VsaModelRelease(nullptr);
  VsaFrame frame;
  EXPECT_FALSE(VsaModelDetect(nullptr, &frame));
  EXPECT_FALSE(VsaModelClassify(&model.context, &frame));
  EXPECT_FALSE(VsaModelFeature(&model.context, nullptr));
  EXPECT_FALSE(VsaHardwareDecodeInit(nullptr));
  VsaGetDeviceSet(nullptr);
  EXPECT_EQ(log.texts(),
            (Texts{"[E]context is null", "[E]config is null", "[E]context is null", "[E]context has no models",
                   "[E]context has no models", "[E]context is null", "[E]device set is null"}));
}

TEST(EntryPoints, CodecsReportFailureSilently) {
  LogCapture log;
  VsaModelContext context;
  context.version = kVsaInterfaceVersion;
  EXPECT_FALSE(VsaHardwareDecodeInit(&context));
  EXPECT_FALSE(VsaHardwareEncodeInit(&context));
  EXPECT_FALSE(VsaHardwareDecode(nullptr, nullptr));
  EXPECT_FALSE(VsaHardwareEncode(nullptr, nullptr));
  VsaHardwareDecodeRelease(nullptr);
  VsaHardwareEncodeRelease(nullptr);
  EXPECT_EQ(log.texts(), Texts{});
}

TEST(EntryPoints, EngineExceptionsPassAndLeaveModelsAsTheyWere) {
  LogCapture log;
  VsaModelSet sentinel;
  TestModel model("Detect", "YOLO8", "nowhere");
  model.context.models = &sentinel;
  EXPECT_THROW(model.init(), ov::Exception);
  EXPECT_EQ(model.context.models, &sentinel);
  const std::vector<LogLine> lines = log.take();
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[0].text, "[I]OvDetectYolo8()");
  EXPECT_EQ(lines[1].text, "[I]modelPath=nowhere,device=CPU");
  EXPECT_EQ(lines[1].file, "Core/OpenVINO/OvDetectYolo8");
  model.context.models = nullptr;

  // A model that exists, on a device that does not.
  model.context.modelRoot = writeConstant({1, 3, 32, 32}, {1, 5, 1}, {1, 1, 1, 1, 1});
  model.config.device = "NOWHERE";
  EXPECT_THROW(model.init(), ov::Exception);
  model.config.device = "CPU";
  EXPECT_TRUE(model.init());
}

TEST(EntryPoints, ModelPathIsJoinedWithoutNormalising) {
  LogCapture log;
  const char* const cases[][3] = {
      {"yolo", "best", "root/yolo/best"}, {"", "best", "root//best"}, {"yolo", "", "root/yolo/"}, {"", "", "root"}};
  for (const auto& [folder, file, path] : cases) {
    TestModel model("Detect", "YOLO8", "root");
    model.config.modelDir = folder;
    model.config.modelFile = file;
    EXPECT_THROW(model.init(), ov::Exception);
    EXPECT_EQ(log.texts().at(1), std::string("[I]modelPath=") + path + ",device=CPU");
  }
}

TEST(EntryPoints, ASetThatIsThereIsOverwrittenAndNotReleased) {
  TestModel model("Detect", "YOLO8", writeConstant({1, 3, 32, 32}, {1, 5, 1}, {1, 1, 1, 1, 1}));
  ASSERT_TRUE(model.init());
  VsaModelSet* const first = model.context.models;
  ASSERT_TRUE(model.init());
  ASSERT_NE(model.context.models, first);
  VsaModelContext old;
  old.models = first;
  LogCapture log;
  VsaModelRelease(&old);
  EXPECT_EQ(log.texts(), Texts{"[I]~OvDetectYolo8()"});
}

TEST(Devices, BothEnginesAreListedAndTheSetKeepsWhatItHolds) {
  LogCapture log;
  VsaDeviceSet devices{"mine"};
  VsaGetDeviceSet(&devices);
  for (const char* name : {"mine", "OpenVINO-CPU", "ONNXRuntime-CPU"}) {
    EXPECT_TRUE(devices.contains(name)) << name;
  }
  const VsaDeviceSet once = devices;
  VsaGetDeviceSet(&devices);
  EXPECT_EQ(devices, once);
  const std::vector<LogLine> lines = log.take();
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_TRUE(lines[0].text.starts_with("[I]OpenVINO 20")) << lines[0].text;
  EXPECT_EQ(lines[0].file, "Core/OpenVINO/OvDetectYolo8");
  EXPECT_TRUE(lines[1].text.starts_with("[I]OnnxRuntime 1.")) << lines[1].text;
  EXPECT_EQ(lines[1].file, "Core/OnnxRuntime/OrDetectYolo8");
}

TEST(Devices, AnyGpuAddsTheAggregateName) {
  const std::pair<std::vector<std::string>, VsaDeviceSet> cases[] = {
      {{"CPU", "GPU.0", "GPU.1"}, {"OpenVINO-CPU", "OpenVINO-GPU", "OpenVINO-GPU.0", "OpenVINO-GPU.1"}},
      {{"GPU"}, {"OpenVINO-GPU"}},
      {{"GP", "NPU"}, {"OpenVINO-GP", "OpenVINO-NPU"}},
      {{}, {}},
  };
  for (const auto& [available, expected] : cases) {
    VsaDeviceSet devices;
    TolCompatibleLib::addOpenVinoDeviceNames(available, devices);
    EXPECT_EQ(devices, expected);
  }
}

TEST(Records, ObjectsClampTheirBoxAndStartWithTheirDefaults) {
  const VsaObject object(100, 50, -3, -1, 104, 51, 0.5F, 2, "cat");
  EXPECT_EQ(boxOf(object), (std::vector<int>{0, 0, 100, 50}));
  EXPECT_EQ(object.className, "cat");
  const VsaObject inverted(100, 50, 80, 40, 20, 10, 0.5F, 2, "cat");
  EXPECT_EQ(boxOf(inverted), (std::vector<int>{80, 40, 20, 10}));
  for (const VsaObject& made : {object, VsaObject()}) {
    EXPECT_EQ(made.reserved8, 0);
    EXPECT_EQ(made.angle, -1.0F);
    EXPECT_EQ(made.classifyScore, 0.0F);
    EXPECT_EQ(made.textScore, 0.0F);
    for (const int unset : {made.cornerX2, made.cornerY2, made.cornerX3, made.cornerY3, made.reserved88,
                            made.classifyId, made.textId, made.reserved204, made.reserved208, made.reserved240}) {
      EXPECT_EQ(unset, -1);
    }
    for (const int word : made.reserved244) EXPECT_EQ(word, 0);
  }
}

}  // namespace
