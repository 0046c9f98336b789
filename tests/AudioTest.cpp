// The spectrogram client and the audio classifier against a service that says what the test wants.

#include <gtest/gtest.h>
#include <json/json.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <limits>

#include "Utils/PreProcessUtils.h"
#include "Utils/Request.h"
#include "support/LogCapture.h"
#include "support/LoopbackServer.h"
#include "support/TestHost.h"
#include "support/TinyNetworks.h"

namespace {

using namespace TolCompatibleLib;
using Texts = std::vector<std::string>;

VsaFrame audioFrame(const std::vector<std::uint8_t>& pcm) {
  VsaFrame frame;
  frame.kind = kVsaAudioFrame;
  frame.audioData = pcm.data();
  frame.audioFrameSize = static_cast<std::int32_t>(pcm.size());
  frame.audioFrameMaxSize = 4096;
  frame.audioSampleRate = 48000;
  frame.audioNbSamples = 2;
  frame.audioSampleFmt = 1;
  frame.audioSampleFmtByteNum = 2;
  frame.pts = std::int64_t{1} << 40;
  frame.audioFrameCount = -7;
  return frame;
}

TEST(Base64, PadsTheLastGroup) {
  const std::pair<std::string, std::string> cases[] = {{"", ""},
                                                       {"M", "TQ=="},
                                                       {"Ma", "TWE="},
                                                       {"Man", "TWFu"},
                                                       {"\xFB\xFF\xFE", "+//+"},
                                                       {std::string("\0\0\0\0", 4), "AAAAAA=="}};
  for (const auto& [bytes, text] : cases) {
    std::string out = "kept";
    Base64Encode(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size(), out);
    EXPECT_EQ(out, "kept" + text);
  }
}

TEST(AudioToMelSpec, SendsTheFrameAndAppendsTheRows) {
  LoopbackServer server(LoopbackServer::ok(
      R"({"code": 1000, "msg": "", "mels": 2, "time_steps": 3, "mel_spec": [[1, -2.5, 3e2], [4, 5]]})"));
  const std::vector<std::uint8_t> pcm = {1, 2, 3, 4, 5};
  MelSpectrogram matrix = {{9}};
  // The service is on this machine, whatever the environment says of proxies.
  setenv("http_proxy", "http://127.0.0.1:1", 1);
  setenv("ALL_PROXY", "http://127.0.0.1:1", 1);
  LogCapture log;
  EXPECT_EQ(AudioToMelSpec(server.address(), audioFrame(pcm), matrix), 1);
  unsetenv("http_proxy");
  unsetenv("ALL_PROXY");
  EXPECT_EQ(log.texts(), Texts{});
  EXPECT_EQ(matrix, (MelSpectrogram{{9}, {1, -2.5F, 300}, {4, 5}}));

  const std::string request = server.lastRequest();
  EXPECT_TRUE(request.starts_with("POST /api/audioToMelSpec HTTP/1.1\r\n")) << request;
  for (const char* header :
       {"\r\nUser-Agent: vsrt_core;\r\n", "\r\nContent-Type: application/json;\r\n", "\r\nexpect: ;\r\n"}) {
    EXPECT_NE(request.find(header), std::string::npos) << header;
  }
  const std::string body = request.substr(request.find("\r\n\r\n") + 4);
  EXPECT_GT(std::count(body.begin(), body.end(), '\n'), 8);  // styled, not on one line
  Json::Value json;
  ASSERT_TRUE(Json::Reader().parse(body, json));
  EXPECT_EQ(json.size(), 9U);
  EXPECT_EQ(json["pts"].asInt64(), std::int64_t{1} << 40);
  EXPECT_EQ(json["audio_frame_count"].asInt64(), -7);
  const std::pair<const char*, int> numbers[] = {{"audio_frame_max_size", 4096}, {"audio_frame_size", 5},
                                                 {"audio_sample_rate", 48000},   {"audio_nb_samples", 2},
                                                 {"audio_sample_fmt", 1},        {"audio_sample_fmt_byte_num", 2}};
  for (const auto& [key, value] : numbers) EXPECT_EQ(json[key].asInt(), value) << key;
  EXPECT_EQ(json["audio_pcm_base64"].asString(), "AQIDBAU=");

  VsaFrame image = audioFrame(pcm);
  image.kind = kVsaImageFrame;
  EXPECT_EQ(AudioToMelSpec(server.address(), image, matrix), 0);
  EXPECT_EQ(server.requestCount(), 1);
  VsaFrame empty = audioFrame({});
  empty.audioData = nullptr;
  EXPECT_EQ(AudioToMelSpec(server.address(), empty, matrix), 1);
  EXPECT_NE(server.lastRequest().find("\"audio_pcm_base64\" : \"\""), std::string::npos);
  EXPECT_EQ(log.texts(), Texts{});
  empty.audioFrameSize = 5;
  EXPECT_EQ(AudioToMelSpec(server.address(), empty, matrix), 0);
  empty.audioFrameSize = -5;
  EXPECT_EQ(AudioToMelSpec(server.address(), empty, matrix), 0);
  EXPECT_EQ(log.texts(),
            (Texts{"[E]audio block has no data,audio_frame_size=5", "[E]audio block has no data,audio_frame_size=-5"}));
}

struct ReplyCase {
  const char* what;
  std::string reply;
  int result;
  Texts lines;
};

TEST(AudioToMelSpec, TakesGoodRepliesAndNoOthers) {
  const auto body = [](const std::string& members) {
    return LoopbackServer::ok(R"({"code": 1000, "msg": "fine")" + members + "}");
  };
  const std::string good = R"({"code": 1000, "msg": "", "mel_spec": [[1]]})";
  const std::string noTable = "[E]mel_spec is no array of arrays of numbers";
  const ReplyCase cases[] = {
      {"empty spectrogram", body(R"(, "mel_spec": [])"), 1, {}},
      {"rows of any length, counts wrong",
       body(R"(, "mels": 9, "time_steps": 1, "mel_spec": [[1, 2], [], [3]])"),
       1,
       {}},
      {"status 404", LoopbackServer::reply("404 Not Found", good), 1, {}},
      {"status 500", LoopbackServer::reply("500 Oops", good), 1, {}},
      {"a redirect is not followed",
       "HTTP/1.1 301 Moved\r\nLocation: http://127.0.0.1:1/\r\nContent-Length: 0\r\n\r\n",
       0,
       {}},
      {"chunks",
       "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
       "2c\r\n" +
           good + "\r\n0\r\n\r\n",
       1,
       {}},
      {"more rows said than sent", body(R"(, "mels": 1000001, "mel_spec": [[1]])"), 1, {}},
      {"the least float, as it is printed", body(R"(, "mel_spec": [[-3.4028235e+38]])"), 1, {}},
      {"no body", LoopbackServer::ok(""), 0, {}},
      {"cut JSON", LoopbackServer::ok(good.substr(0, 30)), 0, {}},
      {"no JSON", LoopbackServer::ok("<html>"), 0, {}},
      {"UTF-16", LoopbackServer::ok(std::string("{\0\"\0c\0", 6)), 0, {}},
      {"a message in GBK", LoopbackServer::ok("{\"code\": 1000, \"msg\": \"\xB3\xC9\", \"mel_spec\": [[1]]}"), 1, {}},
      {"a number no type holds", body(R"(, "mel_spec": [[1e400]])"), 0, {}},
      {"code as text", LoopbackServer::ok(R"({"code": "1000", "msg": ""})"), 0, {"[E]parse error"}},
      {"code too large", LoopbackServer::ok(R"({"code": 99999999999, "msg": ""})"), 0, {"[E]parse error"}},
      {"no message", LoopbackServer::ok(R"({"code": 1000})"), 0, {"[E]parse error"}},
      {"an array", LoopbackServer::ok(R"([1000])"), 0, {"[E]parse error"}},
      {"null", LoopbackServer::ok("null"), 0, {"[E]parse error"}},
      {"another code",
       LoopbackServer::ok(R"({"code": -3, "msg": "no model"})"),
       0,
       {"[E]code error, code=-3,msg=no model"}},
      {"no spectrogram", body(""), 0, {noTable}},
      {"spectrogram an object", body(R"(, "mel_spec": {"a": [1]})"), 0, {noTable}},
      {"rows of text", body(R"(, "mel_spec": [["1"]])"), 0, {noTable}},
      {"rows no arrays", body(R"(, "mel_spec": [1, 2])"), 0, {noTable}},
      {"a number no float holds", body(R"(, "mel_spec": [[1e300]])"), 0, {noTable}},
      {"negative mels", body(R"(, "mels": -1, "mel_spec": [])"), 0, {"[E]mels out of range:-1"}},
      {"huge mels", body(R"(, "mels": 2000000000, "mel_spec": [])"), 0, {"[E]mels out of range:2000000000"}},
      {"mels as text", body(R"(, "mels": "2", "mel_spec": [])"), 0, {"[E]mels out of range:2"}},
      {"mels a list", body(R"(, "mels": [1], "mel_spec": [])"), 0, {"[E]mels out of range:no number"}},
      {"huge steps",
       body(R"(, "time_steps": 99999999999, "mel_spec": [])"),
       0,
       {"[E]time_steps out of range:99999999999"}},
      {"nested deeply",
       LoopbackServer::ok(R"({"code": 1000, "msg": "", "mel_spec": )" + std::string(2000000, '[')),
       0,
       {}},
  };
  LoopbackServer server("-");
  const std::vector<std::uint8_t> pcm(10, 1);
  for (const ReplyCase& c : cases) {
    server.setAnswer(c.reply);
    MelSpectrogram matrix = {{7}};
    LogCapture log;
    EXPECT_EQ(AudioToMelSpec(server.address(), audioFrame(pcm), matrix), c.result) << c.what;
    EXPECT_EQ(log.texts(), c.lines) << c.what;
    EXPECT_EQ(matrix.front(), std::vector<float>{7}) << c.what;
    EXPECT_TRUE(c.result == 1 || matrix.size() == 1) << c.what;
  }
}

TEST(PostJson, TellsWhyATransferFailed) {
  LoopbackServer server("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\ncut");
  const auto failure = [&](const std::string& url) {
    std::string response = "kept";
    LogCapture log;
    EXPECT_FALSE(PostJson(url, "{}", response, std::chrono::seconds(1)));
    EXPECT_TRUE(response.starts_with("kept"));
    const std::vector<LogLine> lines = log.take();
    EXPECT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines.at(0).file, "Core/Utils/Request");
    const std::string start = "[E]curl_easy_perform error: url=" + url + ", ";
    EXPECT_TRUE(lines.at(0).text.starts_with(start)) << lines.at(0).text;
    return lines.at(0).text.substr(start.size());
  };
  EXPECT_EQ(failure(server.address()), "Transferred a partial file");
  server.setAnswer("garbage\r\n\r\n");
  EXPECT_FALSE(failure(server.address()).empty());
  server.setAnswer("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nxyz\r\n");
  EXPECT_FALSE(failure(server.address()).empty());
  server.setAnswer(LoopbackServer::ok(std::string(std::size_t{33} << 20, ' ')));
  EXPECT_EQ(failure(server.address()), "Failed writing received data to disk/application");
  server.setAnswer("");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(failure(server.address()), "Timeout was reached");
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
  EXPECT_EQ(failure("http://127.0.0.1:1"), "Couldn't connect to server");
  failure("nonsense://" + std::string(20000, 'x'));
}

