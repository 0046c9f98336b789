// What all OpenVINO models except the audio classifier have in common: their log lines and what
// they refuse.

#include <gtest/gtest.h>
#if !defined(_WIN32)
#include <sys/mman.h>
#endif

#include <set>
#include <string>

#include "support/LogCapture.h"
#include "support/TestHost.h"
#include "support/TinyNetworks.h"

namespace {

struct ModelRow {
  const char* category;
  const char* name;
  const char* className;
};
constexpr ModelRow kModels[] = {
    {"Detect", "YOLO26", "OvDetectYolo26"},        {"Detect", "YOLO8", "OvDetectYolo8"},
    {"Detect", "YOLO8-POSE", "OvDetectYolo8Pose"}, {"Detect", "YOLO8-OBB", "OvDetectYolo8Obb"},
    {"Detect", "YOLO8-Seg", "OvDetectYolo8Seg"},   {"Detect", "YOLO5", "OvDetectYolo5"},
    {"Detect", "PaddleOCR", "OvDetectPaddleOCR"},  {"Classify", "ResNet", "OvClassifyResNet"},
    {"Track", "DeepSort", "OvFeatureDeepSort"},    {"Track", "VsFaceNet", "OvFeatureVsFaceNet"},
    {"Track", "VsOCR", "OvFeatureVsOCR"},          {"Track", "PaddleOCR", "OvFeaturePaddleOCR"}};
const ov::PartialShape kInput{1, 3, 64, 64};

/// An open model with an input of 64 x 64, and a frame with two objects.
struct Fixture : TestModel {
  Fixture(const ModelRow& row, const std::string& network, std::uint32_t classCount = 2)
      : TestModel(row.category, row.name, network),
        className(row.className),
        image(randomImage(64, 64)) {
    original = frameOf(image, {"a", "b"});
    original.objects = {VsaObject(64, 64, 5, 5, 40, 40, 0.5F, 0, "a"),
                        VsaObject(64, 64, 0, 0, 64, 64, 0.5F, 1, "b")};
    setInput(64, 64);
    setClasses({"a", "b"});
    config.classCount = classCount;
    EXPECT_TRUE(init());
  }
  /// Expects that a run fails with one line of the model's file and leaves the frame unchanged.
  void expectRefused(VsaFrame frame, const std::string& line) {
    const std::string before = bytesOf(frame);
    LogCapture log;
    EXPECT_FALSE(run(&frame)) << className << ": " << line;
    EXPECT_EQ(bytesOf(frame), before) << className << ": " << line;
    EXPECT_EQ(log.takeLines(), Texts{"Core/OpenVINO/" + className + ": [E]" + line});
  }

