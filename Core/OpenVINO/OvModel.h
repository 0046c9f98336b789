// What every OpenVINO model does to open, run and close its network.
#pragma once

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

/// How a network file becomes a compiled one.
using Compile = ov::CompiledModel (*)(ov::Core& core, const std::string& file,
                                      const std::string& device);

/// The network as the file holds it, with the engine's default properties.
ov::CompiledModel compileAsStored(ov::Core& core, const std::string& file,
                                  const std::string& device);

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

  /// The memory of the request's own input tensor, to be filled before inference: three planes of
  /// `inputSize`, or pixels of `inputSize` with three bytes each. Null, after one "[E]" line, where
  /// the network does not take exactly that, [1, 3, height, width] floats or [1, height, width, 3]
  /// bytes.
  float* inputPlanes(std::source_location where = std::source_location::current());
  std::uint8_t* inputPixels(std::source_location where = std::source_location::current());

  /// Shows the network the frame as all YOLO detectors but one do: letterboxed, as planes of 0 to
  /// 1, red first. Returns the scale from network to frame pixels; nothing for a frame or network
  /// that is refused, as imageOf, inputPlanes and letterbox say.
  std::optional<float> inferLetterboxed(
      const VsaFrame* frame, std::source_location where = std::source_location::current());

  /// The memory of the request's own input tensor, given the shape [1, 3, height, width] of
  /// `inputSize`. Null, after one
  /// "[E]" line, where the network does not take that shape or no floats.
  float* shapedInputPlanes(std::source_location where = std::source_location::current());

  std::unique_ptr<ov::Core> core;
  ov::CompiledModel compiledModel;
  ov::InferRequest inferRequest;
  cv::Size inputSize;  ///< As configured: width, height.
  Padding padding;     ///< Of the letterboxed frame in the request's input.

 private:
  void* inputMemory(ov::element::Type type, const ov::PartialShape& shape, std::string_view layout,
                    std::source_location where);

  /// The request's input, kept so that no other memory can come to lie where `padding` is.
  ov::Tensor input_;
};

/// The last two dimensions of an output of `rank` dimensions, seen as a table; earlier ones are not
/// looked at. Nothing, after one "[E]" line, for another rank, for another type than float and for
/// a tensor without that many numbers.
std::optional<FloatGrid> gridOf(const ov::Tensor& output, std::size_t rank,
                                std::source_location where = std::source_location::current());

/// The first `count` numbers of an output. Nothing, after one "[E]" line, where it has fewer or
/// other than floats.
std::optional<std::span<const float>> firstFloats(
    const ov::Tensor& output, std::size_t count,
    std::source_location where = std::source_location::current());

extern template class OvModel<VsaDetect>;
extern template class OvModel<VsaClassify>;
extern template class OvModel<VsaFeature>;

}  // namespace TolCompatibleLib