/// The service that the audio classifier calls, and a model whose network gives the scores that the
/// test chose, or for no scores what it was shown.
struct AudioBench {
  explicit AudioBench(const std::vector<float>& scores, std::size_t classCount = 3, int plane = 0)
      : server(LoopbackServer::ok(spectrogram("[[1, 2, 3], [4, 5, 6]]")), 9555),
        model("Classify", "AudioNet", writeNetwork({1, 3, 2, 3}, [&](const ov::Output<ov::Node>& input) {
                return ov::OutputVector{scores.empty() ? reshaped(sliced(input, 1, plane, plane + 1), {1, -1})
                                                       : floats({1, scores.size()}, scores)};
              })) {
    model.setInput(3, 2);
    model.setClasses({"bark", "siren", "glass"});
    model.config.classCount = static_cast<std::uint32_t>(classCount);
    EXPECT_TRUE(model.init());
    frame = audioFrame(pcm);
    frame.width = 641;
    frame.height = 480;
    frame.wantedLabels = {"bark", "siren", "glass"};
  }
  static std::string spectrogram(const std::string& rows) {
    return R"({"code": 1000, "msg": "", "mel_spec": )" + rows + "}";
  }
  bool run() {
    LogCapture log;
    const bool done = VsaModelClassify(&model.context, &frame);
    lines = log.texts();
    return done;
  }

