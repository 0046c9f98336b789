// Lets every allocation made while the model of each row of the table is opened, run and released
// fail, one at a time, with stand-ins for the engines. After each failure: the call has thrown an
// exception that a host expects or returned false, the frame is unchanged, no memory is leaked, and
// the next call returns the same results as without the failure.
//
// Usage: Allocations [SECONDS]
// All rows take a few seconds; after SECONDS no further row is started.

#include <curl/curl.h>
#include <dlfcn.h>
#include <glog/logging.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iostream>
#include <new>
#include <utility>

#include "support/Families.h"
#include "support/LoopbackServer.h"
#include "support/TestHost.h"
#include "verify/fakes/FakeEngines.h"

FakeNetwork fakeNetwork;
InputChecksum inputChecksum;
bool hasOldOnnxRuntime = false;
int apiRequests = 0;

std::shared_ptr<const FakeNetwork> findFakeNetwork(const std::string& /*file*/) {
  return {std::shared_ptr<void>(), &fakeNetwork};  // not owned
}
bool hasFakeDevice(const std::string& /*name*/) {
  return true;
}

// The C library's own functions. The functions below replace malloc() and others for the program
// and all its libraries, and call these. NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" void* __libc_memalign(std::size_t alignment, std::size_t size);
extern "C" void* __libc_realloc(void* memory, std::size_t size);
extern "C" void __libc_free(void* memory);
// NOLINTEND(bugprone-reserved-identifier)

namespace {

/// Allocations of the thread. Zero-initialised, so that it can be used before any constructor ran.
struct Memory {
  bool isWatched;   // within a call of the library
  int engineDepth;  // above 0 within an engine
  long count;       // number of watched allocations
  long failing;     // number of the allocation that fails, from 1; 0 for none
  long live;        // number of all blocks that are not freed yet
  bool isMatrix;    // the failed allocation was OpenCV's own record of a matrix
  // The failed allocation was made by a stream of the standard library, which catches the
  // exception.
  bool isStream;
};
thread_local constinit Memory memory{};

bool mayAllocate() {
  return !memory.isWatched || memory.engineDepth > 0 || ++memory.count != memory.failing;
}

void* allocate(std::size_t size, std::size_t alignment = alignof(std::max_align_t)) {
  void* const block = mayAllocate() ? __libc_memalign(alignment, size) : nullptr;
  if (block == nullptr) return nullptr;
  ++memory.live;
  // Filled with a pattern, so that reading memory before it is written changes the results.
  std::memset(block, 0x5A, size);
  return block;
}

}  // namespace

EngineMemory::EngineMemory() {
  ++memory.engineDepth;
}
EngineMemory::~EngineMemory() {
  --memory.engineDepth;
}

extern "C" {
void* malloc(std::size_t size) {
  return allocate(size);
}
void* calloc(std::size_t count, std::size_t size) {
  void* const block = allocate(count * size);
  if (block != nullptr) std::memset(block, 0, count * size);
  return block;
}
void* realloc(void* old, std::size_t size) {
  if (old == nullptr) return allocate(size);
  return mayAllocate() ? __libc_realloc(old, size) : nullptr;
}
void* memalign(std::size_t alignment, std::size_t size) {
  return allocate(size, alignment);
}
void* aligned_alloc(std::size_t alignment, std::size_t size) {
  return allocate(size, alignment);
}
int posix_memalign(void** block, std::size_t alignment, std::size_t size) {
  *block = allocate(size, alignment);
  return *block == nullptr ? ENOMEM : 0;
}
void free(void* block) {
  if (block != nullptr) --memory.live;
  __libc_free(block);
}
}

// The forms for arrays, with a size and without exceptions call these.
void* operator new(std::size_t size) {
  void* const block = allocate(size);
  if (block != nullptr) return block;
  Dl_info caller;
  const bool isKnown = dladdr(__builtin_return_address(0), &caller) != 0;
  memory.isMatrix = isKnown && size == sizeof(cv::UMatData) &&
                    std::strstr(caller.dli_fname, "libopencv_core") != nullptr;
  memory.isStream = isKnown && std::strstr(caller.dli_fname, "libstdc++") != nullptr;
  throw std::bad_alloc();
}
void* operator new(std::size_t size, std::align_val_t alignment) {
  void* const block = allocate(size, static_cast<std::size_t>(alignment));
  return block != nullptr ? block : throw std::bad_alloc();
}
void operator delete(void* block) noexcept {
  free(block);
}
void operator delete(void* block, std::size_t) noexcept {
  free(block);
}
void operator delete(void* block, std::align_val_t) noexcept {
  free(block);
}

