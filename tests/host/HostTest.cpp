// The parts of the example host: pipeline files, text, reports, inputs, sound, comparing and
// drawing.
#include <gtest/gtest.h>
#include <json/json.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>
#include <opencv2/imgcodecs.hpp>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Compare.h"
#include "Draw.h"
#include "Inputs.h"
#include "Pipeline.h"
#include "Report.h"
#include "Sound.h"
#include "Text.h"

namespace vsa {
namespace {

namespace fs = std::filesystem;

// A folder of its own for each test, removed afterwards.
class HostFiles : public testing::Test {
 protected:
  HostFiles() {
    const auto* test = testing::UnitTest::GetInstance()->current_test_info();
    folder_ = fs::temp_directory_path() /
              ("HostTest-" + std::string(test->name()) + "-" + std::to_string(std::random_device()()));
    fs::remove_all(folder_);
    fs::create_directories(folder_);
  }
  ~HostFiles() override { fs::remove_all(folder_); }

  std::string write(const std::string& name, const std::string& content) {
    const fs::path path = folder_ / name;
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << content;
    return path.string();
  }

  fs::path folder_;
};

Json::Value parse(const std::string& text) {
  Json::Value value;
  std::string errors;
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, &errors)) << errors;
  return value;
}

class PipelineTest : public HostFiles {
 protected:
  PipelineTest() {
    write("models/net.xml", "");
    write("models/net.onnx", "");
    write("names.txt", "\xEF\xBB\xBFperson\r\nfire truck\n\n \n\n");
    write("gbk.txt", "ok\n\xC4\xE3\n");
    write("empty.txt", "\n");
  }

  // The message for a pipeline text, without the path in front; "" where it is good.
  std::string messageOf(const std::string& text) {
    const std::string path = write("p.json", text);
    try {
      const Pipeline pipeline = readPipeline(path);
      specs_ = pipeline.models;
      takesSound_ = pipeline.takesSound;
      blockSeconds_ = pipeline.blockSeconds;
      return "";
    } catch (const PipelineError& error) {
      const std::string message = error.what();
      EXPECT_TRUE(message.starts_with(path + ": ")) << message;
      return message.substr(std::min(path.size() + 2, message.size()));
    }
  }

  // A pipeline of two models of which the second has the given changes; null removes a member.
  static std::string withChanges(const std::string& changes) {
    Json::Value model = parse(R"({"category": "Detect", "modelName": "YOLO8", "engine": "OpenVINO",
        "modelRoot": "models", "modelFile": "../net", "modelDir": "x/..", "classNames": ["person", "car"]})");
    model["modelDir"] = "";
    model["modelFile"] = "net";
    Json::Value root;
    root["models"].append(model);
    const Json::Value changed = parse(changes);
    for (const std::string& key : changed.getMemberNames()) {
      if (changed[key].isNull()) {
        model.removeMember(key);
      } else {
        model[key] = changed[key];
      }
    }
    root["models"].append(model);
    return root.toStyledString();
  }

  std::vector<ModelSpec> specs_;
  bool takesSound_ = false;
  double blockSeconds_ = 0.0;
};

TEST_F(PipelineTest, SaysWhatIsWrongWithTheFile) {
  const struct {
    const char* text;
    const char* message;
  } kCases[] = {
      {"", "line 1, column 1: Syntax error: value, object or array expected."},
      {"{\"models\":\n  [,]}", "line 2, column 4: Syntax error: value, object or array expected."},
      {"{\n \"models\": [] \"x\": 1}", "line 2, column 15: Missing ',' or '}' in object declaration"},
      {"{} x", "line 1, column 4: Extra non-whitespace after JSON value."},
      {"[]", "must be an object, not an array"},
      {"{}", "models is missing"},
      {R"({"modelroot": "x", "models": []})", R"(unknown key "modelroot"; did you mean "modelRoot"?)"},
      {R"({"models": {}})", "models must be an array, not an object"},
      {R"({"models": []})", "models must not be empty"},
      {R"({"models": [7]})", "models[0]: must be an object, not a number"},
  };
  for (const auto& [text, message] : kCases) EXPECT_EQ(messageOf(text), message) << text;
  EXPECT_NE(messageOf(std::string(5000, '[')), "");
  EXPECT_THROW(readPipeline((folder_ / "none.json").string()), PipelineError);
  EXPECT_THROW(readPipeline(folder_.string()), PipelineError);
}