  LoopbackServer server;
  std::vector<std::uint8_t> pcm{1, 2, 3, 4};
  TestModel model;
  VsaFrame frame;
  Texts lines;
};

TEST(OvClassifyAudioNet, ReportsTheBestClassOfABlock) {
  AudioBench bench({1, 3, -8});
  EXPECT_TRUE(bench.run());
  EXPECT_TRUE(bench.frame.audioClassified);
  EXPECT_EQ(bench.frame.audioScore, 0.75F);
  ASSERT_EQ(bench.frame.audioObjects.size(), 1U);
  const VsaObject& object = bench.frame.audioObjects[0];
  EXPECT_EQ(boxOf(object), (std::vector<int>{320, 240, 320, 240}));
  EXPECT_EQ(object.imageWidth, 641);
  EXPECT_EQ(object.imageHeight, 480);
  EXPECT_EQ(object.className, "siren");
  EXPECT_EQ(object.classId, 1);
  EXPECT_EQ(object.score, 0.75F);
  EXPECT_TRUE(bench.frame.objects.empty());

  // Without a picture there is no object, but the block counts as classified.
  bench.frame.audioClassified = false;
  bench.frame.width = 0;
  EXPECT_TRUE(bench.run());
  EXPECT_TRUE(bench.frame.audioClassified);
  bench.frame.width = 641;
  bench.frame.height = 0;
  EXPECT_TRUE(bench.run());
  EXPECT_EQ(bench.frame.audioObjects.size(), 1U);
  bench.frame.height = 480;

  // What does not pass leaves the frame as it was.
  bench.frame.audioClassified = false;
  bench.frame.wantedLabels = {"bark"};
  EXPECT_TRUE(bench.run());
  bench.frame.wantedLabels = {"siren"};
  bench.model.config.scoreThreshold = 0.8F;
  EXPECT_TRUE(bench.run());
  EXPECT_FALSE(bench.frame.audioClassified);
  EXPECT_EQ(bench.lines, Texts{});

  bench.frame.kind = kVsaImageFrame;
  const int requests = bench.server.requestCount();
  EXPECT_FALSE(bench.run());
  EXPECT_EQ(bench.lines, Texts{});
  EXPECT_FALSE(VsaModelClassify(&bench.model.context, nullptr));
  EXPECT_EQ(bench.server.requestCount(), requests);
}

