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

/// Makes a compiled network of a file.
using Compile = ov::CompiledModel (*)(ov::Core& core, const std::string& file,
                                      const std::string& device);

/// Compiles the network as the file holds it, with the engine's default properties.
ov::CompiledModel compileAsStored(ov::Core& core, const std::string& file,
                                  const std::string& device);

/// What a detector's network takes: [1, 3, height, width] floats or [1, height, width, 3] bytes.
enum class InputFormat { kPlanes, kPixels };

/// The model behind `Interface` (VsaDetect, VsaClassify or VsaFeature) on OpenVINO. Each model has
/// an engine, a compiled network and a single inference request of its own.
template <class Interface>
class OvModel : public Interface {
 protected:
  /// Opens and compiles the model file that the configuration names. Logs `className` + "()" and
  /// the path under the derived constructor's own file: the default argument is evaluated there, so
  /// that constructor must be written out. Throws what the engine throws.
  OvModel(std::string_view className, const VsaModelConfig* modelConfig, const std::string& root,
          Compile compile = compileAsStored,
          std::source_location where = std::source_location::current());

  /// Does not throw. The derived destructor has logged its own line.
  ~OvModel() override;

  /// The result of one run of a detector.
  struct Inference {
    ov::Tensor output;  ///< Output 0; owns the floats of `grid`.
    FloatGrid grid;     ///< Its last two dimensions.
    float scale;        ///< Network pixels times `scale` are frame pixels.
  };

  /// Runs the network on the letterboxed frame. Returns nullopt, after one "[E]" line (none for a
  /// frame of another kind), for a frame that imageOf or letterbox refuses, a network whose input
  /// is not of `format` and the configured size, and an output that is not floats of rank 3.
  std::optional<Inference> inferLetterboxed(
      const VsaFrame* frame, InputFormat format = InputFormat::kPlanes,
      std::source_location where = std::source_location::current());

  /// Writes a region into three planes of `size` floats each.
  using Prepare = void (*)(const cv::Mat& region, cv::Size size, float* planes);
  /// Reads output 0 of the object with that index; returns false, after one "[E]" line, if the
  /// output does not fit.
  using Read = std::function<bool(std::size_t index, const ov::Tensor& output)>;

  /// Runs the network on the box of every object of an image frame, in order, and passes each
  /// output to `read`. Returns false, after at most one "[E]" line, if the frame or the network's
  /// input is refused or `read` returned false. Without objects nothing is looked at. Throws
  /// cv::Exception if a box leaves the image.
  bool inferRegions(const VsaFrame* frame, Prepare prepare, const Read& read,
                    std::source_location where = std::source_location::current());

  /// The memory of the request's own input tensor, given the shape [1, 3, height, width] of
  /// `inputSize`. Null, after one "[E]" line, if the network does not take floats of that shape.
  float* inputPlanes(std::source_location where = std::source_location::current());

  std::unique_ptr<ov::Core> core;
  ov::CompiledModel compiledModel;
  ov::InferRequest inferRequest;
  cv::Size inputSize;  ///< As configured: width, height.

 private:
  std::optional<float> feedLetterboxed(const cv::Mat& image, InputFormat format,
                                       const std::source_location& where);

  LetterboxWriter letterboxWriter_;
  /// The request's input. Held so that no other memory can get the address at which
  /// `letterboxWriter_` remembers its padding.
  ov::Tensor input_;
};

/// The last two dimensions of an output of `rank` dimensions as a table; earlier dimensions are
/// ignored. Returns nullopt, after one "[E]" line, for another rank, another type than float and a
/// tensor with fewer numbers.
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