TEST_F(PipelineTest, SaysWhatIsWrongWithAModel) {
  const struct {
    const char* changes;
    const char* message;
  } kCases[] = {
      {"{}", ""},
      {R"({"inputWith": 640})", R"(unknown key "inputWith"; did you mean "inputWidth"?)"},
      {R"({"zzzzzzzz": 640})", R"(unknown key "zzzzzzzz")"},
      {R"({"category": null})", "category is missing"},
      {R"({"category": 3})", "category must be a string, not a number"},
      {R"({"category": "detect"})",
       R"(category must be "Detect" or "Classify" or "Track", not "detect"; did you mean "Detect"?)"},
      {R"({"engine": "Caffe"})", R"(engine must be "OpenVINO" or "ONNXRuntime", not "Caffe")"},
      {R"({"modelName": ["YOLO8"]})", "modelName must be a string, not an array"},
      {R"({"device": true})", "device must be a string, not true or false"},
      {R"({"inputWidth": "640"})", "inputWidth must be a number, not a string"},
      {R"({"inputWidth": true})", "inputWidth must be a number, not true or false"},
      {R"({"inputWidth": 640.5})", "inputWidth must be a whole number from 0 to 65535, not 640.5"},
      {R"({"inputHeight": -1})", "inputHeight must be a whole number from 0 to 65535, not -1"},
      {R"({"inputHeight": 65536})", "inputHeight must be a whole number from 0 to 65535, not 65536"},
      {R"({"inputHeight": 65535, "inputWidth": 640.0})", ""},
      {R"({"classCount": 4294967297})", "classCount must be a whole number from 0 to 2147483647, not 4294967297"},
      {R"({"scoreThreshold": 1.5})", "scoreThreshold must be a number from 0 to 1, not 1.5"},
      {R"({"nmsThreshold": -0.25})", "nmsThreshold must be a number from 0 to 1, not -0.25"},
      {R"({"objThreshold": {}})", "objThreshold must be a number, not an object"},
      {R"({"classNames": null})", "classNames is missing"},
      {R"({"classNames": []})", "classNames must not be empty"},
      {R"({"classNames": 80})", "classNames must be an array of strings or the path of a file, not a number"},
      {R"({"classNames": ["a", 1]})", "classNames[1] must be a string, not a number"},
      {R"({"classNames": "none.txt"})", R"(classNames: the file "none.txt" cannot be read)"},
      {R"({"classNames": "models"})", R"(classNames: the file "models" cannot be read)"},
      {R"({"classNames": "empty.txt"})", R"(classNames: the file "empty.txt" is empty)"},
      {R"({"classNames": "gbk.txt"})", R"(classNames: line 2 of "gbk.txt" is not UTF-8)"},
      {R"({"wantedClasses": ["cat"]})", R"(wantedClasses: "cat" is not in classNames; did you mean "car"?)"},
      {R"({"wantedLabels": "car"})", "wantedLabels must be an array of strings, not a string"},
  };
  for (const auto& [changes, message] : kCases) {
    const std::string expected = *message == '\0' ? "" : "models[1]: " + std::string(message);
    EXPECT_EQ(messageOf(withChanges(changes)), expected) << changes;
  }
  // The library's rule for paths: root, folder and name with slashes between, or the root alone.
  const std::string models = (folder_ / "models").string();
  const struct {
    const char* changes;
    std::string missing;
  } kFiles[] = {
      {R"({"modelFile": "other"})", models + "/other.xml"},
      {R"({"modelDir": "deep"})", models + "/deep/net.xml"},
      {R"({"engine": "ONNXRuntime"})", models + "/net"},
      {R"({"modelFile": "", "modelRoot": "models/nets"})", models + "/nets.xml"},
      {R"({"engine": "ONNXRuntime", "modelFile": "net.onnx"})", ""},
      {R"({"modelFile": "", "modelRoot": "models/net"})", ""},
      {R"({"modelRoot": "models//"})", ""},
  };
  for (const auto& [changes, missing] : kFiles) {
    EXPECT_EQ(messageOf(withChanges(changes)),
              missing.empty() ? "" : "models[1]: there is no model file \"" + missing + '"')
        << changes;
  }
}

TEST_F(PipelineTest, FillsTheRecords) {
  ASSERT_EQ(messageOf(R"({ // comments are allowed
    "modelRoot": "models",
    "models": [{"category": "Detect", "modelName": "YOLO8", "engine": "OpenVINO", "modelFile": "net",
                "classNames": "names.txt", "inputWidth": 640, "inputHeight": 480, "scoreThreshold": 0.25,
                "nmsThreshold": 0.5, "objThreshold": 0.75, "wantedClasses": ["person"]},
               {"category": "Track", "modelName": "PaddleOCR", "engine": "ONNXRuntime", "device": "GPU",
                "modelRoot": "models/", "modelFile": "net.onnx", "classNames": ["paddleocr"],
                "classCount": 6625}]})"),
            "");
  ASSERT_EQ(specs_.size(), 2U);
  const VsaModelConfig& first = specs_[0].config;
  EXPECT_EQ(first.classNames, (std::vector<std::string>{"person", "fire truck", "", " "}));
  EXPECT_EQ(first.classCount, 4U);
  EXPECT_EQ(first.device, "CPU");
  EXPECT_EQ(first.inputWidth, 640U);
  EXPECT_EQ(first.inputHeight, 480U);
  EXPECT_EQ(first.scoreThreshold, 0.25F);
  EXPECT_EQ(first.nmsThreshold, 0.5F);
  EXPECT_EQ(first.objThreshold, 0.75F);
  EXPECT_EQ(specs_[0].wantedClasses, std::set<std::string>{"person"});
  EXPECT_EQ(specs_[0].wantedLabels.size(), 4U);
  EXPECT_EQ(specs_[0].modelRoot, (folder_ / "models").string());
  EXPECT_EQ(specs_[1].modelRoot, (folder_ / "models").string());
  EXPECT_EQ(specs_[1].config.classCount, 6625U);
  EXPECT_EQ(specs_[1].config.device, "GPU");
  EXPECT_EQ(specs_[1].name, "models[1] PaddleOCR (Track)");
  EXPECT_FALSE(specs_[0].writesGbk());
  EXPECT_TRUE(specs_[1].writesGbk());
  EXPECT_FALSE(takesSound_);
  // Another recogniser has no built-in dictionary.
  ASSERT_EQ(messageOf(withChanges(R"({"category": "Track", "modelName": "VsOCR", "classNames": ["paddleocr"]})")), "");
  EXPECT_FALSE(specs_[1].writesGbk());
}

