// What every OpenVINO model does to open, feed, run and close its network.
#pragma once

#include <functional>
#include <memory>
#include <opencv2/core.hpp>
#include <openvino/openvino.hpp>
#include <optional>
#include <source_location>
#include <span>
#include <string>
#include <string_view>

#include "Utils/FloatGrid.h"
#include "Utils/PreProcessUtils.h"
#include "VsaModel.h"

namespace TolCompatibleLib {

/// Reads and compiles the network in a file.
using Compile = ov::CompiledModel (*)(ov::Core& core, const std::string& file,
                                      const std::string& device);

/// Compiles the network without changes, with the engine's default properties.
ov::CompiledModel compileAsStored(ov::Core& core, const std::string& file,
                                  const std::string& device);

/// Input of a detector's network: [1, 3, height, width] floats or [1, height, width, 3] bytes.
enum class InputFormat { kPlanes, kPixels };

/// The model behind `Interface` (VsaDetect, VsaClassify or VsaFeature) on OpenVINO. Each model has
/// an engine, a compiled network and a single inference request of its own.
template <class Interface>
class OvModel : public Interface {
 protected:
  /// Opens and compiles the model file that the configuration names. Logs `className` + "()" and
  /// the path; the lines carry the file of the derived constructor, because the default argument is
  /// evaluated there, so that constructor must be written out. Throws ov::Exception if the engine
  /// fails.
  OvModel(std::string_view className, const VsaModelConfig* modelConfig, const std::string& root,
          Compile compile = compileAsStored,
          std::source_location where = std::source_location::current());

  /// Does not throw. The derived destructor logs the line about the release.
  ~OvModel() override;

  /// The result of one run of a detector.
  struct Inference {
    ov::Tensor output;  ///< Output 0; owns the floats of `grid`.
    FloatGrid grid;     ///< Its last two dimensions.
    float scale;        ///< Network pixels times `scale` are frame pixels.
  };

  /// Runs the network on the letterboxed frame. Returns nullopt, after one "[E]" line (none for a
  /// frame of another kind), if imageOf() or letterbox() rejects the frame, if the network's input
  /// does not have `format` and the configured size, or if output 0 is not a float tensor of
  /// rank 3.
  std::optional<Inference> inferLetterboxed(
      const VsaFrame* frame, InputFormat format = InputFormat::kPlanes,
      std::source_location where = std::source_location::current());

  /// Writes a region into three planes of `size` floats each.
  using Prepare = void (*)(const cv::Mat& region, cv::Size size, float* planes);
  /// Reads output 0 for the object with that index; returns false, after one "[E]" line, if the
  /// type or size of the output is wrong.
  using Read = std::function<bool(std::size_t index, const ov::Tensor& output)>;

  /// Runs the network on the box of every object of an image frame, in order, and passes each
  /// output to `read`. Returns false, after at most one "[E]" line, if the frame or the network's
  /// input is rejected or `read` returns false. Without objects it returns true and checks neither.
  /// Throws cv::Exception if a box extends beyond the image.
  bool inferRegions(const VsaFrame* frame, Prepare prepare, const Read& read,
                    std::source_location where = std::source_location::current());

  /// The memory of the request's own input tensor, after setting its shape to [1, 3, height, width]
  /// of `inputSize`. Null, after one "[E]" line, if the network does not take floats of that shape.
  float* inputPlanes(std::source_location where = std::source_location::current());

  std::unique_ptr<ov::Core> core;
  ov::CompiledModel compiledModel;
  ov::InferRequest inferRequest;
  cv::Size inputSize;  ///< As configured: width, height.

 private:
  std::optional<float> feedLetterboxed(const cv::Mat& image, InputFormat format,
                                       const std::source_location& where);

  LetterboxWriter letterboxWriter_;
  /// The request's input. Kept so that its memory is not freed and reused: `letterboxWriter_`
  /// recognises the padding by the address.
  ov::Tensor input_;
};

/// The last two dimensions of an output of `rank` dimensions as a table; earlier dimensions are
/// ignored. Returns nullopt, after one "[E]" line, if the rank or the type (float) is wrong or the
/// tensor holds fewer numbers than the table needs.
std::optional<FloatGrid> gridOf(const ov::Tensor& output, std::size_t rank,
                                std::source_location where = std::source_location::current());

/// The first `count` numbers of an output. Returns nullopt, after one "[E]" line, if it has fewer
/// or if they are not floats.
std::optional<std::span<const float>> firstFloats(
    const ov::Tensor& output, std::size_t count,
    std::source_location where = std::source_location::current());

extern template class OvModel<VsaDetect>;
extern template class OvModel<VsaClassify>;
extern template class OvModel<VsaFeature>;

}  // namespace TolCompatibleLib
