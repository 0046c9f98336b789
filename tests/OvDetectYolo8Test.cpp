// The YOLOv8 detector through the exported calls, on networks of a few nodes.

#include <gtest/gtest.h>

#include <limits>
#include <opencv2/dnn.hpp>
#include <openvino/opsets/opset8.hpp>
#include <thread>

#include "Utils/PreProcessUtils.h"
#include "support/LogCapture.h"
#include "support/TestHost.h"
#include "support/TinyNetworks.h"

namespace {

using Texts = std::vector<std::string>;

/// One candidate: centre x, centre y, width, height, then a score per class.
using Row = std::vector<float>;

/// A detector whose network finds `rows` in whatever it is shown.
std::string constantDetector(const std::vector<Row>& rows, int side = 64) {
  const std::size_t values = rows.empty() ? 6 : rows.front().size();
  std::vector<float> columns;
  for (std::size_t v = 0; v < values; ++v) {
    for (const Row& row : rows) columns.push_back(row[v]);
  }
  return writeConstant({1, 3, side, side}, {1, values, rows.size()}, columns);
}

struct Found {
  std::vector<int> box;
  float score;
  std::string name;
  bool operator==(const Found&) const = default;
};

std::vector<Found> foundIn(const VsaFrame& frame) {
  std::vector<Found> found;
  for (const VsaObject& object : frame.objects) {
    found.push_back({boxOf(object), object.score, object.className});
  }
  return found;
}

struct DecodingCase {
  const char* what;
  std::vector<Row> rows;
  std::set<std::string> wanted;
  std::vector<Found> expected;
};

TEST(OvDetectYolo8, SuppressesAcrossClassesThenFilters) {
  const DecodingCase cases[] = {
      {"nothing found", {{32, 32, 10, 10, 0.25F, 0.1F}}, {"cat", "dog"}, {}},
      {"no candidates at all", {}, {"cat"}, {}},
      {"an overlapping box of another class",
       {{32, 32, 20, 20, 0.5F, 0}, {33, 32, 20, 20, 0, 0.75F}},
       {"cat", "dog"},
       {{{23, 22, 43, 42}, 0.75F, "dog"}}},
      {"an unwanted class suppresses all the same",
       {{32, 32, 20, 20, 0.5F, 0}, {33, 32, 20, 20, 0, 0.75F}},
       {"cat"},
       {}},
      {"best first, both kept",
       {{10, 10, 8, 8, 0.5F, 0}, {50, 50, 8, 8, 0.75F, 0}},
       {"cat"},
       {{{46, 46, 54, 54}, 0.75F, "cat"}, {{6, 6, 14, 14}, 0.5F, "cat"}}},
      {"over each border",
       {{1, 1, 10, 10, 0.5F, 0}, {63, 63, 10, 10, 0.75F, 0}},
       {"cat"},
       {{{58, 58, 64, 64}, 0.75F, "cat"}, {{0, 0, 6, 6}, 0.5F, "cat"}}},
      {"empty filter", {{32, 32, 20, 20, 0.5F, 0}}, {}, {}},
  };
  cv::Mat image = randomImage(64, 64);
  for (const DecodingCase& c : cases) {
    TestModel model("Detect", "YOLO8", constantDetector(c.rows));
    model.setInput(64, 64);
    model.setClasses({"cat", "dog"});
    ASSERT_TRUE(model.init()) << c.what;
    VsaFrame frame = frameOf(image, c.wanted);
    LogCapture log;
    EXPECT_TRUE(model.detect(frame)) << c.what;
    EXPECT_EQ(foundIn(frame), c.expected) << c.what;
    EXPECT_EQ(log.texts(), Texts{}) << c.what;
  }
}

TEST(OvDetectYolo8, MapsToTheFrameAndAppends) {
  TestModel model("Detect", "YOLO8", constantDetector({{320, 180, 64, 36, 0.5F}}, 640));
  model.setInput(640, 640);
  model.setClasses({"cat"});
  ASSERT_TRUE(model.init());
  cv::Mat image = randomImage(1920, 1080);
  VsaFrame frame = frameOf(image, {"cat"});
  EXPECT_TRUE(model.detect(frame));
  EXPECT_TRUE(model.detect(frame));
  ASSERT_EQ(frame.objects.size(), 2U);
  EXPECT_EQ(boxOf(frame.objects[1]), (std::vector<int>{864, 486, 1056, 594}));
  EXPECT_EQ(frame.objects[1].imageWidth, 1920);
  EXPECT_EQ(frame.objects[1].imageHeight, 1080);
  EXPECT_EQ(frame.objects[1].classId, 0);
  EXPECT_EQ(frame.objects[1].angle, -1.0F);
}

/// A network that gives one candidate for every float of its input, whose score is that float.
std::string echoDetector(int width, int height) {
  const int count = 3 * width * height;
  std::vector<float> boxes(static_cast<std::size_t>(4 * count),
                           2.0F);  // 2 x 2, apart from each other
  for (int i = 0; i < count; ++i) {
    boxes[static_cast<std::size_t>(i)] = static_cast<float>(4 * i);
    boxes[static_cast<std::size_t>(count + i)] = 1.0F;
  }
  return writeNetwork({1, 3, height, width}, [&](const ov::Output<ov::Node>& input) {
    const ov::OutputVector parts{floats({1, 4, static_cast<std::size_t>(count)}, boxes),
                                 reshaped(input, {1, 1, count})};
    return ov::OutputVector{std::make_shared<ov::opset8::Concat>(parts, 1)};
  });
}

TEST(OvDetectYolo8, ShowsTheNetworkTheLetterboxedFrameToTheBit) {
  constexpr int kWidth = 12;
  constexpr int kHeight = 8;
  TestModel model("Detect", "YOLO8", echoDetector(kWidth, kHeight));
  model.setInput(kWidth, kHeight);
  model.setClasses({"any"});
  model.config.scoreThreshold = 0.0F;
  ASSERT_TRUE(model.init());
  const cv::Size sizes[] = {{12, 8}, {31, 17}, {5, 9}, {40, 4}, {7, 7}};
  for (const cv::Size size : sizes) {
    cv::Mat image = randomImage(size.width, size.height, 7);
    VsaFrame frame = frameOf(image, {"any"});
    ASSERT_TRUE(model.detect(frame));
    // Candidate i was put at network x = 4 i - 1, so its place tells which float it is.
    const float scale = static_cast<float>(std::max(size.width, size.height)) / kHeight;
    std::vector<float> seen(3 * kWidth * kHeight, 0.0F);
    const int columns = static_cast<int>(seen.size());
    std::vector<int> placeOf(static_cast<std::size_t>(4.0F * static_cast<float>(columns) * scale) + 2, -1);
    for (int i = 0; i < columns; ++i) {
      placeOf[static_cast<std::size_t>(std::max(0, static_cast<int>(static_cast<float>(4 * i - 1) * scale)))] = i;
    }
    std::size_t bright = 0;
    for (const VsaObject& object : frame.objects) {
      seen[static_cast<std::size_t>(placeOf[static_cast<std::size_t>(object.left)])] = object.score;
      ++bright;
    }
    const auto input = TolCompatibleLib::letterbox(image, {kWidth, kHeight});
    const cv::Mat blob = cv::dnn::blobFromImage(input->canvas, 0.00392156862745098, {kWidth, kHeight}, cv::Scalar(),
                                                true, false, CV_32F);
    const std::vector<float> expected(blob.ptr<float>(), blob.ptr<float>() + columns);
    EXPECT_EQ(seen, expected) << size;
    EXPECT_GT(bright, 0U);
  }
}

/// Expects the run to be refused with `line` and `objects` to stay as they were.
void expectRefused(TestModel& model, VsaFrame& frame, const std::string& line) {
  LogCapture log;
  const std::size_t before = frame.objects.size();
  EXPECT_FALSE(model.detect(frame)) << line;
  EXPECT_EQ(frame.objects.size(), before) << line;
  const std::vector<LogLine> lines = log.take();
  ASSERT_EQ(lines.size(), 1U) << line;
  EXPECT_EQ(lines[0].text, line);
  EXPECT_EQ(lines[0].file, "Core/OpenVINO/OvDetectYolo8");
}

TEST(OvDetectYolo8, RefusesOutputsThatDoNotFit) {
  struct Case {
    ov::Shape output;
    std::uint32_t classCount;
    const char* line;
  };
  const Case cases[] = {
      {{1, 6, 2}, 1, "[E]Yolo8 dimensions error:6"},
      {{1, 6, 2}, 3, "[E]Yolo8 dimensions error:6"},
      {{1, 6, 2}, 0xFFFFFFFFU, "[E]Yolo8 dimensions error:6"},
      {{1, 3, 2}, 0xFFFFFFFFU, "[E]Yolo8 dimensions error:3"},
      {{6, 2}, 2, "[E]network output is f32[6,2],expected f32 of rank 3"},
      {{1, 6, 2, 1}, 2, "[E]network output is f32[1,6,2,1],expected f32 of rank 3"},
  };
  cv::Mat image = randomImage(64, 64);
  VsaFrame frame = frameOf(image, {"a"});
  frame.objects.resize(1);
  for (const Case& c : cases) {
    TestModel model("Detect", "YOLO8",
                    writeConstant({1, 3, 64, 64}, c.output, std::vector<float>(ov::shape_size(c.output), 1)));
    model.setInput(64, 64);
    model.setClasses({"a"});
    model.config.classCount = c.classCount;
    ASSERT_TRUE(model.init());
    expectRefused(model, frame, c.line);
    expectRefused(model, frame, c.line);
  }
  TestModel integers(
      "Detect", "YOLO8", writeNetwork({1, 3, 64, 64}, [](const auto&) {
        return ov::OutputVector{ov::opset8::Constant::create(ov::element::i32, {1, 5, 1}, {1, 1, 1, 1, 1})};
      }));
  integers.setInput(64, 64);
  integers.setClasses({"a"});
  ASSERT_TRUE(integers.init());
  expectRefused(integers, frame, "[E]network output is i32[1,5,1],expected f32 of rank 3");
}

TEST(OvDetectYolo8, RefusesANetworkInputThatIsNotTheConfiguredOne) {
  const auto network = [](const ov::PartialShape& shape, ov::element::Type type) {
    return writeNetwork(
        shape,
        [](const auto&) {
          return ov::OutputVector{floats({1, 5, 1}, {8, 8, 4, 4, 1})};
        },
        type);
  };
  cv::Mat image = randomImage(64, 64);
  VsaFrame frame = frameOf(image, {"a"});
  const std::pair<std::string, std::string> cases[] = {
      {network({1, 3, 32, 32}, ov::element::f32), "f32[1,3,32,32]"},
      {network({1, 3, 64, 128}, ov::element::f32), "f32[1,3,64,128]"},
      {network({1, 64, 64, 3}, ov::element::f32), "f32[1,64,64,3]"},
      {network({1, 3, 64, 64}, ov::element::u8), "u8[1,3,64,64]"},
      {network({-1, 3, 64, 64}, ov::element::f32), "f32[?,3,64,64]"},
  };
  for (const auto& [path, input] : cases) {
    TestModel model("Detect", "YOLO8", path);
    model.setInput(64, 64);
    model.setClasses({"a"});
    ASSERT_TRUE(model.init());
    expectRefused(model, frame, "[E]network input is " + input + ",expected f32[1,3,64,64]");
  }
}

TEST(OvDetectYolo8, RefusesFramesWithoutPixelsAndRunsTheNextOne) {
  TestModel model("Detect", "YOLO8", constantDetector({{8, 8, 4, 4, 1}}));
  model.setInput(64, 64);
  model.setClasses({"a"});
  ASSERT_TRUE(model.init());
  cv::Mat image = randomImage(64, 64);
  const VsaFrame good = frameOf(image, {"a"});
  const auto refused = [&](void* data, std::uint32_t width, std::uint32_t height, const std::string& line) {
    VsaFrame frame = good;
    frame.data = data;
    frame.width = width;
    frame.height = height;
    expectRefused(model, frame, line);
  };
  refused(nullptr, 64, 64, "[E]frame data is null");
  refused(image.data, 0, 64, "[E]frame has no pixels,width=0,height=64");
  refused(image.data, 64, 0, "[E]frame has no pixels,width=64,height=0");
  refused(image.data, 0xFFFFFFFFU, 0xFFFFFFFFU, "[E]frame is too large,width=4294967295,height=4294967295");
  refused(image.data, 0x10000, 0x10000, "[E]frame is too large,width=65536,height=65536");
  refused(image.data, 4000, 1,
          "[E]frame leaves no pixel in the network "
          "input,width=4000,height=1,input_width=64,input_height=64");
  LogCapture log;
  EXPECT_FALSE(VsaModelDetect(&model.context, nullptr));
  EXPECT_EQ(log.texts(), Texts{"[E]frame is null"});

  VsaFrame audio = good;
  audio.kind = kVsaAudioFrame;
  EXPECT_FALSE(model.detect(audio));
  EXPECT_EQ(log.texts(), Texts{});
  VsaFrame next = good;
  EXPECT_TRUE(model.detect(next));
  EXPECT_EQ(next.objects.size(), 1U);
}

TEST(OvDetectYolo8, ABadBoxFailsItsFrameOnly) {
  // Centre x is red over red: 1 where the frame is red, NaN where it is black.
  TestModel model("Detect", "YOLO8", writeNetwork({1, 3, 8, 8}, [](const ov::Output<ov::Node>& input) {
                    const auto red = reshaped(sliced(reshaped(input, {192}), 0, 0, 1), {1, 1, 1});
                    const auto one = std::make_shared<ov::opset8::Divide>(red, red);
                    return ov::OutputVector{std::make_shared<ov::opset8::Concat>(
                        ov::OutputVector{one, floats({1, 4, 1}, {4, 2, 2, 0.5F})}, 1)};
                  }));
  model.setInput(8, 8);
  model.setClasses({"a"});
  ASSERT_TRUE(model.init());
  cv::Mat black(8, 8, CV_8UC3, cv::Scalar::all(0));
  cv::Mat white(8, 8, CV_8UC3, cv::Scalar::all(255));
  VsaFrame bad = frameOf(black, {"a"});
  LogCapture log;
  EXPECT_FALSE(model.detect(bad));
  const Texts texts = log.texts();
  ASSERT_EQ(texts.size(), 1U);
  EXPECT_TRUE(texts[0].starts_with("[E]candidate 0 is out of range: ")) << texts[0];
  VsaFrame good = frameOf(white, {"a"});
  EXPECT_TRUE(model.detect(good));
  EXPECT_EQ(good.objects.size(), 1U);
}

TEST(OvDetectYolo8, ClassesWithoutANameAreLeftOutAfterSuppression) {
  TestModel model("Detect", "YOLO8",
                  constantDetector({{32, 32, 20, 20, 0.5F, 0}, {33, 32, 20, 20, 0, 0.75F}, {8, 8, 4, 4, 0.5F, 0}}));
  model.setInput(64, 64);
  model.setClasses({"cat"});
  model.config.classCount = 2;
  ASSERT_TRUE(model.init());
  cv::Mat image = randomImage(64, 64);
  VsaFrame frame = frameOf(image, {"cat", ""});
  EXPECT_TRUE(model.detect(frame));
  EXPECT_EQ(foundIn(frame), (std::vector<Found>{{{6, 6, 10, 10}, 0.5F, "cat"}}));
}

TEST(OvDetectYolo8, NegativeThresholdsAreOpenCvsToRefuse) {
  TestModel model("Detect", "YOLO8", constantDetector({{8, 8, 4, 4, 1}}));
  model.setInput(64, 64);
  model.setClasses({"a"});
  ASSERT_TRUE(model.init());
  cv::Mat image = randomImage(64, 64);
  VsaFrame frame = frameOf(image, {"a"});
  model.config.nmsThreshold = -0.5F;
  EXPECT_THROW(model.detect(frame), cv::Exception);
  EXPECT_TRUE(frame.objects.empty());
  model.config.nmsThreshold = 0.5F;
  EXPECT_TRUE(model.detect(frame));
}

TEST(OvDetectYolo8, TwoContextsRunAtOnce) {
  cv::Mat image = randomImage(200, 100);
  const auto work = [&image](int place) {
    TestModel model("Detect", "YOLO8", constantDetector({{static_cast<float>(place), 8, 4, 4, 1}}));
    model.setInput(64, 64);
    model.setClasses({"a"});
    ASSERT_TRUE(model.init());
    for (int i = 0; i < 50; ++i) {
      VsaFrame frame = frameOf(image, {"a"});
      ASSERT_TRUE(model.detect(frame));
      ASSERT_EQ(frame.objects.size(), 1U);
      ASSERT_EQ(frame.objects[0].left, static_cast<int>(static_cast<float>(place - 2) * 3.125F));
    }
  };
  std::thread other(work, 40);
  work(10);
  other.join();
}

}  // namespace
