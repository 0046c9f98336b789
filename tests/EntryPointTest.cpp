// The exported functions: versions, the model table, null pointers, codecs, devices, log lines.

#include <gtest/gtest.h>

#include <openvino/openvino.hpp>

#include "OpenVINO/OvModels.h"
#include "support/LogCapture.h"
#include "support/TestHost.h"
#include "support/TinyNetworks.h"

namespace {

const std::string kFile = "Core/TolCompatible: ";

TEST(EntryPoints, GlobalCallsLogTheirNames) {
  LogCapture log;
  EXPECT_TRUE(VsaGlobalInit());
  EXPECT_TRUE(VsaGlobalRelease());
  EXPECT_EQ(log.takeLines(), (Texts{kFile + "[I]VsaGlobalInit()", kFile + "[I]pub20240113",
                                    kFile + "[I]VsaGlobalRelease()"}));
}

TEST(EntryPoints, RefusesOtherVersionsWithoutChangingModels) {
  LogCapture log;
  VsaModelSet sentinel;
  // A zero byte within the string counts like any other byte.
  for (const std::string& version :
       {std::string("pub20240114"), std::string("pub20240113 "), std::string("pub2024011"),
        std::string(), std::string("pub20240113\0", 12)}) {
    TestModel model("Detect", "YOLO8", "nowhere");
    model.context.version = version;
    model.context.models = &sentinel;
    EXPECT_FALSE(model.init());
    EXPECT_FALSE(VsaHardwareDecodeInit(&model.context));
    EXPECT_FALSE(VsaHardwareEncodeInit(&model.context));
    EXPECT_EQ(std::exchange(model.context.models, nullptr), &sentinel);
    EXPECT_EQ(log.takeLines(),
              Texts(3, kFile + "[E]core:" + version + " not equal to vsa:pub20240113"));
  }
}

TEST(EntryPoints, UnknownModelsGiveEmptySetWithoutLogLine) {
  const char* const rows[][3] = {{"OpenVINO", "Detect", "yolo8"},
                                 {"OpenVINO", "Feature", "PaddleOCR"},
                                 {"TensorRT", "Detect", "YOLO8"}};
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
  EXPECT_EQ(log.takeTexts(), Texts{});
}

TEST(EntryPoints, NullPointersGiveOneErrorLineEach) {
  LogCapture log;
  TestModel model("Detect", "YOLO8", "nowhere");
  model.context.config = nullptr;
  EXPECT_FALSE(VsaModelInit(nullptr));
  EXPECT_FALSE(model.init());
  ASSERT_NE(model.context.models, nullptr);  // created after the version check, empty
  VsaModelRelease(&model.context);
  VsaModelRelease(nullptr);
  VsaFrame frame;
  EXPECT_FALSE(VsaModelDetect(nullptr, &frame));
  EXPECT_FALSE(VsaModelClassify(&model.context, &frame));
  EXPECT_FALSE(VsaModelFeature(&model.context, nullptr));
  EXPECT_FALSE(VsaHardwareDecodeInit(nullptr));
  VsaGetDeviceSet(nullptr);
  EXPECT_EQ(log.takeLines(),
            (Texts{kFile + "[E]context is null", kFile + "[E]config is null",
                   kFile + "[E]context is null", kFile + "[E]context has no models",
                   kFile + "[E]context has no models", kFile + "[E]context is null",
                   kFile + "[E]device set is null"}));
}

TEST(EntryPoints, CodecsFailWithoutLogLine) {
  LogCapture log;
  VsaModelContext context;
  context.version = kVsaInterfaceVersion;
  EXPECT_FALSE(VsaHardwareDecodeInit(&context));
  EXPECT_FALSE(VsaHardwareEncodeInit(&context));
  EXPECT_FALSE(VsaHardwareDecode(nullptr, nullptr));
  EXPECT_FALSE(VsaHardwareEncode(nullptr, nullptr));
  VsaHardwareDecodeRelease(nullptr);
  VsaHardwareEncodeRelease(nullptr);
  EXPECT_EQ(log.takeTexts(), Texts{});
}

TEST(EntryPoints, EngineExceptionsPassAndModelsStayUnchanged) {
  LogCapture log;
  VsaModelSet sentinel;
  TestModel model("Detect", "YOLO8", "nowhere");
  model.context.models = &sentinel;
  EXPECT_THROW(model.init(), ov::Exception);
  EXPECT_EQ(model.context.models, &sentinel);
  EXPECT_EQ(log.takeTexts(), (Texts{"[I]OvDetectYolo8()", "[I]modelPath=nowhere,device=CPU"}));
  model.context.models = nullptr;

  // An existing model on an unknown device.
  model.context.modelRoot = writeConstant({1, 3, 32, 32}, {1, 5, 1}, {1, 1, 1, 1, 1});
  model.config.device = "NOWHERE";
  EXPECT_THROW(model.init(), ov::Exception);
  model.config.device = "CPU";
  EXPECT_TRUE(model.init());
}

TEST(EntryPoints, JoinsModelPathWithoutNormalisingIt) {
  LogCapture log;
  const char* const cases[][3] = {{"yolo", "best", "root/yolo/best"},
                                  {"", "best", "root//best"},
                                  {"yolo", "", "root/yolo/"},
                                  {"", "", "root"}};
  for (const auto& [folder, file, path] : cases) {
    TestModel model("Detect", "YOLO8", "root");
    model.config.modelDir = folder;
    model.config.modelFile = file;
    EXPECT_THROW(model.init(), ov::Exception);
    EXPECT_EQ(log.takeTexts().at(1), std::string("[I]modelPath=") + path + ",device=CPU");
  }
}

TEST(Devices, AddsBothEnginesToTheSet) {
  LogCapture log;
  // Called once only, because some versions of the Level Zero loader crash at the second time.
  VsaDeviceSet devices{"mine", "OpenVINO-CPU"};
  VsaGetDeviceSet(&devices);
  for (const char* name : {"mine", "OpenVINO-CPU", "ONNXRuntime-CPU"}) {
    EXPECT_TRUE(devices.contains(name)) << name;
  }
  const Texts lines = log.takeLines();
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_TRUE(lines[0].starts_with("Core/OpenVINO/OvDetectYolo8: [I]OpenVINO 20")) << lines[0];
  EXPECT_TRUE(lines[1].starts_with("Core/OnnxRuntime/OrDetectYolo8: [I]OnnxRuntime 1."))
      << lines[1];
}

TEST(Devices, AnyGpuAddsTheAggregateName) {
  const std::pair<std::vector<std::string>, VsaDeviceSet> cases[] = {
      {{"CPU", "GPU.0", "GPU.1"},
       {"OpenVINO-CPU", "OpenVINO-GPU", "OpenVINO-GPU.0", "OpenVINO-GPU.1"}},
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

}  // namespace