namespace {

// Too long for a string's internal buffer, so that copying them allocates memory.
const std::string kFirst = "the first class of the host";
const std::string kSecond = "the second class of the host";

/// A row of the table, with a network that the model accepts.
struct Row {
  std::string engine, category, modelName;
  FakeNetwork network;
  std::vector<std::string> classNames = {kFirst, kSecond};
};

std::vector<float> repeated(const std::vector<float>& pattern, std::size_t count) {
  std::vector<float> numbers(count);
  for (std::size_t i = 0; i < count; ++i) numbers[i] = pattern[i % pattern.size()];
  return numbers;
}

std::vector<Row> rows() {
  const std::vector<std::int64_t> image = {1, 3, 32, 32};
  // Two boxes that do not overlap and one that overlaps the first; one column or row for each.
  const FakeTensor yolo8{{1, 6, 3},
                         {8, 24, 9, 8, 24, 9, 8, 8, 8, 8, 8, 8, .9F, .1F, .7F, .1F, .8F, .1F}};
  const FakeTensor yolo5{{1, 3, 7}, {8,   8,   8,   8, .9F, .9F, .1F, 24,  24,  8,  8,
                                     .8F, .1F, .9F, 9, 9,   8,   8,   .7F, .9F, .1F}};
  const FakeTensor yolo26{{1, 2, 6}, {2, 2, 9, 9, .9F, 0, 12, 12, 30, 30, .8F, 1}};
  FakeTensor obb = yolo8, pose = yolo8, seg = yolo8;
  obb.shape[1] = 7;
  obb.numbers.resize(21, 0.5F);
  pose.shape[1] = 11;  // two key points
  pose.numbers.resize(33, 5);
  pose.numbers[13] = 0.8F;  // two objects
  seg.shape[1] = 38;
  seg.numbers.resize(114, 0.25F);
  FakeTensor text{{1, 1, 32, 32}, std::vector<float>(1024)};
  for (int y = 8; y < 16; ++y) std::fill_n(text.numbers.begin() + y * 32 + 4, 20, 1.0F);
  const FakeTensor scores{{1, 2}, {1, 3}};
  const FakeTensor steps{{1, 8, 3}, repeated({0, 1, 0, 0, 0, 1, 1, 0, 0}, 24)};
  const FakeTensor numbers{{1, 256}, repeated({1, -2, 3}, 256)};
  const std::string ov = "OpenVINO", ort = "ONNXRuntime";
  return {
      {ov, "Detect", "YOLO26", {image, false, {yolo26}}},
      {ov, "Detect", "YOLO8", {image, false, {yolo8}}},
      {ov, "Detect", "YOLO8-POSE", {image, false, {pose}}},
      {ov, "Detect", "YOLO8-OBB", {image, false, {obb}}},
      {ov,
       "Detect",
       "YOLO8-Seg",
       {image, false, {seg, {{1, 32, 8, 8}, repeated({1, 2, 3}, 2048)}}}},
      {ov, "Detect", "YOLO5", {{1, 32, 32, 3}, true, {yolo5}}},
      {ov, "Detect", "PaddleOCR", {image, false, {text}}},
      {ov, "Classify", "ResNet", {image, false, {scores}}},
      {ov, "Classify", "AudioNet", {{1, 3, 2, 2}, false, {scores}}},
      {ov, "Track", "DeepSort", {image, false, {numbers}}},
      {ov, "Track", "PaddleOCR", {image, false, {steps}}, {"blank", kFirst, kSecond}},
      {ov, "Track", "VsFaceNet", {image, false, {numbers}}},
      {ov, "Track", "VsOCR", {image, false, {steps}}, {"blank", kFirst, kSecond}},
      {ort, "Detect", "YOLO5", {image, false, {yolo5}}},
      {ort, "Detect", "YOLO8", {image, false, {yolo8}}},
      {ort, "Detect", "YOLO26", {image, false, {yolo26}}},
      {"TensorRT", "Detect", "YOLO8", {image, false, {yolo8}}},
  };
}

/// The outcome of a watched call.
struct CallOutcome {
  bool done = false;        // returned true
  std::string thrown;       // message of the exception; empty for none
  bool isExpected = true;   // the exception, if any, is one that a host expects
  long count = 0;           // number of allocations
  long lines = 0;           // number of "[E]" lines
  std::uint64_t input = 0;  // checksum of the engine's input
};

/// Counts "[E]" lines without allocating.
class ErrorCounter : public google::LogSink {
 public:
  void send(google::LogSeverity, const char*, const char*, int, const google::LogMessageTime&,
            const char* message, std::size_t length) override {
    if (length >= 3 && std::memcmp(message, "[E]", 3) == 0) ++count;
  }
  long count = 0;
};
ErrorCounter errors;

long failures = 0;
long faults = 0;
long leakedByOpenCv =
    0;                 // cv::Mat leaks its pixels if the record that owns them cannot be allocated
std::string location;  // row and step, for the messages about faults
long current = 0;      // number of the allocation that fails

void require(bool condition, const std::string& what) {
  if (condition) return;
  if (++faults > 40) return;
  std::cout << location << ", allocation " << current << ": " << what << std::endl;
}

/// Makes a call in which allocation number `failing` fails; 0 for none.
CallOutcome callWatched(long failing, const std::function<bool()>& call) {
  CallOutcome end;
  const long linesBefore = errors.count;
  inputChecksum.reset();
  memory.count = 0;
  memory.failing = failing;
  memory.isWatched = true;
  try {
    end.done = call();
    memory.isWatched = false;
  } catch (const std::exception& error) {
    memory.isWatched = false;
    end.thrown = error.what();
    const auto* const byOpenCv = dynamic_cast<const cv::Exception*>(&error);
    end.isExpected = byOpenCv != nullptr ? byOpenCv->code == cv::Error::StsNoMem
                                         : dynamic_cast<const std::bad_alloc*>(&error) != nullptr;
  }
  end.count = memory.count;
  end.lines = errors.count - linesBefore;
  end.input = inputChecksum.value();
  return end;
}

/// A model of the row, not opened yet.
struct RowModel : TestModel {
  explicit RowModel(const Row& row)
      : TestModel(row.category, row.modelName, "a folder with a long name") {
    config.engine = row.engine;
    config.device = "a device with a long name";
    config.modelFile = "a model file with a long name";
    setClasses(row.classNames);
    config.classCount = 2;
    config.scoreThreshold = 0.3F;
    const std::uint32_t side = row.modelName == "AudioNet" ? 2 : 32;
    setInput(side, side);
  }
};

class RowCheck {
 public:
  RowCheck(const Row& row, LoopbackServer& server)
      : row_(row),
        server_(server),
        // Wider than high, so that there is padding.
        image_(randomImage(32, 20)),
        otherImage_(randomImage(32, 20, /*seed=*/2)),
        fresh_(makeFrame(image_)),
        other_(makeFrame(otherImage_)) {}

