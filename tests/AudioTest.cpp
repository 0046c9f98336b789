// The spectrogram client and the audio classifier against a service that says what the test wants.

#include <gtest/gtest.h>
#include <json/json.h>

#include <cfloat>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <iostream>
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

constexpr std::chrono::milliseconds kUsual{10000};
static_assert(kRequestLimit == std::chrono::seconds(30));

struct ServiceCase {
  const char* what;
  Answer answer;
  int result;
  Texts lines;  // one that ends in "*" stands for any that begins so
  std::chrono::milliseconds limit = kUsual;
  MelSpectrogram rows = {{1}};  // where the result is 1
};

TEST(AudioToMelSpec, BearsWithWhateverTheServiceDoes) {
  using std::chrono::milliseconds;
  LoopbackServer server("-");
  const auto body = [](const std::string& members) {
    return LoopbackServer::ok(R"({"code": 1000, "msg": "fine")" + members + "}");
  };
  const std::string good = R"({"code": 1000, "msg": "", "mel_spec": [[1]]})";
  const std::string noTable = "[E]mel_spec is no array of arrays of numbers";
  const std::string outOfRange = "[E]time_steps out of range:";
  const auto ok = &LoopbackServer::ok;
  const auto failed = [&](const std::string& why) {
    return Texts{"[E]curl_easy_perform error: url=" + server.address() + "/api/audioToMelSpec, " + why};
  };
  const auto inBytes = [](Answer answer, milliseconds pause) { return answer.pause = pause, answer; };
  const auto cut = [](Answer answer, std::size_t requestBytes = SIZE_MAX) {
    return answer.resets = true, answer.requestBytes = requestBytes, answer;
  };
  const auto huge = [](Answer answer) { return answer.blanks = std::size_t{200} << 20, answer; };
  const std::string redirect = "HTTP/1.1 301 Moved\r\nLocation: http://127.0.0.1:1/\r\nContent-Length: 0\r\n\r\n";
  const std::string chunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
  const ServiceCase cases[] = {
      // The connection.
      {"never answers", "", 0, failed("Timeout was reached"), milliseconds(400)},
      {"never answers, up to the library's own limit", "", 0, failed("Timeout was reached"), milliseconds(30000)},
      {"reset within the request", cut("", 1), 0, failed("*")},
      {"reset before the headers", cut(""), 0, failed("Failure when receiving data from the peer")},
      {"reset within the headers", cut("HTTP/1.1 200 OK\r\nConte"), 0, failed("*")},
      {"reset within the body", cut(ok(good).substr(0, 80)), 0, failed("*")},
      {"one byte after the other", inBytes(ok(good), milliseconds(2)), 1, {}},
      {"too slow", inBytes(ok(good), milliseconds(20)), 0, failed("Timeout was reached"), milliseconds(400)},
      // HTTP.
      {"garbage", "garbage\r\n\r\n", 0, failed("*")},
      {"a status that is no number", "HTTP/1.1 abc OK\r\n\r\n" + good, 0, failed("*")},
      {"status 404", LoopbackServer::reply("404 Not Found", good), 1, {}},
      {"status 500", LoopbackServer::reply("500 Oops", good), 1, {}},
      {"leave to go on first", "HTTP/1.1 100 Continue\r\n\r\n" + ok(good), 1, {}},
      {"a redirect is not followed", redirect, 0, {}},
      {"a length too short", "HTTP/1.1 200 OK\r\nContent-Length: 20\r\n\r\n" + good, 0, {}},
      {"a length too long", "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n" + good, 0,
       failed("Transferred a partial file")},
      {"a length that is no number", "HTTP/1.1 200 OK\r\nContent-Length: -7\r\n\r\n" + good, 0, failed("*")},
      {"no length", "HTTP/1.0 200 OK\r\n\r\n" + good, 1, {}},
      {"no length, closed early", "HTTP/1.0 200 OK\r\n\r\n" + good.substr(0, 20), 0, {}},
      {"chunks", chunked + "2c\r\n" + good + "\r\n0\r\n\r\n", 1, {}},
      {"bad chunks", chunked + "xyz\r\n", 0, failed("*")},
      {"chunks without an end", chunked + "2c\r\n" + good + "\r\n", 0, failed("*")},
      {"200 MB", huge("HTTP/1.1 200 OK\r\n\r\n"), 0, failed("Failed writing received data to disk/application")},
      {"no body", ok(""), 0, {}},
      // The text.
      {"cut JSON", ok(good.substr(0, 30)), 0, {}},
      {"no JSON", ok("<html>"), 0, {}},
      {"zero bytes", ok(std::string(40, '\0')), 0, {}},
      {"a zero byte in the message", ok(std::string("{\"msg\": \"\0\"}", 12)), 0, {"[E]parse error"}},
      {"a byte-order mark", ok("\xEF\xBB\xBF" + good), 1, {}},
      {"UTF-16", ok(std::string("{\0\"\0c\0", 6)), 0, {}},
      {"a message in GBK", ok("{\"code\": 1000, \"msg\": \"\xB3\xC9\", \"mel_spec\": [[1]]}"), 1, {}},
      {"half a surrogate pair", ok(R"({"code": 1000, "msg": "\ud800"})"), 0, {}},
      {"nested deeply", body(R"(, "mel_spec": )" + std::string(10000, '[') + std::string(10000, ']')), 0, {}},
      {"opened deeply", body(R"(, "mel_spec": )" + std::string(2000000, '[')), 0, {}},
      // The reply.
      {"code as text", ok(R"({"code": "1000", "msg": ""})"), 0, {"[E]parse error"}},
      {"code too large", ok(R"({"code": 99999999999, "msg": ""})"), 0, {"[E]parse error"}},
      {"no message", ok(R"({"code": 1000})"), 0, {"[E]parse error"}},
      {"an array", ok(R"([1000])"), 0, {"[E]parse error"}},
      {"null", ok("null"), 0, {"[E]parse error"}},
      {"another code", ok(R"({"code": -3, "msg": "no model"})"), 0, {"[E]code error, code=-3,msg=no model"}},
      {"no spectrogram", body(""), 0, {noTable}},
      {"empty spectrogram", body(R"(, "mel_spec": [])"), 1, {}, kUsual, {}},
      {"spectrogram an object", body(R"(, "mel_spec": {"a": [1]})"), 0, {noTable}},
      {"ragged rows, counts wrong",
       body(R"(, "mels": 9, "time_steps": 1, "mel_spec": [[1, 2], [], [3]])"),
       1,
       {},
       kUsual,
       {{1, 2}, {}, {3}}},
      {"more rows said than sent", body(R"(, "mels": 1000001, "mel_spec": [[1]])"), 1, {}},
      {"rows of text", body(R"(, "mel_spec": [["1"]])"), 0, {noTable}},
      {"rows no arrays", body(R"(, "mel_spec": [1, 2])"), 0, {noTable}},
      {"the least float, as it is printed", body(R"(, "mel_spec": [[-3.4028235e+38]])"), 1, {}, kUsual, {{-FLT_MAX}}},
      {"a number no float holds", body(R"(, "mel_spec": [[1e300]])"), 0, {noTable}},
      {"a number no type holds", body(R"(, "mel_spec": [[1e400]])"), 0, {}},
      {"negative mels", body(R"(, "mels": -1, "mel_spec": [])"), 0, {"[E]mels out of range:-1"}},
      {"huge mels", body(R"(, "mels": 2000000000, "mel_spec": [])"), 0, {"[E]mels out of range:2000000000"}},
      {"mels as text", body(R"(, "mels": "2", "mel_spec": [])"), 0, {"[E]mels out of range:2"}},
      {"mels a list", body(R"(, "mels": [1], "mel_spec": [])"), 0, {"[E]mels out of range:no number"}},
      {"huge steps", body(R"(, "time_steps": 99999999999, "mel_spec": [])"), 0, {outOfRange + "99999999999"}},
  };
  const bool isPatient = std::getenv("TOL_ALL_TESTS") != nullptr;
  const std::vector<std::uint8_t> pcm(10, 1);
  int count = 0;
  for (const ServiceCase& c : cases) {
    if (c.limit > kUsual && !isPatient) continue;
    SCOPED_TRACE(c.what);
    server.setAnswer(c.answer);
    MelSpectrogram matrix = {{7}};
    LogCapture log;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(AudioToMelSpec(server.address(), audioFrame(pcm), matrix, c.limit), c.result);
    const auto taken = std::chrono::steady_clock::now() - start;
    EXPECT_LT(taken, c.limit + std::chrono::seconds(1));
    const Texts lines = log.texts();
    // curl counts whole milliseconds.
    const bool isEarly = taken + milliseconds(10) < c.limit;
    EXPECT_FALSE(isEarly && !lines.empty() && lines[0].ends_with("Timeout was reached"));
    ASSERT_EQ(lines.size(), c.lines.size()) << (lines.empty() ? "" : lines[0]);
    for (std::size_t i = 0; i < lines.size(); ++i) {
      const std::string& line = c.lines[i];
      EXPECT_TRUE(lines[i] == line || (line.back() == '*' && lines[i].starts_with(line.substr(0, line.size() - 1))))
          << lines[i];
    }
    MelSpectrogram expected = {{7}};
    if (c.result == 1) expected.insert(expected.end(), c.rows.begin(), c.rows.end());
    EXPECT_EQ(matrix, expected);
    ++count;
  }
  // A service that never says that it will take a large request is sent it all the same.
  server.setAnswer(LoopbackServer::ok(good));
  const std::vector<std::uint8_t> large(std::size_t{3} << 20, 1);
  MelSpectrogram matrix;
  EXPECT_EQ(AudioToMelSpec(server.address(), audioFrame(large), matrix), 1);
  EXPECT_GT(server.lastRequest().size(), std::size_t{4} << 20);
  std::cout << count + 3 << " cases" << std::endl;  // with this one and those below
}