TEST_F(PipelineTest, KeepsSoundAndPicturesApart) {
  const std::string model = R"(, "engine": "OpenVINO", "modelRoot": "models", "modelFile": "net",
                             "classNames": ["dog"]})";
  const std::string sound = R"({"category": "Classify", "modelName": "AudioNet")" + model;
  const std::string picture = R"({"category": "Classify", "modelName": "ResNet")" + model;
  const auto numbered = [](const std::string& ofSound, const std::string& ofPictures) {
    return "models[" + ofSound + "] AudioNet (Classify) takes sound and models[" + ofPictures +
           "] ResNet (Classify) takes pictures; they belong in two pipelines";
  };
  const struct {
    std::string members;
    std::string message;
  } kCases[] = {
      {R"("models": [)" + sound + "]", ""},
      {R"("blockSeconds": 0.25, "models": [)" + sound + ", " + sound + "]", ""},
      {R"("models": [)" + sound + ", " + picture + "]", numbered("0", "1")},
      {R"("models": [)" + picture + ", " + sound + "]", numbered("1", "0")},
      {R"("blockSeconds": 1, "models": [)" + picture + "]", "blockSeconds is for models that take sound"},
      {R"("blockSeconds": "1", "models": [)" + sound + "]", "blockSeconds must be a number, not a string"},
      {R"("blockSeconds": 0, "models": [)" + sound + "]",
       "blockSeconds must be a number of seconds from 0.02 to 60, not 0"},
  };
  for (const auto& [members, message] : kCases) {
    EXPECT_EQ(messageOf("{" + members + "}"), message) << members;
  }
  ASSERT_EQ(messageOf("{" + kCases[0].members + "}"), "");
  EXPECT_TRUE(takesSound_);
  EXPECT_EQ(blockSeconds_, 1.0);
  ASSERT_EQ(messageOf("{" + kCases[1].members + "}"), "");
  EXPECT_EQ(blockSeconds_, 0.25);
}

