// What every ONNX Runtime detector does to open, feed, run and close its network.
#pragma once

// With this macro the wrapper classes get ONNX Runtime's table of functions in openApi() instead of
// when the library is loaded.
#define ORT_API_MANUAL_INIT
#include <onnxruntime_cxx_api.h>

#include <array>
#include <atomic>
#include <memory>
#include <opencv2/core.hpp>
#include <optional>
#include <source_location>
#include <string>
#include <vector>

#include "Utils/FloatGrid.h"
#include "Utils/PreProcessUtils.h"
#include "VsaModel.h"

namespace TolCompatibleLib {

/// Which dimensions of output 0 hold the values of a candidate and the number of candidates.
struct OutputLayout {
  std::size_t values;
  std::size_t candidates;
};
constexpr OutputLayout kCandidateRows = {2, 1};     // [1, candidates, values]
constexpr OutputLayout kCandidateColumns = {1, 2};  // [1, values, candidates]

/// Looks up ONNX Runtime's table of functions on the first call. Throws Ort::Exception if the ONNX
/// Runtime that was loaded is too old for the headers of this build. Must be called before any
/// object of namespace Ort exists: even the destructor of an empty one uses the table.
void openApi();

/// Input buffers that are kept between runs, because new memory costs a page fault per page. Runs
/// that overlap use different buffers. Lock-free.
class InputPool {
 public:
  struct Buffer {
    std::unique_ptr<float[]> planes;
    LetterboxWriter writer;
  };
  /// Returns a buffer to its pool.
  struct Return {
    InputPool* pool;
    void operator()(Buffer* buffer) const { pool->put(buffer); }
  };
  using Handle = std::unique_ptr<Buffer, Return>;

  InputPool() = default;
  ~InputPool();
  InputPool(const InputPool&) = delete;
  InputPool& operator=(const InputPool&) = delete;

  /// A buffer that no other run uses, of `count` floats, which must be the same number in every
  /// call. The pool must outlive it.
  Handle take(std::size_t count);

 private:
  void put(Buffer* buffer);

  /// Buffers that no run uses. As many runs as there are slots may overlap without allocating
  /// memory each time.
  std::array<std::atomic<Buffer*>, 8> idle_{};
};

/// A detector on ONNX Runtime's CPU backend, with an environment and a session of its own. Runs may
/// overlap, given different frames: a run changes nothing but its frame and a buffer of its own.
class OrDetect : public VsaDetect {
 protected:
  /// Opens the model file at exactly the configured path. A network with more than one input, with
  /// an input size that differs from the configured one, or with an output that is not a float
  /// tensor of rank 3 and fixed size is rejected: one "[E]" line, and `ready` stays false. Log
  /// lines carry the file of the derived constructor. Throws Ort::Exception if ONNX Runtime fails.
  OrDetect(const VsaModelConfig* modelConfig, const std::string& root, OutputLayout layout,
           std::source_location where = std::source_location::current());

  /// The derived destructor logs the line about the release.
  ~OrDetect() override;

  /// The pixels of the frame, as imageOf returns them. Also returns nullopt, after one "[E]" line,
  /// if the network was rejected when it was opened.
  std::optional<cv::Mat> openFrame(
      const VsaFrame* frame, std::source_location where = std::source_location::current()) const;

  /// The result of one run.
  struct Inference {
    InputPool::Handle input;
    std::vector<Ort::Value> output;  ///< Owns the floats of `grid`.
    FloatGrid grid;                  ///< Output 0, of the size it had when the network was opened.
    float scale;                     ///< Network pixels times `scale` are frame pixels.
  };

  /// Runs the network on the letterboxed image. Returns nullopt, after one "[E]" line, if
  /// letterbox() rejects the image or the output is shorter than the network declares.
  std::optional<Inference> inferLetterboxed(
      const cv::Mat& image, std::source_location where = std::source_location::current());

  Ort::Env environment;
  std::unique_ptr<Ort::Session> session;  ///< Null if the network was rejected.
  std::vector<std::string> inputNames;
  std::vector<std::string> outputNames;
  std::int32_t outputDimensions[2] = {0, 0};  ///< Values of a candidate, number of candidates.
  cv::Size inputSize;                         ///< As configured: width, height.

 private:
  bool checkNetwork(const std::source_location& where);

  OutputLayout layout_;
  InputPool inputs_;
};

/// A path for ONNX Runtime. Each byte becomes one character, as a signed byte and without decoding,
/// so only ASCII paths name the intended file.
template <class Character>
std::basic_string<Character> widened(const std::string& path) {
  std::basic_string<Character> wide;
  wide.reserve(path.size());
  for (const char byte : path)
    wide.push_back(static_cast<Character>(static_cast<signed char>(byte)));
  return wide;
}

}  // namespace TolCompatibleLib
