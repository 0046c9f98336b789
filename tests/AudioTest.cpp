// The client of the mel-spectrogram service and the audio classifier, with a server that sends the
// replies the tests choose.

#include <curl/curl.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include <algorithm>
#include <cfloat>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <ostream>
#include <random>

#include "Utils/PlainReply.h"
#include "Utils/PreProcessUtils.h"
#include "Utils/Request.h"
#include "support/LogCapture.h"
#include "support/LoopbackServer.h"
#include "support/TestHost.h"
#include "support/TinyNetworks.h"

namespace {

using namespace TolCompatibleLib;

const std::string kRequestFile = "Core/Utils/Request: ";
const std::string kPreProcessFile = "Core/Utils/PreProcessUtils: ";
const std::string kAudioNetFile = "Core/OpenVINO/OvClassifyAudioNet: ";

/// An empty value unsets the variable.
void setVariable(const char* name, const std::string& value) {
#if defined(_WIN32)
  _putenv_s(name, value.c_str());
#else
  value.empty() ? unsetenv(name) : setenv(name, value.c_str(), 1);
#endif
}

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

TEST(Base64, PadsLastGroup) {
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

TEST(AudioToMelSpec, SendsFrameAndAppendsRows) {
  LoopbackServer server(LoopbackServer::ok(
      R"({"code": 1000, "msg": "", "mels": 2, "time_steps": 3,
          "mel_spec": [[1, -2.5, 3e2], [4, 5]]})"));
  const std::vector<std::uint8_t> pcm = {1, 2, 3, 4, 5};
  MelSpectrogram matrix = {{9}};
  // The service is on this machine, so the proxies of the environment are ignored.
  setVariable("http_proxy", "http://127.0.0.1:1");
  setVariable("ALL_PROXY", "http://127.0.0.1:1");
  LogCapture log;
  EXPECT_EQ(AudioToMelSpec(server.address(), audioFrame(pcm), matrix), 1);
  setVariable("http_proxy", "");
  setVariable("ALL_PROXY", "");
  EXPECT_EQ(log.takeTexts(), Texts{});
  EXPECT_EQ(matrix, (MelSpectrogram{{9}, {1, -2.5F, 300}, {4, 5}}));

  const std::string request = server.lastRequest();
  EXPECT_TRUE(request.starts_with("POST /api/audioToMelSpec HTTP/1.1\r\n")) << request;
  for (const char* header : {"\r\nUser-Agent: vsrt_core;\r\n",
                             "\r\nContent-Type: application/json;\r\n", "\r\nexpect: ;\r\n"}) {
    EXPECT_NE(request.find(header), std::string::npos) << header;
  }
  const std::string body = request.substr(request.find("\r\n\r\n") + 4);
  EXPECT_GT(std::count(body.begin(), body.end(), '\n'), 8);  // indented, not on one line
  EXPECT_TRUE(body.ends_with("\n}\n"));
  Json::Value json;
  ASSERT_TRUE(Json::Reader().parse(body, json));
  Json::Value expected;
  ASSERT_TRUE(Json::Reader().parse(
      R"({"pts": 1099511627776, "audio_frame_count": -7, "audio_frame_max_size": 4096,
          "audio_frame_size": 5, "audio_sample_rate": 48000, "audio_nb_samples": 2,
          "audio_sample_fmt": 1, "audio_sample_fmt_byte_num": 2, "audio_pcm_base64": "AQIDBAU="})",
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
    EXPECT_EQ(log.takeLines(),
              Texts{kPreProcessFile +
                    "[E]audio block has no data,audio_frame_size=" + std::to_string(size)});
  }
}

constexpr std::chrono::milliseconds kShortLimit{10000};
static_assert(kRequestLimit == std::chrono::seconds(30));

struct ServiceCase {
  const char* name;
  Answer answer;
  std::optional<MelSpectrogram> rows;  ///< nullopt: the call fails.
  std::string line;                    ///< Empty: no line is logged.
  std::chrono::milliseconds limit = kShortLimit;
};

TEST(AudioToMelSpec, HandlesEveryReplyAndFault) {
  using std::chrono::milliseconds;
  LoopbackServer server("-");
  const auto ok = &LoopbackServer::ok;
  const auto body = [](const std::string& members) {
    return LoopbackServer::ok(R"({"code": 1000, "msg": "fine")" + members + "}");
  };
  const auto sentSlowly = [](Answer answer, milliseconds pause) {
    answer.pause = pause;
    return answer;
  };
  const auto reset = [](Answer answer, std::size_t maxRequestBytes = SIZE_MAX) {
    answer.resets = true;
    answer.maxRequestBytes = maxRequestBytes;
    return answer;
  };
  const auto padded = [](Answer answer, std::size_t mebibytes) {
    answer.trailingSpaces = mebibytes << 20;
    return answer;
  };
  const std::string good = R"({"code": 1000, "msg": "", "mel_spec": [[1]]})";
  const std::string redirect =
      "HTTP/1.1 301 Moved\r\nLocation: http://127.0.0.1:1/\r\nContent-Length: 0\r\n\r\n";
  const std::string chunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
  const std::optional<MelSpectrogram> none;
  const std::optional<MelSpectrogram> one = MelSpectrogram{{1}};
  // The reason that curl gives for other faults depends on its version.
  const std::string anyFault = kRequestFile +
                               "[E]curl_easy_perform error: url=" + server.address() +
                               "/api/audioToMelSpec, ";
  const std::string timeout = anyFault + "Timeout was reached";
  const std::string parseError = kPreProcessFile + "[E]parse error";
  const std::string codeError = kPreProcessFile + "[E]code error, code=";
  const std::string noTable = kPreProcessFile + "[E]mel_spec is no array of arrays of numbers";
  // jsoncpp reads such a number as an infinity from version 1.9.6 on; before, it is not JSON.
  const std::string infinite = JSONCPP_VERSION_HEXA < 0x01090600 ? "" : noTable;
  const std::string badMels = kPreProcessFile + "[E]mels out of range:";
  const std::string badSteps = kPreProcessFile + "[E]time_steps out of range:";
  const ServiceCase cases[] = {
      // The connection.
      {"never answers", "", none, timeout, milliseconds(400)},
      {"never answers, default limit", "", none, timeout, milliseconds(30000)},
      {"reset while the request is sent", reset("", 1), none, anyFault},
      {"reset before the headers", reset(""), none,
       anyFault + "Failure when receiving data from the peer"},
      {"reset within the headers", reset("HTTP/1.1 200 OK\r\nConte"), none, anyFault},
      {"reset within the body", reset(ok(good).substr(0, 80)), none, anyFault},
      {"byte by byte", sentSlowly(ok(good), milliseconds(2)), one, ""},
      {"too slow", sentSlowly(ok(good), milliseconds(20)), none, timeout, milliseconds(400)},
      // HTTP.
      {"garbage", "garbage\r\n\r\n", none, anyFault},
      {"status is not a number", "HTTP/1.1 abc OK\r\n\r\n" + good, none, anyFault},
      {"status 404", LoopbackServer::reply("404 Not Found", good), one, ""},
      {"status 500", LoopbackServer::reply("500 Oops", good), one, ""},
      {"status 100 first", "HTTP/1.1 100 Continue\r\n\r\n" + ok(good), one, ""},
      {"a redirect is not followed", redirect, none, ""},
      {"length too short", "HTTP/1.1 200 OK\r\nContent-Length: 20\r\n\r\n" + good, none, ""},
      {"length too long", "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n" + good, none,
       anyFault + "Transferred a partial file"},
      {"length is not a number", "HTTP/1.1 200 OK\r\nContent-Length: -7\r\n\r\n" + good, none,
       anyFault},
      {"no length", "HTTP/1.0 200 OK\r\n\r\n" + good, one, ""},
      {"no length, closed early", "HTTP/1.0 200 OK\r\n\r\n" + good.substr(0, 20), none, ""},
      {"chunks", chunked + "2c\r\n" + good + "\r\n0\r\n\r\n", one, ""},
      {"bad chunks", chunked + "xyz\r\n", none, anyFault},
      {"no last chunk", chunked + "2c\r\n" + good + "\r\n", none, anyFault},
      {"31 MiB", padded("HTTP/1.0 200 OK\r\n\r\n" + good, 31), one, ""},
      {"33 MiB", padded("HTTP/1.0 200 OK\r\n\r\n" + good, 33), none,
       anyFault + "Failed writing received data to disk/application"},
      {"no body", ok(""), none, ""},
      // JSON.
      {"cut JSON", ok(good.substr(0, 30)), none, ""},
      {"not JSON", ok("<html>"), none, ""},
      {"zero bytes", ok(std::string(40, '\0')), none, ""},
      {"zero byte in the message", ok(std::string("{\"msg\": \"\0\"}", 12)), none, parseError},
      {"byte-order mark", ok("\xEF\xBB\xBF" + good), one, ""},
      {"UTF-16", ok(std::string("{\0\"\0c\0", 6)), none, ""},
      {"message in GBK", ok("{\"code\": 1000, \"msg\": \"\xB3\xC9\", \"mel_spec\": [[1]]}"), one,
       ""},
      {"half a surrogate pair", ok(R"({"code": 1000, "msg": "\ud800"})"), none, ""},
      {"nested deeply",
       body(R"(, "mel_spec": )" + std::string(10000, '[') + std::string(10000, ']')), none, ""},
      {"nested deeply without an end", body(R"(, "mel_spec": )" + std::string(2000000, '[')), none,
       ""},
      // The reply.
      {"code is text", ok(R"({"code": "1000", "msg": ""})"), none, parseError},
      {"code too large", ok(R"({"code": 99999999999, "msg": ""})"), none, parseError},
      {"no message", ok(R"({"code": 1000})"), none, parseError},
      {"array", ok(R"([1000])"), none, parseError},
      {"null", ok("null"), none, parseError},
      {"another code", ok(R"({"code": -3, "msg": "no model"})"), none,
       codeError + "-3,msg=no model"},
      {"no spectrogram", body(""), MelSpectrogram(), ""},
      {"spectrogram null", body(R"(, "mel_spec": null)"), MelSpectrogram(), ""},
      {"empty spectrogram", body(R"(, "mel_spec": [])"), MelSpectrogram(), ""},
      {"spectrogram is an object", body(R"(, "mel_spec": {"a": [1]})"), none, noTable},
      {"ragged rows, counts wrong",
       body(R"(, "mels": 9, "time_steps": 1, "mel_spec": [[1, 2], [], [3]])"),
       MelSpectrogram{{1, 2}, {}, {3}}, ""},
      {"fewer rows than announced", body(R"(, "mels": 1000001, "mel_spec": [[1]])"), one, ""},
      {"rows of text", body(R"(, "mel_spec": [["1"]])"), none, noTable},
      {"rows are not arrays", body(R"(, "mel_spec": [1, 2])"), none, noTable},
      {"lowest float as it is printed", body(R"(, "mel_spec": [[-3.4028235e+38]])"),
       MelSpectrogram{{-FLT_MAX}}, ""},
      {"number outside the range of float", body(R"(, "mel_spec": [[1e300]])"), none, noTable},
      {"number outside the range of double", body(R"(, "mel_spec": [[1e400]])"), none, infinite},
      {"max mels", body(R"(, "mels": 16777216, "mel_spec": [[1]])"), one, ""},
      {"one more than max mels", body(R"(, "mels": 16777217, "mel_spec": [])"), none,
       badMels + "16777217"},
      {"negative mels", body(R"(, "mels": -1, "mel_spec": [])"), none, badMels + "-1"},
      {"huge mels", body(R"(, "mels": 2000000000, "mel_spec": [])"), none, badMels + "2000000000"},
      {"mels is text", body(R"(, "mels": "2", "mel_spec": [])"), none, badMels + "2"},
      {"mels is a list", body(R"(, "mels": [1], "mel_spec": [])"), none, badMels + "no number"},
      {"huge steps", body(R"(, "time_steps": 99999999999, "mel_spec": [])"), none,
       badSteps + "99999999999"},
  };
  // verify/service runs only the long cases.
  const bool runsLongCases = std::getenv("TOL_LONG_TESTS") != nullptr;
  const std::vector<std::uint8_t> pcm(10, 1);
  int count = 0;
  for (const ServiceCase& c : cases) {
    if ((c.limit > kShortLimit) != runsLongCases) continue;
#if defined(_WIN32)
    if (c.answer.resets) continue;  // Wine ends the connection without a reset
#endif
    SCOPED_TRACE(c.name);
    server.setAnswer(c.answer);
    MelSpectrogram matrix = {{7}};
    LogCapture log;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(AudioToMelSpec(server.address(), audioFrame(pcm), matrix, c.limit), c.rows ? 1 : 0);
    const auto taken = std::chrono::steady_clock::now() - start;
    EXPECT_LT(taken, c.limit + std::chrono::seconds(1));
    Texts lines = log.takeLines();
    lines.resize(std::max<std::size_t>(lines.size(), 1));
    EXPECT_EQ(lines.size(), 1U);
    const std::string& line = lines[0];
    // curl counts whole milliseconds.
    EXPECT_FALSE(line.ends_with("Timeout was reached") && taken + milliseconds(10) < c.limit);
    EXPECT_EQ(c.line == anyFault ? line.substr(0, anyFault.size()) : line, c.line);
    MelSpectrogram expected = {{7}};
    if (c.rows) expected.insert(expected.end(), c.rows->begin(), c.rows->end());
    EXPECT_EQ(matrix, expected);
    ++count;
  }
  if (runsLongCases) {
    std::cout << "long cases: " << count << std::endl;
    return;
  }
  // A large request is sent without waiting for "100 Continue".
  server.setAnswer(LoopbackServer::ok(good));
  const std::vector<std::uint8_t> large(std::size_t{3} << 20, 1);
  MelSpectrogram matrix;
  EXPECT_EQ(AudioToMelSpec(server.address(), audioFrame(large), matrix), 1);
  EXPECT_GT(server.lastRequest().size(), std::size_t{4} << 20);
}

/// Each reply below with random changes: what the fast path accepts, jsoncpp reads to the same
/// bits.
TEST(ParsePlainReply, ReturnsWhatJsoncppReturns) {
  const std::string replies[] = {
      R"({"code":1000,"msg":"\u6210\n","mels":2,"time_steps":3,"mel_spec":[[1.5,-2e-3,0],[]]})",
      R"({ "msg" : "fine", "mel_spec" : [ [ 1E5, -0, -0.0 ], [ 0.1 ] ], "code" : 1000 })",
      R"({"x":[{"y":null}],"code":1000,"msg":"","mel_spec":[[3.4028234e38,1e-45,16777217]]})",
      R"({"code":1000,"msg":"","mel_spec":[[9223372036854775808,-9223372036854775808,5e-324]]})",
      R"({"mel_spec":[[1152921573326323713,0.3333333432674407958984375,1e-400]],"msg":"","code":1000})"};
  const std::string pieces[] = {",",
                                "[",
                                "]",
                                "{",
                                "}",
                                ":",
                                "\"",
                                "\\",
                                "/*a*/",
                                "//",
                                " ",
                                "\n",
                                "0",
                                "9",
                                "-",
                                ".",
                                "e",
                                "E+",
                                "null",
                                "NaN",
                                "+",
                                "\x80",
                                "true",
                                "1e9",
                                "\\u",
                                "d8",
                                "99999999",
                                "code",
                                "1000.0",
                                std::string(1, '\0'),
                                "\"code\":1000,",
                                "\"mel_spec\":[[2]],",
                                "\t"};
  std::mt19937 random(1);
  const auto below = [&random](std::size_t end) { return random() % end; };
  int plainCount = 0;
  for (int i = 0; i < 40000; ++i) {
    std::string text = replies[below(std::size(replies))];
    for (std::size_t changes = below(4); changes > 0; --changes) {
      text.replace(below(text.size() + 1), below(4), pieces[below(std::size(pieces))]);
    }
    const auto plain = parsePlainReply(text);
    if (!plain) continue;
    ++plainCount;
    LogCapture log;
    const auto rows = parseAnyReply(text);
    ASSERT_TRUE(rows && std::ranges::equal(*rows, *plain, haveSameBits)) << text;
    EXPECT_EQ(log.takeTexts(), Texts{});
  }
  EXPECT_GT(plainCount, 10000);
  for (const std::string& text : replies) EXPECT_TRUE(parsePlainReply(text)) << text;
}

TEST(ParseSpectrogram, LimitsValues) {
  const auto reply = [](std::size_t count, const std::string& before) {
    std::string text = R"({"code":1000,"msg":"","mel_spec":[[1)";
    for (std::size_t i = 1; i < count; ++i) text += ",1";
    return before + text + "]]}";
  };
  constexpr std::size_t kOther = 7;    // commas and closing brackets outside the row, and one
  const std::string comment = "/**/";  // jsoncpp skips it, the fast path does not
  for (const auto& [count, before] :
       {std::pair(std::size_t{1} << 20, comment), std::pair(std::size_t{1} << 22, std::string())}) {
    LogCapture log;
    const auto rows = parseSpectrogram(reply(count - kOther + 2, before));
    ASSERT_TRUE(rows);
    EXPECT_EQ(rows->at(0).size(), count - kOther + 2);
    EXPECT_EQ(log.takeTexts(), Texts{});
    const std::string tooLong = reply(count - kOther + 3, before);
    EXPECT_FALSE(parseSpectrogram(tooLong));
    EXPECT_EQ(log.takeTexts(),
              Texts{"[E]reply takes too much memory,bytes=" + std::to_string(tooLong.size())});
  }
}

TEST(PostJson, LogsWhyTransferFailed) {
  for (const std::string& url :
       {std::string("http://127.0.0.1:1"), "nonsense://" + std::string(20000, 'x')}) {
    std::string response = "kept";
    LogCapture log;
    EXPECT_FALSE(PostJson(url, "{}", response));
    EXPECT_EQ(response, "kept");
    const Texts lines = log.takeLines();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_TRUE(
        lines[0].starts_with(kRequestFile + "[E]curl_easy_perform error: url=" + url + ", "));
    const std::string reason = curl_easy_strerror(CURLE_COULDNT_CONNECT);
    EXPECT_TRUE(url.size() > 100 || lines[0].ends_with(", " + reason)) << lines[0];
  }
}

/// The result of a run of the audio classifier.
struct Outcome {
  bool succeeded = true;
  std::optional<float> score = {};  ///< nullopt: the block was not classified.
  Texts objects = {};               ///< Appended to the audio objects.
  Texts lines = {};