TEST(TextTest, ConvertsAndRepairs) {
  const struct {
    const char* gbk;
    const char* utf8;
  } kGbk[] = {
      {"", ""},
      {"abc", "abc"},
      {"\xC4\xE3\xBA\xC3, \x80", "你好, €"},
      {"\xC4\xE3\xBA", "你\uFFFD"},        // half a character at the end
      {"\xFF\xC4\xE3", "\uFFFD你"},        // no lead byte
      {"a\xC4 b\xC4\xE3", "a\uFFFD b你"},  // a lead byte before ASCII
      {"\xA2\xA0\xC4\xE3", "\uFFFD你"},    // a pair without a character
      {"\xC4", "\uFFFD"},
  };
  for (const auto& [gbk, utf8] : kGbk) EXPECT_EQ(gbkToUtf8(gbk), utf8);
  EXPECT_EQ(gbkToUtf8(std::string("a\0b", 3)), std::string("a\0b", 3));

  const struct {
    const char* given;
    const char* repaired;
  } kUtf8[] = {
      {"a¢你😀\u07FF\uD7FF\uE000\U0010FFFF", "a¢你😀\u07FF\uD7FF\uE000\U0010FFFF"},
      {"\xC0\xAF", "\uFFFD\uFFFD"},                        // overlong, two bytes
      {"\xE0\x80\xAF", "\uFFFD\uFFFD\uFFFD"},              // overlong, three bytes
      {"\xED\xA0\x80", "\uFFFD\uFFFD\uFFFD"},              // half of a UTF-16 pair
      {"\xF4\x90\x80\x80x", "\uFFFD\uFFFD\uFFFD\uFFFDx"},  // beyond U+10FFFF
      {"\xE4\xBD", "\uFFFD"},                              // cut off
      {"\xE4\xBDz\x80", "\uFFFDz\uFFFD"},
  };
  for (const auto& [given, repaired] : kUtf8) EXPECT_EQ(repairUtf8(given), repaired);

  EXPECT_EQ(printable("a\x1B[2J\n\xC2\x9B\x7F你"), "a\uFFFD[2J\uFFFD\uFFFD\uFFFD你");
  EXPECT_EQ(displayWidth("ab你！😀e\u0301한"), 2 + 2 + 2 + 2 + 1 + 2);
  EXPECT_EQ(displayWidth("ｱé€\xFF"), 4);
  EXPECT_EQ(oneLine("Exception from a.cpp:1:\n  no \n\nway\r\n"), "no way");
  EXPECT_EQ(oneLine("\n"), "no reason given");
  const std::string longest = oneLine("x" + std::string(1000, '\xFF'));
  EXPECT_LE(longest.size(), 403U);
  EXPECT_EQ(repairUtf8(longest), longest);
}

