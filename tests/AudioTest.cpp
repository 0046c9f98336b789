// The spectrogram client and the audio classifier against a service that says what the test wants.

#include <gtest/gtest.h>
#include <json/json.h>

#include <cfloat>
#include <chrono>
#include <cstdlib>
#include <iostream>

#include "Utils/PreProcessUtils.h"
#include "Utils/Request.h"
#include "support/LogCapture.h"
#include "support/LoopbackServer.h"
#include "support/TestHost.h"
#include "support/TinyNetworks.h"

namespace {

using namespace TolCompatibleLib;

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
  const std::pair<std::string, const char*> cases[] = {{"", ""},
                                                       {std::string(1, '\0'), "AA=="},
                                                       {"Ma", "TWE="},
                                                       {"Man", "TWFu"},
                                                       {"\xFB\xFF\xFE", "+//+"}};
  for (const auto& [bytes, text] : cases) {
    std::string out = "kept";
    Base64Encode(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size(), out);
    EXPECT_EQ(out, std::string("kept") + text);
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
  EXPECT_EQ(log.takeTexts(), Texts{});
  EXPECT_EQ(matrix, (MelSpectrogram{{9}, {1, -2.5F, 300}, {4, 5}}));

  const std::string request = server.lastRequest();
  EXPECT_TRUE(request.starts_with("POST /api/audioToMelSpec HTTP/1.1\r\n")) << request;
  for (const char* header : {"\r\nUser-Agent: vsrt_core;\r\n",
                             "\r\nContent-Type: application/json;\r\n", "\r\nexpect: ;\r\n"}) {
    EXPECT_NE(request.find(header), std::string::npos) << header;
  }
  const std::string body = request.substr(request.find("\r\n\r\n") + 4);
  EXPECT_GT(std::count(body.begin(), body.end(), '\n'), 8);  // styled, not on one line
  EXPECT_TRUE(body.ends_with("\n}\n"));
  Json::Value json;
  ASSERT_TRUE(Json::Reader().parse(body, json));
  Json::Value expected;
  ASSERT_TRUE(Json::Reader().parse(
      R"({"pts": 1099511627776, "audio_frame_count": -7, "audio_frame_max_size": 4096,
      "audio_frame_size": 5, "audio_sample_rate": 48000, "audio_nb_samples": 2, "audio_sample_fmt": 1,
      "audio_sample_fmt_byte_num": 2, "audio_pcm_base64": "AQIDBAU="})",
      expected));
  EXPECT_EQ(json, expected);

  VsaFrame image = audioFrame(pcm);
  image.kind = kVsaImageFrame;
  EXPECT_EQ(AudioToMelSpec(server.address(), image, matrix), 0);
  EXPECT_EQ(server.requestCount(), 1);
  VsaFrame empty = audioFrame({});
  empty.audioData = nullptr;
  EXPECT_EQ(AudioToMelSpec(server.address(), empty, matrix), 1);
  EXPECT_NE(server.lastRequest().find("\"audio_pcm_base64\" : \"\""), std::string::npos);
  EXPECT_EQ(log.takeTexts(), Texts{});
  for (const int size : {5, -5}) {
    empty.audioFrameSize = size;
    EXPECT_EQ(AudioToMelSpec(server.address(), empty, matrix), 0);
    EXPECT_EQ(log.takeTexts(),
              Texts{"[E]audio block has no data,audio_frame_size=" + std::to_string(size)});
  }
}

constexpr std::chrono::milliseconds kUsual{10000};
static_assert(kRequestLimit == std::chrono::seconds(30));