  void run() {
    for (const bool isGood : {true, false}) {
      fakeNetwork = row_.network;
      if (!isGood)
        fakeNetwork.outputs = {{{1}, {0.0F}}};  // the output of a network of another family
      // In the first round, tables that are built once do not exist yet, and there are no results
      // to compare with.
      for (const bool isFirst : {true, false}) {
        location = row_.engine + " " + row_.category + " " + row_.modelName +
                   (isGood ? "" : ", rejected network") + (isFirst ? ", first round" : "");
        checkInit(isFirst);
        if (isFirst) {
          checkFirstRuns();
        } else {
          checkRuns(isGood);
        }
        checkRelease(isFirst);
      }
    }
  }

 private:
  VsaFrame makeFrame(cv::Mat& image) const {
    VsaFrame frame = frameOf(image, {kFirst, kSecond});
    frame.wantedLabels = frame.wantedClasses;
    if (row_.category != "Detect") {
      frame.objects = {VsaObject(32, 20, 1, 1, 20, 9, 0.5F, 0, kFirst),
                       VsaObject(32, 20, 5, 5, 31, 20, 0.5F, 1, kSecond)};
    }
    if (row_.modelName == "AudioNet") {
      frame.kind = kVsaAudioFrame;
      frame.audioData = image.data;
      frame.audioFrameSize = 32 * 20 * 3;
    }
    return frame;
  }