  std::string className;
  cv::Mat image;
  VsaFrame original;
};

std::string networkOf(const ov::PartialShape& input, const ov::Shape& output,
                      ov::element::Type inputType,
                      ov::element::Type outputType = ov::element::f32) {
  const auto body = [&](const Value&) {
    const std::vector<float> values(ov::shape_size(output), 0.1F);
    return Values{constant(outputType, output, values)};
  };
  return writeNetwork(input, body, inputType);
}

TEST(OvModels, AreAllListedHere) {
  std::set<std::string> listed = {"Classify AudioNet"};  // see AudioTest.cpp
  for (const ModelRow& row : kModels) listed.insert(std::string(row.category) + " " + row.name);
  std::set<std::string> models;
  for (const Family& family : familiesOn("OpenVINO")) {
    models.insert(family.category + " " + family.name);
  }
  EXPECT_EQ(listed, models);
}

TEST(OvModels, LogTheirNamesAndPaths) {
  const std::string network = writeConstant(kInput, {1, 1, 6}, std::vector<float>(6, 1));
  for (const ModelRow& row : kModels) {
    LogCapture log;
    { const Fixture fixture(row, network); }
    const std::string name = row.className, file = "Core/OpenVINO/" + name;
    Texts expected = {file + ": [I]" + name + "()",
                      file + ": [I]modelPath=" + network + ",device=CPU"};
    if (name == "OvFeaturePaddleOCR") {
      expected.push_back(file + ": [I]Using custom character dictionary with 2 characters");
    }
    expected.push_back(file + ": [I]~" + name + "()");
    EXPECT_EQ(log.takeLines(), expected);
  }
}

TEST(OvModels, RefuseOutputsOfOtherShapesAndTypes) {
  constexpr std::uint32_t kHuge = 0xFFFFFFFFU;
  struct Case {
    std::string className;
    ov::Shape output;
    std::uint32_t classCount;
    const char* line;  ///< Null: the run succeeds.
    ov::element::Type type = ov::element::f32;
  };
  const Case cases[] = {
      {"OvDetectYolo8", {1, 6, 2}, 1, "Yolo8 dimensions error:6"},
      {"OvDetectYolo8", {1, 6, 2}, 3, "Yolo8 dimensions error:6"},
      {"OvDetectYolo8", {1, 6, 2}, kHuge, "Yolo8 dimensions error:6"},
      {"OvDetectYolo8", {1, 3, 2}, kHuge, "Yolo8 dimensions error:3"},
      {"OvDetectYolo8", {6, 2}, 2, "network output is f32[6,2],expected f32 of rank 3"},
      {"OvDetectYolo8", {1, 6, 2, 1}, 2, "network output is f32[1,6,2,1],expected f32 of rank 3"},
      {"OvDetectYolo8",
       {1, 6, 1},
       2,
       "network output is i32[1,6,1],expected f32 of rank 3",
       ov::element::i32},
      {"OvDetectYolo8", {1, 6, 0}, 2, nullptr},
      {"OvDetectYolo5", {1, 3, 6}, 2, "Yolo5 dimensions error:6"},
      {"OvDetectYolo5", {1, 3, 8}, 2, "Yolo5 dimensions error:8"},
      {"OvDetectYolo5", {1, 3, 4}, kHuge, "Yolo5 dimensions error:4"},
      {"OvDetectYolo5", {1, 0, 7}, 2, nullptr},
      {"OvDetectYolo5", {3, 7}, 2, "network output is f32[3,7],expected f32 of rank 3"},
      {"OvDetectYolo26", {1, 3, 5}, 2, "Yolo26 dimensions error:5"},
      {"OvDetectYolo26", {1, 0, 6}, 2, nullptr},
      {"OvDetectYolo26", {1, 3, 7}, 2, nullptr},
      {"OvDetectYolo26", {1, 3, 6, 1}, 2, "network output is f32[1,3,6,1],expected f32 of rank 3"},
      {"OvDetectYolo8Obb", {1, 6, 3}, 2, "Yolo8-Obb dimensions error:6"},
      {"OvDetectYolo8Obb", {1, 4, 3}, kHuge, "Yolo8-Obb dimensions error:4"},
      {"OvDetectYolo8Pose", {1, 56, 1}, 1, nullptr},
      {"OvDetectYolo8Pose", {1, 56, 1}, 17, nullptr},
      {"OvDetectYolo8Pose", {1, 56, 1}, 2, "Yolo8-Pose dimensions error:56"},
      {"OvDetectYolo8Pose", {1, 5, 1}, 0, nullptr},
      {"OvDetectYolo8Pose", {1, 2, 1}, kHuge, "Yolo8-Pose dimensions error:2"},
      {"OvDetectYolo8Seg", {1, 6, 3}, 2, "Yolo8-Seg dimensions error:6"},
      {"OvDetectYolo8Seg", {1, 35, 3}, kHuge, "Yolo8-Seg dimensions error:35"},
      {"OvDetectPaddleOCR",
       {1, 64, 64},
       2,
       "network output is f32[1,64,64],expected f32 of rank 4"},
      {"OvDetectPaddleOCR", {1, 1, 0, 64}, 2, "network output is empty,[1,1,0,64]"},
      {"OvDetectPaddleOCR", {0, 1, 64, 64}, 2, "network output is too short,[0,1,64,64]"},
      {"OvFeaturePaddleOCR", {40, 3}, 2, "network output is f32[40,3],expected f32 of rank 3"},
      {"OvClassifyResNet", {1, 2}, 3, "network output is f32[1,2],expected f32 of at least 3"},
      {"OvFeatureDeepSort",
       {1, 255},
       2,
       "network output is f32[1,255],expected f32 of at least 256"},
      {"OvFeatureVsFaceNet",
       {1, 127},
       2,
       "network output is f32[1,127],expected f32 of at least 128"},
      {"OvFeatureVsOCR",
       {1, 5},
       2,
       "network output is i32[1,5],expected f32 of at least 5",
       ov::element::i32},
  };
  for (const Case& c : cases) {
    const auto* const row = std::ranges::find(kModels, c.className, &ModelRow::className);
    Fixture fixture(*row, networkOf(kInput, c.output, ov::element::f32, c.type), c.classCount);
    if (c.line == nullptr) {
      LogCapture log;
      EXPECT_TRUE(fixture.run(&fixture.original)) << c.className << c.output;
      EXPECT_EQ(fixture.original.objects.size(), 2U);
      EXPECT_EQ(log.takeTexts(), Texts{});
      continue;
    }
    for (int run = 0; run < 2; ++run) fixture.expectRefused(fixture.original, c.line);
  }
}

TEST(OvModels, RefuseNetworkInputsOfOtherShapesAndTypes) {
  struct Case {
    ov::PartialShape shape;
    ov::element::Type type;
    std::string text;
  };
  const Case cases[] = {{{1, 3, 32, 32}, ov::element::f32, "f32[1,3,32,32]"},
                        {{1, 3, 64, 128}, ov::element::f32, "f32[1,3,64,128]"},
                        {{1, 64, 64, 3}, ov::element::f32, "f32[1,64,64,3]"},
                        {{1, 3, 64, 64}, ov::element::u8, "u8[1,3,64,64]"},
                        {{-1, 3, 64, 64}, ov::element::f32, "f32[?,3,64,64]"}};
  for (const Case& c : cases) {
    Fixture fixture(kModels[1], networkOf(c.shape, {1, 6, 1}, c.type));
    fixture.expectRefused(fixture.original,
                          "network input is " + c.text + ",expected f32[1,3,64,64]");
  }
  for (const ModelRow& row : kModels) {
    const std::string name = row.name;
    if (name == "PaddleOCR") continue;  // the engine throws
    Fixture fixture(row, networkOf(cases[0].shape, {1, 300}, cases[0].type));
    fixture.expectRefused(fixture.original,
                          name == "YOLO5"
                              ? "network input is u8[1,32,32,3],expected u8[1,64,64,3]"
                              : "network input is f32[1,3,32,32],expected f32[1,3,64,64]");
  }
}

TEST(OvModels, RefuseFramesWithoutPixels) {
  const std::string network = writeConstant(kInput, {1, 300}, std::vector<float>(300, 1));
  for (const ModelRow& row : kModels) {
    Fixture fixture(row, network);
    const auto expectRefused = [&](void* data, std::uint32_t width, std::uint32_t height,
                                   const std::string& line) {
      VsaFrame frame = fixture.original;
      frame.data = data;
      frame.width = width;
      frame.height = height;
      fixture.expectRefused(frame, line);
    };
    void* const data = fixture.image.data;
    expectRefused(nullptr, 64, 64, "frame data is null");
    expectRefused(data, 0, 64, "frame has no pixels,width=0,height=64");
    expectRefused(data, 64, 0, "frame has no pixels,width=64,height=0");
    expectRefused(data, 0xFFFFFFFFU, 0xFFFFFFFFU,
                  "frame is too large,width=4294967295,height=4294967295");
    expectRefused(data, 715827883, 1, "frame is too large,width=715827883,height=1");
    expectRefused(data, 1, 0x80000000U, "frame is too large,width=1,height=2147483648");
    if (std::string_view(row.name).starts_with("YOLO")) {
      expectRefused(data, 4000, 1,
                    "frame leaves no pixel in the network "
                    "input,width=4000,height=1,input_width=64,input_height=64");
    }
    LogCapture log;
    EXPECT_FALSE(fixture.run(nullptr));
    EXPECT_EQ(log.takeLines(), Texts{"Core/OpenVINO/" + fixture.className + ": [E]frame is null"});
    fixture.original.kind = kVsaAudioFrame;
    fixture.original.data = nullptr;  // the kind is checked first
    EXPECT_FALSE(fixture.run(&fixture.original));
    EXPECT_EQ(log.takeTexts(), Texts{});
  }
}

#if !defined(_WIN32)

/// A read-only mapping of zeros, which takes no memory.
class UntouchedPixels {
 public:
  explicit UntouchedPixels(std::size_t bytes) : bytes_(bytes) {
    data_ = mmap(nullptr, bytes, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (data_ == MAP_FAILED) throw std::bad_alloc();
  }
  ~UntouchedPixels() { munmap(data_, bytes_); }
  UntouchedPixels(const UntouchedPixels&) = delete;
  UntouchedPixels& operator=(const UntouchedPixels&) = delete;
  void* data() const { return data_; }

 private:
  std::size_t bytes_;
  void* data_;
};

TEST(OvModels, AcceptFramesOfMoreThan2GiB) {
  constexpr std::uint32_t kSide = 30000;
  const UntouchedPixels pixels(std::size_t{3} * kSide * kSide);
  for (const ModelRow& row : kModels) {
    const std::string name = row.className;
    const bool isDetector = row.category == std::string("Detect");
    const ov::Shape output = name == "OvDetectYolo8Pose"   ? ov::Shape{1, 11, 1}
                             : name == "OvDetectYolo8Obb"  ? ov::Shape{1, 7, 1}
                             : name == "OvDetectYolo5"     ? ov::Shape{1, 1, 7}
                             : name == "OvDetectPaddleOCR" ? ov::Shape{1, 1, 64, 64}
                             : isDetector                  ? ov::Shape{1, 6, 1}
                                                           : ov::Shape{1, 1, 300};
    if (name == "OvDetectYolo26" || name == "OvDetectYolo8Seg") continue;  // same input as YOLO8
    Fixture fixture(row,
                    networkOf(name == "OvDetectPaddleOCR" ? ov::PartialShape{1, 3, -1, -1} : kInput,
                              output, ov::element::f32));
    VsaFrame frame = fixture.original;
    frame.data = pixels.data();
    frame.width = frame.height = kSide;
    frame.wantedLabels = {"a", "b"};
    // An object in the last rows, past the first 2 GiB.
    frame.objects = {VsaObject(kSide, kSide, kSide - 300, kSide - 200, kSide, kSide, 0.5F, 0, "a")};
    LogCapture log;
    EXPECT_TRUE(fixture.run(&frame)) << name;
    EXPECT_EQ(log.takeTexts(), Texts{}) << name;
    EXPECT_EQ(frame.objects.size(), 1U) << name;
  }
}

#endif

}  // namespace
