#include "OpenVINO/OvModel.h"

#include <limits>

#include "Utils/Log.h"
#include "Utils/ModelPath.h"

namespace TolCompatibleLib {

ov::CompiledModel compileAsStored(ov::Core& core, const std::string& file,
                                  const std::string& device) {
  return core.compile_model(file, device, ov::AnyMap{});
}

template <class Interface>
OvModel<Interface>::OvModel(std::string_view className, const VsaModelConfig* modelConfig,
                            const std::string& root, Compile compile, std::source_location where)
    : Interface(modelConfig, root) {
  logInfo(std::string(className) + "()", where);
  inputSize = cv::Size(static_cast<int>(modelConfig->inputWidth),
                       static_cast<int>(modelConfig->inputHeight));
  core = std::make_unique<ov::Core>("");
  const std::string path = modelPath(*modelConfig, root);
  logInfo("modelPath=" + path + ",device=" + modelConfig->device, where);
  compiledModel = compile(*core, path + ".xml", modelConfig->device);
  inferRequest = compiledModel.create_infer_request();
  this->ready = true;
}

template <class Interface>
OvModel<Interface>::~OvModel() {
  if (this->ready) {
    try {
      inferRequest.cancel();
    } catch (...) {
      // Nothing runs, so nothing was to be cancelled; and a destructor must not throw.
    }
  }
  // The engine goes first. The request and the compiled network, which fall after it, keep the
  // device's plug-in loaded by themselves until they are gone.
  core.reset();
}

template <class Interface>
float* OvModel<Interface>::inputPlanes(std::source_location where) {
  const ov::Output<const ov::Node> input = compiledModel.input();
  const ov::PartialShape expected{1, 3, inputSize.height, inputSize.width};
  if (input.get_element_type() != ov::element::f32 || input.get_partial_shape() != expected) {
    logError("network input is " + input.get_element_type().to_string() +
                 input.get_partial_shape().to_string() + ",expected f32" + expected.to_string(),
             where);
    return nullptr;
  }
  return inferRequest.get_input_tensor().data<float>();
}

std::optional<FloatGrid> gridOf(const ov::Tensor& output, std::size_t rank,
                                std::source_location where) {
  const ov::Shape& shape = output.get_shape();
  if (output.get_element_type() != ov::element::f32 || shape.size() != rank) {
    logError("network output is " + output.get_element_type().to_string() + shape.to_string() +
                 ",expected f32 of rank " + std::to_string(rank),
             where);
    return std::nullopt;
  }
  // The dimensions before the last two are usually 1. One of 0 would leave fewer numbers than the
  // table says.
  const std::size_t rows = shape.rbegin()[1];
  const std::size_t cols = shape.rbegin()[0];
  constexpr std::size_t kMost = std::numeric_limits<int>::max();
  if (rows > kMost || cols > kMost || rows * cols > output.get_size()) {
    logError("network output is too short," + shape.to_string(), where);
    return std::nullopt;
  }
  return FloatGrid{output.data<const float>(), static_cast<int>(rows), static_cast<int>(cols)};
}

template class OvModel<VsaDetect>;
template class OvModel<VsaClassify>;
template class OvModel<VsaFeature>;

}  // namespace TolCompatibleLib