TEST(ReportTest, JsonHoldsEveryFilledField) {
  VsaObject object(100, 80, -5, 7, 200, 60, 0.9F, 2, "bad \xFF\n");
  EXPECT_EQ(objectJson(object), parse(R"({"box": [0, 7, 100, 60], "score": 0.9, "classId": 2,
                                          "className": "bad \ufffd\n"})"));
  object.angle = 0.5F;
  object.shapes = {{kVsaKeyPointsTag, {{1, 2}, {-3, 4}}}, {kVsaOutlineTag, {}}};
  object.classifyId = 0;
  object.classifyScore = std::numeric_limits<float>::infinity();
  object.classifyName = "猫";
  object.textId = 0;
  object.text = "字";
  object.textScore = 1.0F;
  object.feature = {0.1F, std::nanf(""), -3.0F};
  object.cornerX2 = object.cornerY2 = object.cornerX3 = object.cornerY3 = 0;

  FrameInfo info;
  info.input = "a\"\xC4.png";
  info.index = 3;
  info.time = 1.0 / 3.0;
  info.width = 100;
  info.height = 80;
  info.failedModels = {1};
  EXPECT_EQ(frameJson(info, {object}),
            R"({"failedModels":[1],"frame":3,"height":80,"input":"a\"�.png","objects":[{"angle":0.5,)"
            R"("classId":2,"className":"bad �\n","classifyId":0,"classifyName":"猫","classifyScore":null,)"
            R"("corners":[[0,7],[100,60],[0,0],[0,0]],"feature":[0.1,null,-3.0],"score":0.9,)"
            R"("shapes":[{"points":[[1,2],[-3,4]],"tag":5},{"points":[],"tag":10}],"text":"字",)"
            R"("textScore":1.0}],"time":0.333,"width":100})"
            "\n");
  info.time.reset();
  info.failedModels.clear();
  info.input = "b";
  EXPECT_EQ(frameJson(info, {}), "{\"frame\":3,\"height\":80,\"input\":\"b\",\"objects\":[],\"width\":100}\n");
}

TEST(ReportTest, TableIsAligned) {
  FrameInfo info{"p.png", 0, {}, 640, 480, {}};
  EXPECT_EQ(frameTable(info, {}, 80), "p.png: 640 x 480, 0 objects\n");

  VsaObject person(640, 480, 10, 20, 30, 40, 0.5F, 0, "人");
  VsaObject truck(640, 480, 100, 200, 300, 400, 0.25F, 1, "truck");
  truck.classifyId = 1;
  truck.classifyName = "red";
  truck.classifyScore = 0.75F;
  EXPECT_EQ(frameTable(info, {person, truck}, 80),
            "p.png: 640 x 480, 2 objects\n"
            "  #  score  class  box              label\n"
            "  1  0.500  人     10,20 30,40\n"
            "  2  0.250  truck  100,200 300,400  red 0.750\n");

  VsaObject region(640, 480, 1, 2, 300, 4, 0.5F, 0, "text");
  region.cornerX2 = region.cornerY2 = region.cornerX3 = region.cornerY3 = 9;
  region.textId = 0;
  for (int i = 0; i < 30; ++i) region.text += "字";
  info.time = 2.0;
  const std::string start =
      "p.png: frame 0 (2.000 s), 640 x 480, 1 object\n"
      "  #  score  corners            text\n"
      "  1  0.500  1,2 300,4 9,9 9,9";
  EXPECT_EQ(frameTable(info, {region}, 0), start + "  " + region.text + "\n");
  EXPECT_EQ(frameTable(info, {region}, 80), start + "\n      " + region.text + "\n");
}

TEST(ReportTest, TellsWhatWasHeard) {
  FrameInfo info;
  info.input = "a.wav";
  info.index = 2;
  info.time = 1.0;
  info.duration = 1.0 / 3.0;
  VsaFrame block;
  EXPECT_EQ(blockTable(info, block), "a.wav: 1.000 s to 1.333 s: nothing\n");
  block.audioClassified = true;
  block.audioScore = 0.9F;
  block.audioObjects = {VsaObject(1, 1, 0, 0, 0, 0, 0.9F, 1, "犬"), VsaObject(1, 1, 0, 0, 0, 0, 0.5F, 0, "a\n")};
  EXPECT_EQ(blockTable(info, block), "a.wav: 1.000 s to 1.333 s: 犬 0.900, a\uFFFD 0.500\n");
  EXPECT_EQ(blockJson(info, block),
            R"({"classified":true,"duration":0.333,"frame":2,"input":"a.wav","objects":[)"
            R"({"classId":1,"className":"犬","score":0.9},{"classId":0,"className":"a\n","score":0.5}],)"
            R"("score":0.9,"time":1.0})"
            "\n");
  info.failedModels = {0};
  EXPECT_EQ(blockTable(info, VsaFrame()), "a.wav: 1.000 s to 1.333 s: failed\n");
  EXPECT_EQ(parse(blockJson(info, VsaFrame()))["failedModels"], parse("[0]"));
}

TEST(CompareTest, TakesTheBestObjectAndTheAngle) {
  const auto reasonOf = [](const auto& call) -> std::string {
    try {
      call();
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "";
  };
  std::vector<VsaObject> objects;
  EXPECT_EQ(reasonOf([&] { bestWithFeature(objects); }), "no object was found");
  for (const float score : {std::nanf(""), 0.5F, 0.7F, 0.9F}) {
    objects.emplace_back(9, 9, 0, 0, 5, 5, score, 0, "x");
  }
  EXPECT_NE(reasonOf([&] { bestWithFeature(objects); }).find("no object has a feature"), std::string::npos);
  for (const std::size_t i : {0U, 1U, 2U}) objects[i].feature = {1.0F};
  EXPECT_EQ(bestWithFeature(objects).score, 0.7F);

  EXPECT_DOUBLE_EQ(cosineSimilarity({3, 4}, {4, 3}), 24.0 / 25.0);
  EXPECT_DOUBLE_EQ(cosineSimilarity({1e30F, 0}, {-1e-30F, 0}), -1.0);
  EXPECT_DOUBLE_EQ(cosineSimilarity({1, 0, 0}, {0, 2, 5}), 0.0);
  EXPECT_NE(reasonOf([] { cosineSimilarity({1, 2}, {1}); }).find("lengths"), std::string::npos);
  EXPECT_NE(reasonOf([] { cosineSimilarity({0, 0}, {1, 2}); }).find("zeros"), std::string::npos);
  EXPECT_NE(reasonOf([] { cosineSimilarity({1, 2}, {1, std::nanf("")}); }).find("not finite"), std::string::npos);
}

class InputTest : public HostFiles {};

TEST_F(InputTest, ExpandsFoldersAndPatterns) {
  for (const char* name : {"b.PNG", "a1.jpg", "a2.jpg", "a[1].jpg", ".hidden.png", "notes.txt", "你.png", "clip.mp4",
                           "in/c.png", "in/deep/d.png", "on/c.png"}) {
    write(name, "");
  }
  fs::create_directories(folder_ / "nothing");
  const auto expand = [this](const std::string& argument, bool recursive = false) {
    const InputList list = expandInputs({(folder_ / argument).string()}, recursive);
    std::string found;
    for (const std::string& input : list.inputs) {
      found += fs::path(input).lexically_relative(folder_).generic_string() + " ";
    }
    return found + std::string(list.problems.size(), '!');
  };
  EXPECT_EQ(expand(""), ".hidden.png a1.jpg a2.jpg a[1].jpg b.PNG clip.mp4 你.png ");
  EXPECT_EQ(expand("in", true), "in/c.png in/deep/d.png ");
  EXPECT_EQ(expand("a[1].jpg"), "a[1].jpg ");  // an existing file is no pattern
  EXPECT_EQ(expand("a[0-1].jpg"), "a1.jpg ");
  EXPECT_EQ(expand("a[!1].jpg"), "a2.jpg ");
  EXPECT_EQ(expand("a[[]1[]].jpg"), "a[1].jpg ");
  EXPECT_EQ(expand("a[1.*"), "!");
  EXPECT_EQ(expand("?.*"), "b.PNG 你.png ");
  EXPECT_EQ(expand("*.png"), "你.png ");
  EXPECT_EQ(expand(".*.png"), ".hidden.png ");
  EXPECT_EQ(expand("[io]n/*.p*g"), "in/c.png on/c.png ");
  EXPECT_EQ(expand("*n"), "in/c.png on/c.png ");  // a folder that matches is expanded too
  EXPECT_EQ(expand("*t*s*.t?t*"), "notes.txt ");
  EXPECT_EQ(expand("none.png"), "none.png ");  // told when it is opened
  EXPECT_EQ(expand("nothing"), "!");
  EXPECT_EQ(expand("none*"), "!");
  EXPECT_EQ(expandInputs({"rtsp://camera/?x=[1]*"}, false).inputs.size(), 1U);
  write("in/c.WAV", "");
  const auto sounds = [this](const char* name) {
    return expandInputs({(folder_ / name).string()}, false, Media::kSound);
  };
  EXPECT_EQ(sounds("").inputs, std::vector<std::string>{(folder_ / "clip.mp4").string()});
  EXPECT_EQ(sounds("in").inputs, std::vector<std::string>{(folder_ / "in/c.WAV").string()});
  EXPECT_EQ(sounds("on").problems.size(), 1U);
}

TEST_F(InputTest, ReadsEveryKindOfPixels) {
  // Portable any-map files are short enough to write here.
  const std::string grey = write("grey.pgm", "P5 2 1 255 \x10\xFF");
  const std::string deep = write("deep.pgm", std::string("P5 1 1 65535 \x80\x80", 15));
  const std::string clear = (folder_ / "clear.png").string();
  cv::imwrite(clear, cv::Mat(1, 1, CV_16UC4, cv::Scalar(0, 0, 65535, 0)));
  const struct {
    std::string path;
    cv::Vec3b first;
  } kCases[] = {{grey, {0x10, 0x10, 0x10}}, {deep, {0x80, 0x80, 0x80}}, {clear, {255, 255, 255}}};
  for (const auto& [path, first] : kCases) {
    Source source(path);
    cv::Mat frame;
    ASSERT_TRUE(source.next(&frame)) << path;
    EXPECT_EQ(frame.type(), CV_8UC3);
    EXPECT_TRUE(frame.isContinuous());
    EXPECT_EQ(frame.at<cv::Vec3b>(0, 0), first) << path;
    EXPECT_FALSE(source.next(&frame));
  }
  // More pixels than OpenCV allows, and files that are no pictures, are told by exceptions.
  for (const std::string& path : {write("bomb.pgm", "P5 60000 60000 255 x"), write("a1.png", "text"),
                                  write("n.txt", "text"), (folder_ / "none.png").string()}) {
    EXPECT_THROW(Source source(path), std::exception) << path;
  }
}

#if VSA_HAS_SNDFILE
class SoundTest : public HostFiles {
 protected:
  template <typename Number>
  static std::string bytesOf(const std::vector<Number>& numbers) {
    const auto* bytes = reinterpret_cast<const char*>(numbers.data());
    return {bytes, numbers.size() * sizeof(Number)};
  }

  // A WAV file; `code` is 1 for whole numbers and 3 for floats.
  std::string wav(std::uint16_t code, std::uint16_t channels, std::uint16_t sampleBytes, const std::string& data,
                  std::uint32_t rate = 100) {
    const auto size = static_cast<std::uint32_t>(data.size());
    const auto stride = static_cast<std::uint16_t>(channels * sampleBytes);
    return write("sound.wav", "RIFF" + bytesOf<std::uint32_t>({36 + size}) + "WAVEfmt " + bytesOf<std::uint32_t>({16}) +
                                  bytesOf<std::uint16_t>({code, channels}) +
                                  bytesOf<std::uint32_t>({rate, rate * stride}) +
                                  bytesOf<std::uint16_t>({stride, static_cast<std::uint16_t>(8 * sampleBytes)}) +
                                  "data" + bytesOf<std::uint32_t>({size}) + data);
  }

  // All blocks of a file, one after the other, as numbers of the type that the record names.
  template <typename Number>
  static std::vector<Number> allOf(const std::string& path, int format) {
    Sound sound(path, 0.05);
    VsaFrame block;
    std::vector<Number> numbers;
    while (sound.next(&block)) {
      EXPECT_EQ(block.audioSampleFmt, format);
      EXPECT_EQ(block.audioSampleFmtByteNum, static_cast<int>(sizeof(Number)));
      const auto* data = reinterpret_cast<const Number*>(block.audioData);
      numbers.insert(numbers.end(), data, data + static_cast<std::size_t>(block.audioFrameSize) / sizeof(Number));
    }
    return numbers;
  }
};

TEST_F(SoundTest, ComesInBlocksOfOneLength) {
  // 12 samples of two channels at 100 a second: blocks of 5, 5 and 2.
  std::vector<std::int16_t> samples;
  for (std::int16_t i = 0; i < 24; ++i) samples.push_back(static_cast<std::int16_t>(i * 1000 - 12000));
  const std::string path = wav(1, 2, 2, bytesOf(samples));
  Sound sound(path, 0.05);
  EXPECT_EQ(sound.blockCount(), 3);
  VsaFrame block;
  for (int i = 0; i < 3; ++i) {
    block.audioClassified = true;  // of the block before
    block.audioObjects.resize(3);
    ASSERT_TRUE(sound.next(&block));
    EXPECT_EQ(block.kind, kVsaAudioFrame);
    EXPECT_EQ(block.audioFrameSize, 20);
    EXPECT_EQ(block.audioFrameMaxSize, 20);
    EXPECT_EQ(block.audioSampleRate, 100);
    EXPECT_EQ(block.audioNbSamples, 5);
    EXPECT_EQ(block.pts, 50 * i);
    EXPECT_EQ(block.audioFrameCount, i);
    EXPECT_EQ(block.width * block.height, 1U);
    EXPECT_FALSE(block.audioClassified);
    EXPECT_TRUE(block.audioObjects.empty());
    EXPECT_DOUBLE_EQ(sound.time(), 0.05 * i);
    EXPECT_DOUBLE_EQ(sound.duration(), i < 2 ? 0.05 : 0.02);
  }
  EXPECT_FALSE(sound.next(&block));
  samples.resize(30, 0);
  EXPECT_EQ(allOf<std::int16_t>(path, 1), samples);
}

TEST_F(SoundTest, KeepsTheDepthOfTheSamples) {
  EXPECT_EQ(allOf<std::int16_t>(wav(1, 1, 1, "\x80\xFF\x7F\x81\x80"), 1),
            (std::vector<std::int16_t>{0, 0x7F00, -0x100, 0x100, 0}));
  const std::string deep("\0\0\x40\1\0\0\0\0\x80\0\0\0\0\0\0", 15);
  EXPECT_EQ(allOf<float>(wav(1, 1, 3, deep), 3), (std::vector<float>{0.5F, 1.0F / (1 << 23), -1.0F, 0.0F, 0.0F}));
  const std::vector<float> floats = {0.1F, -2.5F, 1e-20F, 0.0F, 1.0F};
  EXPECT_EQ(allOf<float>(wav(3, 1, 4, bytesOf(floats)), 3), floats);
}

TEST_F(SoundTest, RefusesWhatIsNoSound) {
  EXPECT_THROW(Sound((folder_ / "none.wav").string(), 1.0), std::runtime_error);
  EXPECT_THROW(Sound(write("text.wav", "no sound"), 1.0), std::runtime_error);
  EXPECT_THROW(Sound(write("empty.wav", ""), 1.0), std::runtime_error);
  // What a header claims must not take the memory.
  EXPECT_THROW(Sound(wav(3, 1000, 4, std::string(4000, 'x'), 655350), 60.0), std::runtime_error);
  VsaFrame block;
  EXPECT_FALSE(Sound(wav(1, 1, 2, ""), 1.0).next(&block));
  EXPECT_TRUE(Sound(wav(1, 1, 2, "ab", 1), 0.02).next(&block));  // less than one sample
  EXPECT_EQ(block.audioNbSamples, 1);
}
#endif

TEST(DrawTest, LabelsTellAllThatIsKnown) {
  // Paint on black and count: each further part makes the label longer.
  const Painter painter("");
  VsaObject object(600, 200, 10, 100, 590, 190, 0.5F, 3, "plate");
  int covered = 0;
  const auto grows = [&] {
    cv::Mat picture = cv::Mat::zeros(200, 600, CV_8UC3);
    painter.paint(&picture, {object});
    const int before = std::exchange(covered, cv::countNonZero(picture.rowRange(0, 98).reshape(1) > 0));
    return covered > before;
  };
  EXPECT_TRUE(grows());
  object.classifyId = 0;
  object.classifyName = "yellow";
  EXPECT_TRUE(grows());
  object.textId = 0;
  EXPECT_FALSE(grows());  // nothing was read
  object.text = "AB 123";
  EXPECT_TRUE(grows());
}

TEST(DrawTest, StaysInsideAndTurnsBoxes) {
  const Painter painter("");
  constexpr int kMost = std::numeric_limits<int>::max();
  VsaObject wild(10, 10, 0, 0, 5, 5, std::nanf(""), -7, std::string(1 << 20, 'W'));
  wild.left = -kMost - 1;
  wild.right = kMost;
  wild.angle = std::nanf("");
  wild.shapes = {{kVsaKeyPointsTag, std::vector<VsaPoint>(17, VsaPoint{kMost, -kMost})},
                 {kVsaOutlineTag, {}},
                 {kVsaOutlineTag, {{-kMost, 3}, {kMost, kMost}}}};
  VsaObject empty;
  empty.textId = 0;
  for (const cv::Size& size : {cv::Size(1, 1), cv::Size(400, 2), cv::Size(3, 300)}) {
    cv::Mat picture = cv::Mat::zeros(size, CV_8UC3);
    EXPECT_NO_THROW(painter.paint(&picture, {wild, empty, wild}));
  }
  // A quarter turn of a wide box leads through points above and below it.
  VsaObject turned(400, 400, 100, 190, 300, 210, 1.0F, 0, "x");
  turned.angle = static_cast<float>(CV_PI / 2);
  cv::Mat picture = cv::Mat::zeros(400, 400, CV_8UC3);
  painter.paint(&picture, {turned});
  const auto drawn = [&picture](int x, int y) { return cv::norm(picture.at<cv::Vec3b>(y, x)) > 100.0; };
  EXPECT_TRUE(drawn(190, 250));
  EXPECT_TRUE(drawn(210, 150));
  EXPECT_FALSE(drawn(120, 190));
  EXPECT_FALSE(drawn(280, 210));
}

}  // namespace
}  // namespace vsa