TEST(PostJson, TellsWhyATransferFailed) {
  for (const std::string& url : {std::string("http://127.0.0.1:1"), "nonsense://" + std::string(20000, 'x')}) {
    std::string response = "kept";
    LogCapture log;
    EXPECT_FALSE(PostJson(url, "{}", response));
    EXPECT_EQ(response, "kept");
    const std::vector<LogLine> lines = log.take();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].file, "Core/Utils/Request");
    EXPECT_TRUE(lines[0].text.starts_with("[E]curl_easy_perform error: url=" + url + ", "));
    EXPECT_TRUE(url.size() > 100 || lines[0].text.ends_with(", Couldn't connect to server"));
  }
}

/// The service that the audio classifier calls, and a model whose network gives the scores that the
/// test chose, or for no scores what it was shown.
struct AudioBench {
  explicit AudioBench(const std::vector<float>& scores, int plane = 0)
      : server(LoopbackServer::ok(spectrogram("[[1, 2, 3], [4, 5, 6]]")), 9555),
        model("Classify", "AudioNet", writeNetwork({1, 3, 2, 3}, [&](const ov::Output<ov::Node>& input) {
                return ov::OutputVector{scores.empty() ? reshaped(sliced(input, 1, plane, plane + 1), {1, -1})
                                                       : floats({1, scores.size()}, scores)};
              })) {
    model.setInput(3, 2);
    model.setClasses({"bark", "siren", "glass"});
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

TEST(OvClassifyAudioNet, ChecksTheRowsAndTheScores) {
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
  bench.server.setAnswer(LoopbackServer::ok(AudioBench::spectrogram("[[1, 2, 3], []]")));
  bench.model.config.classCount = 4;
  bench.frame.audioClassified = false;
  EXPECT_FALSE(bench.run());
  EXPECT_EQ(bench.lines, Texts{"[E]network output is f32[1,3],expected f32 of at least 4"});
  EXPECT_FALSE(bench.frame.audioClassified);
}

TEST(OvClassifyAudioNet, FillsEachPlaneWithTheRowsAndZeros) {
  // The networks show one plane of their input, 6 floats, as scores.
  for (int plane = 0; plane < 3; ++plane) {
    AudioBench bench({}, plane);
    bench.model.setClasses({"a", "b", "c", "d", "e", "f"});
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

}  // namespace
