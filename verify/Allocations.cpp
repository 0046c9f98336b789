// Fails every allocation that is made while a model of each row of the table is opened, run and
// released, one at a time, with stand-ins for the engines. After each one: the call threw something
// that a host expects or returned false, the frame is as it was, nothing is lost, and the next call
// gives what it gave before.
//
// Usage: Allocations [SECONDS]    the whole takes a few seconds; after SECONDS no further row is
// begun

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

// The C library's own functions, behind those that are replaced below for the program and all
// libraries in it. NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" void* __libc_memalign(std::size_t alignment, std::size_t size);
extern "C" void* __libc_realloc(void* memory, std::size_t size);
extern "C" void __libc_free(void* memory);
// NOLINTEND(bugprone-reserved-identifier)

namespace {

/// What the thread allocates. Zero-initialised, so that it can be used before anything ran.
struct Memory {
  bool isWatched;   // within a call of the library
  int engineDepth;  // above 0 within an engine
  long count;       // allocations watched
  long failing;     // which one of them fails; 0 for none
  long live;        // blocks that are not freed yet, of any origin
  bool isMatrix;    // the failed one was OpenCV's own record of a matrix
  bool isStream;  // the failed one was within a stream of the standard library, which catches what
                  // is thrown
};
thread_local constinit Memory memory{};

bool mayAllocate() {
  return !memory.isWatched || memory.engineDepth > 0 || ++memory.count != memory.failing;
}

void* allocate(std::size_t size, std::size_t alignment = alignof(std::max_align_t)) {
  void* const block = mayAllocate() ? __libc_memalign(alignment, size) : nullptr;
  if (block == nullptr) return nullptr;
  ++memory.live;
  // Fresh memory holds nothing in particular; what reads it before it is written gives other
  // results.
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

// The forms for arrays, with a size and without exceptions are built on these.
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

// Longer than what a string holds without memory of its own.
const std::string kFirst = "the first class of the host";
const std::string kSecond = "the second class of the host";

/// A row of the table, with a network that it takes.
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
  const std::vector<std::int64_t> picture = {1, 3, 32, 32};
  // Two boxes apart and one that overlaps the first: a column or a row for each.
  const FakeOutput yolo8{{1, 6, 3},
                         {8, 24, 9, 8, 24, 9, 8, 8, 8, 8, 8, 8, .9F, .1F, .7F, .1F, .8F, .1F}};
  const FakeOutput yolo5{{1, 3, 7}, {8,   8,   8,   8, .9F, .9F, .1F, 24,  24,  8,  8,
                                     .8F, .1F, .9F, 9, 9,   8,   8,   .7F, .9F, .1F}};
  const FakeOutput yolo26{{1, 2, 6}, {2, 2, 9, 9, .9F, 0, 12, 12, 30, 30, .8F, 1}};
  FakeOutput obb = yolo8, pose = yolo8, seg = yolo8;
  obb.shape[1] = 7;
  obb.numbers.resize(21, 0.5F);
  pose.shape[1] = 11;  // two key points
  pose.numbers.resize(33, 5);
  pose.numbers[13] = 0.8F;  // two objects
  seg.shape[1] = 38;
  seg.numbers.resize(114, 0.25F);
  FakeOutput text{{1, 1, 32, 32}, std::vector<float>(1024)};
  for (int y = 8; y < 16; ++y) std::fill_n(text.numbers.begin() + y * 32 + 4, 20, 1.0F);
  const FakeOutput scores{{1, 2}, {1, 3}};
  const FakeOutput steps{{1, 8, 3}, repeated({0, 1, 0, 0, 0, 1, 1, 0, 0}, 24)};
  const FakeOutput numbers{{1, 256}, repeated({1, -2, 3}, 256)};
  const std::string ov = "OpenVINO", ort = "ONNXRuntime";
  return {
      {ov, "Detect", "YOLO26", {picture, false, {yolo26}}},
      {ov, "Detect", "YOLO8", {picture, false, {yolo8}}},
      {ov, "Detect", "YOLO8-POSE", {picture, false, {pose}}},
      {ov, "Detect", "YOLO8-OBB", {picture, false, {obb}}},
      {ov,
       "Detect",
       "YOLO8-Seg",
       {picture, false, {seg, {{1, 32, 8, 8}, repeated({1, 2, 3}, 2048)}}}},
      {ov, "Detect", "YOLO5", {{1, 32, 32, 3}, true, {yolo5}}},
      {ov, "Detect", "PaddleOCR", {picture, false, {text}}},
      {ov, "Classify", "ResNet", {picture, false, {scores}}},
      {ov, "Classify", "AudioNet", {{1, 3, 2, 2}, false, {scores}}},
      {ov, "Track", "DeepSort", {picture, false, {numbers}}},
      {ov, "Track", "PaddleOCR", {picture, false, {steps}}, {"blank", kFirst, kSecond}},
      {ov, "Track", "VsFaceNet", {picture, false, {numbers}}},
      {ov, "Track", "VsOCR", {picture, false, {steps}}, {"blank", kFirst, kSecond}},
      {ort, "Detect", "YOLO5", {picture, false, {yolo5}}},
      {ort, "Detect", "YOLO8", {picture, false, {yolo8}}},
      {ort, "Detect", "YOLO26", {picture, false, {yolo26}}},
      {"TensorRT", "Detect", "YOLO8", {picture, false, {yolo8}}},
  };
}

/// How a call ended, and whether a host may expect it to end so.
struct End {
  bool done = false;
  std::string thrown;  // empty where nothing was
  bool isExpected = true;
  long count = 0;           // of allocations
  long lines = 0;           // "[E]" lines
  std::uint64_t input = 0;  // checksum of what the engine was given
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

long failures = 0, faults = 0;
long lostByOpenCv = 0;  // cv::Mat loses its pixels where the record of them cannot be allocated
std::string where;      // row and step, for what is told about faults
long current = 0;       // number of the allocation that fails

void require(bool condition, const std::string& what) {
  if (condition) return;
  if (++faults <= 40) std::cout << where << ", allocation " << current << ": " << what << std::endl;
}

/// Makes a call whose allocation number `failing` fails; 0 for none.
End watched(long failing, const std::function<bool()>& call) {
  End end;
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
      : TestModel(row.category, row.modelName, "a folder with a name that takes memory") {
    config.engine = row.engine;
    config.device = "a device that takes a long name";
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
        fakeNetwork.outputs = {{{1}, {0.0F}}};  // what a network says that is of another family
      // The first time round nothing has been set up yet, and nothing may be there to compare with.
      for (const bool isFirst : {true, false}) {
        where = row_.engine + " " + row_.category + " " + row_.modelName +
                (isGood ? "" : ", refused") + (isFirst ? ", first" : "");
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

  static End runOn(TestModel& model, VsaFrame& frame, long failing) {
    return watched(failing, [&] { return model.run(&frame); });
  }

  /// A context without a model refuses silently.
  long linesOfRefusal() const { return row_.engine == "TensorRT" ? 0 : 1; }

  /// What a run on a frame gives: everything by which two runs can differ.
  struct Outcome {
    bool done = false;
    std::string results;
    std::uint64_t input = 0;
    bool operator==(const Outcome&) const = default;
  };
  Outcome outcomeOf(TestModel& model, VsaFrame frame) const {
    const End end = runOn(model, frame, 0);
    require(end.thrown.empty(), "a run without a failing allocation throws " + end.thrown);
    require(end.done || end.lines == linesOfRefusal(), std::to_string(end.lines) + " error lines");
    return {end.done, bytesOf(frame), end.input};
  }

  /// Calls `attempt` with 0 and, with one failing allocation after the other, until none is left to
  /// fail. It returns whether there was one.
  template <class Attempt>
  static void forEachAllocation(bool isFirst, const char* step, Attempt attempt) {
    const std::string row = std::exchange(where, where + ", " + step);
    if (!isFirst) attempt(0);
    for (current = 1;; ++current) {
      const long before = memory.live;
      memory.isMatrix = memory.isStream = false;
      if (!attempt(current)) break;
      ++failures;
      if (isFirst) continue;
      const long lost = memory.live - before;
      if (memory.isMatrix && lost == 1) {
        ++lostByOpenCv;
      } else if (memory.isStream && lost == 1) {
        // jsoncpp's: a number that its stream could not read for want of memory.
      } else {
        require(lost == 0, std::to_string(lost) + " blocks lost");
      }
    }
    where = row;
  }

  void checkInit(bool isFirst) {
    bool expected = false;
    forEachAllocation(isFirst, "init", [&](long n) {
      RowModel model(row_);
      const End end = watched(n, [&] { return model.init(); });
      if (n == 0) expected = end.done;
      require(end.isExpected, "an exception that no host expects: " + end.thrown);
      VsaModelRelease(&model.context);
      const End again = watched(0, [&] { return model.init(); });
      require(again.thrown.empty() && (isFirst || again.done == expected),
              "the next one ends otherwise");
      return end.count >= n;
    });
  }

  /// In the first round, all runs are made by one model: tables that are built once are not built
  /// yet, and no failure on the way to them may spoil the run that succeeds at last.
  void checkFirstRuns() {
    RowModel model(row_);
    model.init();
    forEachAllocation(true, "run", [&](long n) {
      VsaFrame frame = fresh_;
      const End end = runOn(model, frame, n);
      require(end.isExpected, "an exception that no host expects: " + end.thrown);
      return end.count >= n;
    });
    afterFirst_ = outcomeOf(model, other_);
  }

  /// Each allocation fails in the first run of a model of its own, which is then given a different
  /// frame of that size, and the same frame again.
  void checkRuns(bool isGood) {
    RowModel untouched(row_);
    untouched.init();
    const Outcome other = outcomeOf(untouched, other_);
    const Outcome expected = outcomeOf(untouched, fresh_);
    const std::string request = server_.lastRequest();
    const std::string before = bytesOf(fresh_);
    require(!isGood || row_.engine == "TensorRT" || expected.results != before, "no results");
    require(afterFirst_ == other, "the run after the first failures ends otherwise");
    forEachAllocation(false, "run", [&](long n) {
      RowModel model(row_);
      model.init();
      VsaFrame frame = fresh_;
      const End end = runOn(model, frame, n);
      require(end.isExpected, "an exception that no host expects: " + end.thrown);
      if (!end.done) {
        require(bytesOf(frame) == before, "a call that failed changed the frame");
        // The line about a refused network may be the one that could not be written.
        // To jsoncpp, a number for which its stream has no memory is not a number, and the reply
        // not JSON.
        require(!end.thrown.empty() || end.lines == linesOfRefusal() || !isGood || memory.isStream,
                std::to_string(end.lines) + " error lines");
      } else {
        // The allocation was one that the call can do without: for a line of the log, say.
        require(Outcome{true, bytesOf(frame), end.input} == expected, "other results");
        require(server_.lastRequest() == request, "another request");
      }
      require(outcomeOf(model, other_) == other,
              "the next one, on a different frame, ends otherwise");
      require(outcomeOf(model, fresh_) == expected, "the next one ends otherwise");
      return end.count >= n;
    });
  }

  void checkRelease(bool isFirst) {
    forEachAllocation(isFirst, "release", [&](long n) {
      RowModel model(row_);
      model.init();
      const End end = watched(n, [&] { return VsaModelRelease(&model.context), true; });
      require(end.done && model.context.models == nullptr, "not released: " + end.thrown);
      model.init();
      VsaModelRelease(
          &model.context);  // the C library may have dropped the time zone that glog asks for
      return end.count >= n;
    });
  }

  const Row& row_;
  LoopbackServer& server_;
  cv::Mat image_, otherImage_;
  VsaFrame fresh_, other_;
  Outcome afterFirst_;
};

/// An ONNX Runtime that is too old is looked at when the first model is opened, and refused by an
/// exception.
void checkOldOnnxRuntime(const Row& row) {
  where = "old ONNX Runtime";
  require(apiRequests == 0, "the table of functions was asked for when the program was loaded");
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
  for (int severity = 0; severity < google::NUM_SEVERITIES; ++severity)
    google::SetLogDestination(severity, "");
  // A request that is meant for a proxy reads otherwise.
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
            << faults << " faults (" << lostByOpenCv << " matrices lost inside OpenCV)"
            << std::endl;
  // Each row has some two hundred; none would mean that nothing was made to fail.
  return faults == 0 && checked > 0 && failures > 50 * static_cast<long>(checked) ? 0 : 1;
}