struct ServiceCase {
  const char* what;
  Answer answer;
  std::optional<MelSpectrogram> rows;  // nothing: the call fails
  std::string line;                    // none, or where it ends in "*" any that begins so
  std::chrono::milliseconds limit = kUsual;
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
    return "[E]curl_easy_perform error: url=" + server.address() + "/api/audioToMelSpec, " + why;
  };
  const auto inBytes = [](Answer answer, milliseconds pause) {
    return answer.pause = pause, answer;
  };
  const auto cut = [](Answer answer, std::size_t requestBytes = SIZE_MAX) {
    return answer.resets = true, answer.maxRequestBytes = requestBytes, answer;
  };
  const auto padded = [](Answer answer, std::size_t mebibytes) {
    answer.trailingSpaces = mebibytes << 20;
    return answer;
  };
  const std::string redirect =
      "HTTP/1.1 301 Moved\r\nLocation: http://127.0.0.1:1/\r\nContent-Length: 0\r\n\r\n";
  const std::string chunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
  const std::optional<MelSpectrogram> none, one = MelSpectrogram{{1}};
  const ServiceCase cases[] = {
      // The connection.
      {"never answers", "", none, failed("Timeout was reached"), milliseconds(400)},
      {"never answers, up to the library's own limit", "", none, failed("Timeout was reached"),
       milliseconds(30000)},
      {"reset within the request", cut("", 1), none, failed("*")},
      {"reset before the headers", cut(""), none,
       failed("Failure when receiving data from the peer")},
      {"reset within the headers", cut("HTTP/1.1 200 OK\r\nConte"), none, failed("*")},
      {"reset within the body", cut(ok(good).substr(0, 80)), none, failed("*")},
      {"one byte after the other", inBytes(ok(good), milliseconds(2)), one, ""},
      {"too slow", inBytes(ok(good), milliseconds(20)), none, failed("Timeout was reached"),
       milliseconds(400)},
      // HTTP.
      {"garbage", "garbage\r\n\r\n", none, failed("*")},
      {"a status that is no number", "HTTP/1.1 abc OK\r\n\r\n" + good, none, failed("*")},
      {"status 404", LoopbackServer::reply("404 Not Found", good), one, ""},
      {"status 500", LoopbackServer::reply("500 Oops", good), one, ""},
      {"leave to go on first", "HTTP/1.1 100 Continue\r\n\r\n" + ok(good), one, ""},
      {"a redirect is not followed", redirect, none, ""},
      {"a length too short", "HTTP/1.1 200 OK\r\nContent-Length: 20\r\n\r\n" + good, none, ""},
      {"a length too long", "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n" + good, none,
       failed("Transferred a partial file")},
      {"a length that is no number", "HTTP/1.1 200 OK\r\nContent-Length: -7\r\n\r\n" + good, none,
       failed("*")},
      {"no length", "HTTP/1.0 200 OK\r\n\r\n" + good, one, ""},
      {"no length, closed early", "HTTP/1.0 200 OK\r\n\r\n" + good.substr(0, 20), none, ""},
      {"chunks", chunked + "2c\r\n" + good + "\r\n0\r\n\r\n", one, ""},
      {"bad chunks", chunked + "xyz\r\n", none, failed("*")},
      {"chunks without an end", chunked + "2c\r\n" + good + "\r\n", none, failed("*")},
      {"31 MiB", padded("HTTP/1.0 200 OK\r\n\r\n" + good, 31), one, ""},
      {"33 MiB", padded("HTTP/1.0 200 OK\r\n\r\n" + good, 33), none,
       failed("Failed writing received data to disk/application")},
      {"no body", ok(""), none, ""},
      // The text.
      {"cut JSON", ok(good.substr(0, 30)), none, ""},
      {"no JSON", ok("<html>"), none, ""},
      {"zero bytes", ok(std::string(40, '\0')), none, ""},
      {"a zero byte in the message", ok(std::string("{\"msg\": \"\0\"}", 12)), none,
       "[E]parse error"},
      {"a byte-order mark", ok("\xEF\xBB\xBF" + good), one, ""},
      {"UTF-16", ok(std::string("{\0\"\0c\0", 6)), none, ""},
      {"a message in GBK", ok("{\"code\": 1000, \"msg\": \"\xB3\xC9\", \"mel_spec\": [[1]]}"), one,
       ""},
      {"half a surrogate pair", ok(R"({"code": 1000, "msg": "\ud800"})"), none, ""},
      {"nested deeply",
       body(R"(, "mel_spec": )" + std::string(10000, '[') + std::string(10000, ']')), none, ""},
      {"opened deeply", body(R"(, "mel_spec": )" + std::string(2000000, '[')), none, ""},
      // The reply.
      {"code as text", ok(R"({"code": "1000", "msg": ""})"), none, "[E]parse error"},
      {"code too large", ok(R"({"code": 99999999999, "msg": ""})"), none, "[E]parse error"},
      {"no message", ok(R"({"code": 1000})"), none, "[E]parse error"},
      {"an array", ok(R"([1000])"), none, "[E]parse error"},
      {"null", ok("null"), none, "[E]parse error"},
      {"another code", ok(R"({"code": -3, "msg": "no model"})"), none,
       "[E]code error, code=-3,msg=no model"},
      {"no spectrogram", body(""), MelSpectrogram(), ""},
      {"spectrogram null", body(R"(, "mel_spec": null)"), MelSpectrogram(), ""},
      {"empty spectrogram", body(R"(, "mel_spec": [])"), MelSpectrogram(), ""},
      {"spectrogram an object", body(R"(, "mel_spec": {"a": [1]})"), none, noTable},
      {"ragged rows, counts wrong",
       body(R"(, "mels": 9, "time_steps": 1, "mel_spec": [[1, 2], [], [3]])"),
       MelSpectrogram{{1, 2}, {}, {3}}, ""},
      {"more rows said than sent", body(R"(, "mels": 1000001, "mel_spec": [[1]])"), one, ""},
      {"rows of text", body(R"(, "mel_spec": [["1"]])"), none, noTable},
      {"rows no arrays", body(R"(, "mel_spec": [1, 2])"), none, noTable},
      {"the least float, as it is printed", body(R"(, "mel_spec": [[-3.4028235e+38]])"),
       MelSpectrogram{{-FLT_MAX}}, ""},
      {"a number no float holds", body(R"(, "mel_spec": [[1e300]])"), none, noTable},
      {"a number no type holds", body(R"(, "mel_spec": [[1e400]])"), none, ""},
      {"as many mels as may be", body(R"(, "mels": 16777216, "mel_spec": [[1]])"), one, ""},
      {"one mel more", body(R"(, "mels": 16777217, "mel_spec": [])"), none,
       "[E]mels out of range:16777217"},
      {"negative mels", body(R"(, "mels": -1, "mel_spec": [])"), none, "[E]mels out of range:-1"},
      {"huge mels", body(R"(, "mels": 2000000000, "mel_spec": [])"), none,
       "[E]mels out of range:2000000000"},
      {"mels as text", body(R"(, "mels": "2", "mel_spec": [])"), none, "[E]mels out of range:2"},
      {"mels a list", body(R"(, "mels": [1], "mel_spec": [])"), none,
       "[E]mels out of range:no number"},
      {"huge steps", body(R"(, "time_steps": 99999999999, "mel_spec": [])"), none,
       outOfRange + "99999999999"},
  };
  // verify/service runs the long cases, and only those.
  const bool runsLongCases = std::getenv("TOL_LONG_TESTS") != nullptr;
  const std::vector<std::uint8_t> pcm(10, 1);
  int count = 0;
  for (const ServiceCase& c : cases) {
    if ((c.limit > kUsual) != runsLongCases) continue;
    SCOPED_TRACE(c.what);
    server.setAnswer(c.answer);
    MelSpectrogram matrix = {{7}};
    LogCapture log;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(AudioToMelSpec(server.address(), audioFrame(pcm), matrix, c.limit), c.rows ? 1 : 0);
    const auto taken = std::chrono::steady_clock::now() - start;
    EXPECT_LT(taken, c.limit + std::chrono::seconds(1));
    Texts lines = log.takeTexts();
    lines.resize(std::max<std::size_t>(lines.size(), 1));
    EXPECT_EQ(lines.size(), 1U);
    // curl counts whole milliseconds.
    EXPECT_FALSE(lines[0].ends_with("Timeout was reached") && taken + milliseconds(10) < c.limit);
    const bool isAny = c.line.ends_with("*");
    EXPECT_EQ(isAny ? lines[0].substr(0, c.line.size() - 1) + "*" : lines[0], c.line);
    MelSpectrogram expected = {{7}};
    if (c.rows) expected.insert(expected.end(), c.rows->begin(), c.rows->end());
    EXPECT_EQ(matrix, expected);
    ++count;
  }
  if (runsLongCases) {
    std::cout << "long cases: " << count << std::endl;
    return;
  }
  // A service that never says that it will take a large request is sent it all the same.
  server.setAnswer(LoopbackServer::ok(good));
  const std::vector<std::uint8_t> large(std::size_t{3} << 20, 1);
  MelSpectrogram matrix;
  EXPECT_EQ(AudioToMelSpec(server.address(), audioFrame(large), matrix), 1);
  EXPECT_GT(server.lastRequest().size(), std::size_t{4} << 20);
}