  static CallOutcome runOn(TestModel& model, VsaFrame& frame, long failing) {
    return callWatched(failing, [&] { return model.run(&frame); });
  }

  /// Number of "[E]" lines of a rejected call. A context without a model rejects calls silently.
  long expectedErrorLines() const { return row_.engine == "TensorRT" ? 0 : 1; }

  /// Everything in which two runs on a frame can differ.
  struct RunResult {
    bool done = false;
    std::string results;
    std::uint64_t input = 0;
    bool operator==(const RunResult&) const = default;
  };
  RunResult resultOf(TestModel& model, VsaFrame frame) const {
    const CallOutcome end = runOn(model, frame, 0);
    require(end.thrown.empty(), "a run without a failing allocation throws " + end.thrown);
    require(end.done || end.lines == expectedErrorLines(),
            std::to_string(end.lines) + " error lines");
    return {end.done, bytesOf(frame), end.input};
  }

  /// Calls `attempt` with 0 (except in the first round) and then with 1, 2, 3 and so on, the number
  /// of the allocation that fails, until it returns false because there is no such allocation.
  template <class Attempt>
  static void forEachAllocation(bool isFirst, const char* step, Attempt attempt) {
    const std::string row = std::exchange(location, location + ", " + step);
    if (!isFirst) attempt(0);
    for (current = 1;; ++current) {
      const long before = memory.live;
      memory.isMatrix = memory.isStream = false;
      if (!attempt(current)) break;
      ++failures;
      if (isFirst) continue;
      const long leaked = memory.live - before;
      if (memory.isMatrix && leaked == 1) {
        ++leakedByOpenCv;
      } else if (memory.isStream && leaked == 1) {
        // jsoncpp keeps one block if its stream has no memory to read a number.
      } else {
        require(leaked == 0, std::to_string(leaked) + " blocks leaked");
      }
    }
    location = row;
  }

  void checkInit(bool isFirst) {
    bool expected = false;
    forEachAllocation(isFirst, "init", [&](long n) {
      RowModel model(row_);
      const CallOutcome end = callWatched(n, [&] { return model.init(); });
      if (n == 0) expected = end.done;
      require(end.isExpected, "an exception that no host expects: " + end.thrown);
      VsaModelRelease(&model.context);
      const CallOutcome again = callWatched(0, [&] { return model.init(); });
      require(again.thrown.empty() && (isFirst || again.done == expected),
              "the next call has another outcome");
      return end.count >= n;
    });
  }

  /// In the first round, one model makes all runs: tables that are built once do not exist yet, and
  /// a failure while they are built must not change the results of the first run that succeeds.
  void checkFirstRuns() {
    RowModel model(row_);
    model.init();
    forEachAllocation(true, "run", [&](long n) {
      VsaFrame frame = fresh_;
      const CallOutcome end = runOn(model, frame, n);
      require(end.isExpected, "an exception that no host expects: " + end.thrown);
      return end.count >= n;
    });
    afterFirst_ = resultOf(model, other_);
  }

  /// For each allocation, makes a new model whose first run fails, and then runs that model on a
  /// different frame of the same size, and on the same frame again.
  void checkRuns(bool isGood) {
    RowModel untouched(row_);
    untouched.init();
    const RunResult other = resultOf(untouched, other_);
    const RunResult expected = resultOf(untouched, fresh_);
    const std::string request = server_.lastRequest();
    const std::string before = bytesOf(fresh_);
    require(!isGood || row_.engine == "TensorRT" || expected.results != before, "no results");
    require(afterFirst_ == other, "the run after the failures of the first round differs");
    forEachAllocation(false, "run", [&](long n) {
      RowModel model(row_);
      model.init();
      VsaFrame frame = fresh_;
      const CallOutcome end = runOn(model, frame, n);
      require(end.isExpected, "an exception that no host expects: " + end.thrown);
      if (!end.done) {
        require(bytesOf(frame) == before, "a call that failed changed the frame");
        // There may be no line if the allocation for the line about a rejected network failed, or
        // if jsoncpp's stream had no memory: jsoncpp then reports that the reply is not JSON.
        require(
            !end.thrown.empty() || end.lines == expectedErrorLines() || !isGood || memory.isStream,
            std::to_string(end.lines) + " error lines");
      } else {
        // The call does not need this allocation; it may have been made for a log line.
        require(RunResult{true, bytesOf(frame), end.input} == expected, "different results");
        require(server_.lastRequest() == request, "a different request");
      }
      require(resultOf(model, other_) == other, "the next run, on a different frame, differs");
      require(resultOf(model, fresh_) == expected, "the next run on the same frame differs");
      return end.count >= n;
    });
  }