  bool operator==(const Outcome&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Outcome& outcome) {
  out << "succeeded " << outcome.succeeded << " score " << outcome.score.value_or(kNan);
  for (const Texts& texts : {outcome.objects, outcome.lines}) {
    for (const std::string& text : texts) out << "\n" << text;
  }
  return out;
}
Outcome failure(const std::string& line) {
  return {.succeeded = false, .lines = {line}};
}

/// The service on the port that the audio classifier calls, and a model whose network returns the
/// given scores, or without scores one plane of its input.
struct AudioFixture {
  explicit AudioFixture(const std::vector<float>& scores, int plane = 0)
      : server(LoopbackServer::ok(spectrogram("[[1, 2, 3], [4, 5, 6]]")), 9555),
        model("Classify", "AudioNet", writeNetwork({1, 3, 2, 3}, [&](const Value& input) {
                return Values{scores.empty() ? reshaped(sliced(input, 1, plane, plane + 1), {1, -1})
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
  /// Runs the model on a copy of the frame that has one audio object.
  Outcome run() {
    VsaFrame given = frame;
    given.audioObjects = {boxObject(0, 0, 1, 1, "before")};
    LogCapture log;
    Outcome outcome;
    outcome.succeeded = model.run(&given);
    outcome.lines = log.takeLines();
    EXPECT_TRUE(given.objects.empty());
    EXPECT_EQ(given.audioObjects.at(0).className, "before");
    given.audioObjects.erase(given.audioObjects.begin());
    outcome.objects = describe(given.audioObjects);
    if (given.audioClassified) outcome.score = given.audioScore;
    EXPECT_TRUE(given.audioClassified || (outcome.objects.empty() && given.audioScore == 0.0F));
    return outcome;
  }
  /// The same for a reply with these rows.
  Outcome runOn(const std::string& rows) {
    server.setAnswer(LoopbackServer::ok(spectrogram(rows)));
    return run();
  }

  LoopbackServer server;
  std::vector<std::uint8_t> pcm{1, 2, 3, 4};
  TestModel model;
  VsaFrame frame;
};

TEST(OvClassifyAudioNet, ReportsBestClassOfBlock) {
  AudioFixture fixture({1, 3, -8});
  EXPECT_EQ(fixture.run(),
            (Outcome{.score = 0.75F, .objects = {"siren 1 0.75: 320,240 320,240 of 641x480"}}));
  // A block without an image is classified, but has no object.
  for (std::uint32_t* side : {&fixture.frame.width, &fixture.frame.height}) {
    const std::uint32_t length = std::exchange(*side, 0);
    EXPECT_EQ(fixture.run(), Outcome{.score = 0.75F});
    *side = length;
  }
  fixture.frame.wantedLabels = {"bark"};
  EXPECT_EQ(fixture.run(), Outcome{});
  fixture.frame.wantedLabels = {"siren"};
  fixture.model.config.scoreThreshold = 0.75F;  // equal to the score
  EXPECT_EQ(fixture.run().score, 0.75F);
  fixture.model.config.scoreThreshold = 0.8F;
  EXPECT_EQ(fixture.run(), Outcome{});

  const int requests = fixture.server.requestCount();
  fixture.frame.kind = kVsaImageFrame;
  EXPECT_EQ(fixture.run(), Outcome{.succeeded = false});
  LogCapture log;
  EXPECT_FALSE(fixture.model.run(nullptr));
  EXPECT_EQ(log.takeLines(), Texts{kAudioNetFile + "[E]frame is null"});
  EXPECT_EQ(fixture.server.requestCount(), requests);
}

TEST(OvClassifyAudioNet, ChecksShapesOfRowsAndScores) {
  AudioFixture fixture({1, 3, -8});
  const std::pair<const char*, std::string> refused[] = {
      {"[[1, 2, 3]]", kAudioNetFile + "[E]mels error:1"},
      {"[]", kAudioNetFile + "[E]mels error:0"},
      {"[[1, 2], [4, 5, 6]]", kAudioNetFile + "[E]time_steps error:2"},
      {"null", kAudioNetFile + "[E]mels error:0"},
      {"7", kPreProcessFile + "[E]mel_spec is no array of arrays of numbers"},
  };
  for (const auto& [rows, line] : refused) EXPECT_EQ(fixture.runOn(rows), failure(line)) << rows;
  EXPECT_EQ(fixture.runOn("[[1, 2, 3], [1, 2, 3, 4, 5, 6, 7, 8, 9, 10]]").score, 0.75F);
  EXPECT_EQ(fixture.runOn("[[1, 2, 3], []]").score, 0.75F);
  fixture.model.config.classCount = 4;
  EXPECT_EQ(fixture.run(),
            failure(kAudioNetFile + "[E]network output is f32[1,3],expected f32 of at least 4"));
}

TEST(OvClassifyAudioNet, FillsEachPlaneWithRowsAndZeros) {
  for (int plane = 0; plane < 3; ++plane) {
    AudioFixture fixture({}, plane);
    fixture.model.setClasses({"a", "b", "c", "d", "e", "f"});
    fixture.frame.wantedLabels = {"c"};
    fixture.model.config.scoreThreshold = 0.0F;
    const std::pair<const char*, float> cases[] = {
        {"[[1, 2, 9], [4, 5, 6]]", 9.0F / 27.0F},
        {"[[1, 2, 9], [4]]", 9.0F / 16.0F},  // the rest is 0, not the values of the previous block
        {"[[1, 2, 9], [4, 5, 6, 100]]", 9.0F / 27.0F},  // values past the plane are left out
    };
    for (const auto& [rows, score] : cases) EXPECT_EQ(fixture.runOn(rows).score, score) << rows;
  }
}

TEST(OvClassifyAudioNet, KeepsLengthOfEachRow) {
  LoopbackServer server(
      LoopbackServer::ok(AudioFixture::spectrogram("[[1, 1], [1, 1, 1, 8], [1, 1]]")), 9555);
  TestModel model("Classify", "AudioNet", writeNetwork({1, 3, 3, 2}, [](const Value& input) {
                    return Values{reshaped(sliced(input, 1, 0, 1), {1, -1})};
                  }));
  model.setInput(2, 3);
  model.setClasses({"a", "b", "c", "d", "e", "f"});
  ASSERT_TRUE(model.init());
  const std::vector<std::uint8_t> pcm(4, 1);
  VsaFrame frame = audioFrame(pcm);
  frame.wantedLabels = {"f"};
  EXPECT_TRUE(model.run(&frame));
  EXPECT_EQ(frame.audioScore, 8.0F / 13.0F);  // the sixth value is the last one of the longer row
}

}  // namespace