TEST(OvClassifyAudioNet, ChecksTheNumberOfRowsAndTheFirstOnesLength) {
  AudioBench bench({1, 3, -8});
  const std::pair<std::string, std::string> cases[] = {
      {"[[1, 2, 3]]", "[E]mels error:1"},
      {"[]", "[E]mels error:0"},
      {"[[1, 2], [4, 5, 6]]", "[E]time_steps error:2"},
      {"[[1, 2, 3], []]", ""},
      {"[[1, 2, 3], [1, 2, 3, 4, 5, 6, 7, 8, 9, 10]]", ""},
      {"7", "[E]mel_spec is no array of arrays of numbers"},
  };
  for (const auto& [rows, line] : cases) {
    bench.server.setAnswer(LoopbackServer::ok(AudioBench::spectrogram(rows)));
    EXPECT_EQ(bench.run(), line.empty()) << rows;
    EXPECT_EQ(bench.lines, line.empty() ? Texts{} : Texts{line});
  }
}

TEST(OvClassifyAudioNet, FillsEachPlaneWithTheRowsAndZeros) {
  // The networks show one plane of their input, 6 floats, as scores.
  for (int plane = 0; plane < 3; ++plane) {
    AudioBench bench({}, 6, plane);
    bench.model.config.classNames = {"a", "b", "c", "d", "e", "f"};
    bench.frame.wantedLabels = {"a", "b", "c", "d", "e", "f"};
    bench.model.config.scoreThreshold = 0.0F;
    const std::pair<std::string, float> cases[] = {
        {"[[1, 2, 9], [4, 5, 6]]", 9.0F / 27.0F},
        {"[[1, 2, 9], [4]]", 9.0F / 16.0F},            // what no row fills is 0, not the last block's
        {"[[1, 2, 9], [4, 5, 6, 100]]", 9.0F / 27.0F}  // what goes past the plane is left out
    };
    for (const auto& [rows, score] : cases) {
      bench.server.setAnswer(LoopbackServer::ok(AudioBench::spectrogram(rows)));
      EXPECT_TRUE(bench.run());
      EXPECT_FLOAT_EQ(bench.frame.audioScore, score) << rows;
      EXPECT_EQ(bench.frame.audioObjects.back().classId, 2);
    }
  }
}

TEST(OvClassifyAudioNet, RefusesShortOutputs) {
  AudioBench bench({1, 3, -8}, 4);
  EXPECT_FALSE(bench.run());
  EXPECT_EQ(bench.lines, Texts{"[E]network output is f32[1,3],expected f32 of at least 4"});
  EXPECT_FALSE(bench.frame.audioClassified);
}

TEST(OvClassifyAudioNet, FailsWithoutAService) {
  TestModel model("Classify", "AudioNet", writeConstant({1, 3, 2, 3}, {1, 3}, {1, 2, 3}));
  ASSERT_TRUE(model.init());
  const std::vector<std::uint8_t> pcm{1};
  VsaFrame frame = audioFrame(pcm);
  LogCapture log;
  EXPECT_FALSE(VsaModelClassify(&model.context, &frame));
  EXPECT_EQ(log.texts(), Texts{"[E]curl_easy_perform error: url=http://127.0.0.1:9555/api/audioToMelSpec, "
                               "Couldn't connect to server"});
}

}  // namespace