  void checkRelease(bool isFirst) {
    forEachAllocation(isFirst, "release", [&](long n) {
      RowModel model(row_);
      model.init();
      const CallOutcome end = callWatched(n, [&] {
        VsaModelRelease(&model.context);
        return true;
      });
      require(end.done && model.context.models == nullptr, "not released: " + end.thrown);
      model.init();
      // Restores the time-zone data, which the C library may have freed when an allocation failed.
      VsaModelRelease(&model.context);
      return end.count >= n;
    });
  }

  const Row& row_;
  LoopbackServer& server_;
  cv::Mat image_, otherImage_;
  VsaFrame fresh_, other_;
  RunResult afterFirst_;
};

/// The version of ONNX Runtime is checked when the first model is opened; one that is too old leads
/// to an exception.
void checkOldOnnxRuntime(const Row& row) {
  location = "old ONNX Runtime";
  require(apiRequests == 0, "the function table was requested when the program was loaded");
  fakeNetwork = row.network;
  hasOldOnnxRuntime = true;
  for (int i = 0; i < 2; ++i) {
    RowModel model(row);
    std::string thrown;
    try {
      model.init();
    } catch (const std::exception& error) {
      thrown = error.what();
    }
    require(thrown == "ONNX Runtime 0.1 is older than this library needs",
            "VsaModelInit throws " + thrown);
    require(model.context.models == nullptr, "the context has models");
  }
  hasOldOnnxRuntime = false;
  require(RowModel(row).init(), "the next model is not opened");
}

}  // namespace

int main(int argc, char** argv) {
  const auto start = std::chrono::steady_clock::now();
  const std::chrono::duration<double> limit(argc > 1 ? std::atof(argv[1]) : 1e9);
  google::InitGoogleLogging(argv[0]);
  google::SetStderrLogging(google::GLOG_FATAL);
  for (const auto severity :
       {google::GLOG_INFO, google::GLOG_WARNING, google::GLOG_ERROR, google::GLOG_FATAL})
    google::SetLogDestination(severity, "");
  // OpenSSL 3.5 hangs if an allocation fails while it is initialised, so this is done before.
  curl_global_init(CURL_GLOBAL_DEFAULT);
  // A request sent to a proxy would differ.
  setenv("http_proxy", "http://127.0.0.1:9555", 1);
  LoopbackServer server(
      LoopbackServer::ok(R"({"code": 1000, "msg": "", "mel_spec": [[1, 0.5], [2, 3]]})"), 9555);
  google::AddLogSink(&errors);
  const std::vector<Row> all = rows();
  checkOldOnnxRuntime(*std::ranges::find(all, std::string("ONNXRuntime"), &Row::engine));
  for (const Family& family : families()) {
    const bool isChecked = std::ranges::any_of(all, [&](const Row& row) {
      return row.engine == family.engine && row.category == family.category &&
             row.modelName == family.name;
    });
    require(isChecked, "no row for " + titleOf(family));
  }
  std::size_t checked = 0;
  for (const Row& row : all) {
    if (std::chrono::steady_clock::now() - start > limit) break;
    RowCheck(row, server).run();
    ++checked;
  }
  std::cout << "allocations: " << failures << " failed allocations over " << checked << " rows, "
            << faults << " faults (" << leakedByOpenCv << " matrices leaked inside OpenCV)"
            << std::endl;
  // Each row has about two hundred allocations; far fewer would mean that they were not counted.
  return faults == 0 && checked > 0 && failures > 50 * static_cast<long>(checked) ? 0 : 1;
}