TEST(PostJson, TellsWhyATransferFailed) {
  for (const std::string& url :
       {std::string("http://127.0.0.1:1"), "nonsense://" + std::string(20000, 'x')}) {
    std::string response = "kept";
    LogCapture log;
    EXPECT_FALSE(PostJson(url, "{}", response));
    EXPECT_EQ(response, "kept");
    const Texts lines = log.takeLines();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_TRUE(
        lines[0].starts_with("Core/Utils/Request: [E]curl_easy_perform error: url=" + url + ", "));
    EXPECT_TRUE(url.size() > 100 || lines[0].ends_with(", Couldn't connect to server"));
  }
}

/// The service that the audio classifier calls, and a model whose network gives the scores that the
/// test chose, or for no scores what it was shown.
struct AudioBench {
  explicit AudioBench(const std::vector<float>& scores, int plane = 0)
      : server(LoopbackServer::ok(spectrogram("[[1, 2, 3], [4, 5, 6]]")), 9555),
        model("Classify", "AudioNet",
              writeNetwork({1, 3, 2, 3}, [&](const ov::Output<ov::Node>& input) {
                return ov::OutputVector{scores.empty()
                                            ? reshaped(sliced(input, 1, plane, plane + 1), {1, -1})
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
  /// What a run says and what the frame then is, of which nothing stays.
  Texts run() {
    VsaFrame given = frame;
    given.audioObjects = {boxObject(0, 0, 1, 1, "before")};
    LogCapture log;
    const bool done = model.run(&given);
    Texts result = log.takeTexts();
    EXPECT_TRUE(given.objects.empty());
    EXPECT_TRUE(given.audioClassified ||
                (given.audioObjects.size() == 1 && given.audioScore == 0.0F));
    result.push_back(!done                   ? "failed"
                     : given.audioClassified ? "classified " + std::to_string(given.audioScore)
                                             : "nothing");
    EXPECT_EQ(given.audioObjects.at(0).className, "before");
    given.audioObjects.erase(given.audioObjects.begin());
    for (const std::string& object : describe(given.audioObjects)) result.push_back(object);
    return result;
  }

  LoopbackServer server;
  std::vector<std::uint8_t> pcm{1, 2, 3, 4};
  TestModel model;
  VsaFrame frame;
};

TEST(OvClassifyAudioNet, ReportsTheBestClassOfABlock) {
  AudioBench bench({1, 3, -8});
  EXPECT_EQ(bench.run(),
            (Texts{"classified 0.750000", "siren 1 0.75: 320,240 320,240 of 641x480"}));
  // Without a picture there is no object, but the block counts as classified.
  for (std::uint32_t* side : {&bench.frame.width, &bench.frame.height}) {
    const std::uint32_t length = std::exchange(*side, 0);
    EXPECT_EQ(bench.run(), Texts{"classified 0.750000"});
    *side = length;
  }
  bench.frame.wantedLabels = {"bark"};
  EXPECT_EQ(bench.run(), Texts{"nothing"});
  bench.frame.wantedLabels = {"siren"};
  bench.model.config.scoreThreshold = 0.75F;  // equal to the score
  EXPECT_EQ(bench.run().at(0), "classified 0.750000");
  bench.model.config.scoreThreshold = 0.8F;
  EXPECT_EQ(bench.run(), Texts{"nothing"});

  bench.frame.kind = kVsaImageFrame;
  const int requests = bench.server.requestCount();
  EXPECT_EQ(bench.run(), Texts{"failed"});
  EXPECT_FALSE(bench.model.run(nullptr));
  EXPECT_EQ(bench.server.requestCount(), requests);
}

TEST(OvClassifyAudioNet, ChecksTheRowsAndTheScores) {
  AudioBench bench({1, 3, -8});
  const auto answers = [&](const std::string& rows) {
    bench.server.setAnswer(LoopbackServer::ok(AudioBench::spectrogram(rows)));
    return bench.run();
  };
  const std::pair<std::string, std::string> refused[] = {
      {"[[1, 2, 3]]", "[E]mels error:1"},
      {"[]", "[E]mels error:0"},
      {"[[1, 2], [4, 5, 6]]", "[E]time_steps error:2"},
      {"null", "[E]mels error:0"},
      {"7", "[E]mel_spec is no array of arrays of numbers"},
  };
  for (const auto& [rows, line] : refused)
    EXPECT_EQ(answers(rows), (Texts{line, "failed"})) << rows;
  EXPECT_EQ(answers("[[1, 2, 3], [1, 2, 3, 4, 5, 6, 7, 8, 9, 10]]").at(0), "classified 0.750000");
  EXPECT_EQ(answers("[[1, 2, 3], []]").at(0), "classified 0.750000");
  bench.model.config.classCount = 4;
  EXPECT_EQ(bench.run(),
            (Texts{"[E]network output is f32[1,3],expected f32 of at least 4", "failed"}));
}

TEST(OvClassifyAudioNet, FillsEachPlaneWithTheRowsAndZeros) {
  // The networks show one plane of their input, 6 floats, as scores.
  for (int plane = 0; plane < 3; ++plane) {
    AudioBench bench({}, plane);
    bench.model.setClasses({"a", "b", "c", "d", "e", "f"});
    bench.frame.wantedLabels = {"c"};
    bench.model.config.scoreThreshold = 0.0F;
    const std::pair<std::string, float> cases[] = {
        {"[[1, 2, 9], [4, 5, 6]]", 9.0F / 27.0F},
        {"[[1, 2, 9], [4]]", 9.0F / 16.0F},  // what no row fills is 0, not the last block's
        {"[[1, 2, 9], [4, 5, 6, 100]]", 9.0F / 27.0F},  // what goes past the plane is left out
    };
    for (const auto& [rows, score] : cases) {
      bench.server.setAnswer(LoopbackServer::ok(AudioBench::spectrogram(rows)));
      EXPECT_EQ(bench.run().at(0), "classified " + std::to_string(score)) << rows;
    }
  }
}

TEST(OvClassifyAudioNet, TakesEachRowAsLongAsItIs) {
  LoopbackServer server(
      LoopbackServer::ok(AudioBench::spectrogram("[[1, 1], [1, 1, 1, 8], [1, 1]]")), 9555);
  TestModel model("Classify", "AudioNet",
                  writeNetwork({1, 3, 3, 2}, [](const ov::Output<ov::Node>& input) {
                    return ov::OutputVector{reshaped(sliced(input, 1, 0, 1), {1, -1})};
                  }));
  model.setInput(2, 3);
  model.setClasses({"a", "b", "c", "d", "e", "f"});
  ASSERT_TRUE(model.init());
  const std::vector<std::uint8_t> pcm(4, 1);
  VsaFrame frame = audioFrame(pcm);
  frame.wantedLabels = {"f"};
  EXPECT_TRUE(model.run(&frame));
  EXPECT_EQ(frame.audioScore, 8.0F / 13.0F);  // the sixth value is the longer row's last
}

}  // namespace
