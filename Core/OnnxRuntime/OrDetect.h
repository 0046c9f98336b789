// What every ONNX Runtime detector does to open, run and close its network.
#pragma once

#include <onnxruntime_cxx_api.h>

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

/// Throws Ort::Exception where the ONNX Runtime that was loaded is too old for the headers of this
/// build. Without it the first call would go through a null table.
void requireOnnxRuntime();

/// A detector on ONNX Runtime's processor backend, with an environment and a session of its own.
class OrDetect : public VsaDetect {
 protected:
  /// Opens the model file that the configuration names, to the letter. A network of more than one
  /// input, of another input size than configured or of an output that is no table of known size is
  /// refused: one "[E]" line, and `ready` stays false. Logs under the derived constructor's own
  /// file. Throws Ort::Exception when ONNX Runtime fails.
  OrDetect(const VsaModelConfig* modelConfig, const std::string& root, OutputLayout layout,
           std::source_location where = std::source_location::current());

  /// The derived destructor has logged its own line.
  ~OrDetect() override;

  /// False, after one "[E]" line, for a network that was refused.
  bool isOpen(std::source_location where = std::source_location::current()) const;

  /// The network's answer to three planes of `inputSize`.
  struct Answer {
    std::vector<Ort::Value> values;  ///< Owns the floats of `grid`.
    FloatGrid grid;                  ///< Output 0, of the size it had when the network was opened.
    float scale;                     ///< Takes network pixels to frame pixels.
  };

  /// Shows the network the picture: letterboxed, as planes of 0 to 1, red first. Nothing, after one
  /// "[E]" line, where letterbox refuses the picture or the output is shorter than it was said to
  /// be.
  std::optional<Answer> inferLetterboxed(
      const cv::Mat& image, std::source_location where = std::source_location::current());

  Ort::Env environment{nullptr};
  std::unique_ptr<Ort::Session> session;  ///< Empty where the network was refused.
  std::vector<std::string> inputNames;
  std::vector<std::string> outputNames;
  std::int32_t outputDimensions[2] = {0, 0};  ///< Values of a candidate, number of candidates.
  cv::Size inputSize;                         ///< As configured: width, height.

 private:
  bool fits(std::source_location where);

  OutputLayout layout_;
  /// The network's input. Kept between runs, as fresh memory costs a fault for every page. No
  /// matrix: OpenCV loses the memory of one that it cannot complete.
  std::unique_ptr<float[]> planes_;
  Padding padding_;  ///< Of the letterboxed frame in them.
};

/// A path for ONNX Runtime: each byte becomes one character, as a signed byte and without decoding,
/// so paths are ASCII.
template <class Character>
std::basic_string<Character> widened(const std::string& path) {
  std::basic_string<Character> wide;
  wide.reserve(path.size());
  for (const char byte : path)
    wide.push_back(static_cast<Character>(static_cast<signed char>(byte)));
  return wide;
}

}  // namespace TolCompatibleLib
