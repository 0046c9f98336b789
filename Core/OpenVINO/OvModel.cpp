#include "OpenVINO/OvModel.h"

#include <limits>

#include "Utils/Log.h"
#include "Utils/Objects.h"

namespace TolCompatibleLib {

ov::CompiledModel compileAsStored(ov::Core& core, const std::string& file,
                                  const std::string& device) {
  return core.compile_model(file, device, ov::AnyMap{});
}

namespace {

/// Logs the input of the network and the expected one.
/// @param layout the expected type and shape, with H and W in place of the configured sizes.
void logInputMismatch(const ov::Output<const ov::Node>& input, std::string_view layout,
                      const VsaModelConfig& config, const std::source_location& where) {
  std::string text = "network input is " + input.get_element_type().to_string() +
                     input.get_partial_shape().to_string() + ",expected ";
  for (const char c : layout) {
    if (c == 'H' || c == 'W') {
      text += std::to_string(c == 'H' ? config.inputHeight : config.inputWidth);
    } else {
      text += c;
    }
  }
  logError(text, where);
}

constexpr std::string_view kPlanesText = "f32[1,3,H,W]";
constexpr std::string_view kPixelsText = "u8[1,H,W,3]";

}  // namespace

template <class Interface>
OvModel<Interface>::OvModel(std::string_view className, const VsaModelConfig* modelConfig,
                            const std::string& root, Compile compile, std::source_location where)
    : Interface(modelConfig, root) {
  logInfo(std::string(className) + "()", where);
  inputSize = cv::Size(static_cast<int>(modelConfig->inputWidth),
                       static_cast<int>(modelConfig->inputHeight));
  core = std::make_unique<ov::Core>("");
  const std::string path = vsaModelPath(*modelConfig, root);
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
      // No inference is running that would have to be cancelled, and a destructor must not throw.
    }
  }
  // The engine is freed first. The request and the compiled network, which are destroyed after it,
  // keep the device's plug-in loaded until then.
  core.reset();
}

template <class Interface>
std::optional<float> OvModel<Interface>::feedLetterboxed(const cv::Mat& image, InputFormat format,
                                                         const std::source_location& where) {
  const bool isPlanes = format == InputFormat::kPlanes;
  const ov::PartialShape shape = isPlanes
                                     ? ov::PartialShape{1, 3, inputSize.height, inputSize.width}
                                     : ov::PartialShape{1, inputSize.height, inputSize.width, 3};
  const ov::Output<const ov::Node> input = compiledModel.input();
  // A size too large for an int becomes negative, and a dimension of -1 would be a dynamic one.
  if (inputSize.empty() ||
      input.get_element_type() != (isPlanes ? ov::element::f32 : ov::element::u8) ||
      input.get_partial_shape() != shape) {
    logInputMismatch(input, isPlanes ? kPlanesText : kPixelsText, *this->config, where);
    return std::nullopt;
  }
  input_ = inferRequest.get_input_tensor();
  void* const memory = input_.data();
  return isPlanes
             ? letterboxWriter_.writePlanes(image, inputSize, static_cast<float*>(memory), where)
             : letterboxWriter_.writePixels(image, inputSize, static_cast<std::uint8_t*>(memory),
                                            where);
}

template <class Interface>
auto OvModel<Interface>::inferLetterboxed(const VsaFrame* frame, InputFormat format,
                                          std::source_location where) -> std::optional<Inference> {
  const std::optional<cv::Mat> image = imageOf(frame, where);
  if (!image) return std::nullopt;
  const std::optional<float> scale = feedLetterboxed(*image, format, where);
  if (!scale) return std::nullopt;
  inferRequest.infer();
  const ov::Tensor output = inferRequest.get_output_tensor(0);
  const std::optional<FloatGrid> grid = gridOf(output, 3, where);
  if (!grid) return std::nullopt;
  return Inference{output, *grid, *scale};
}

template <class Interface>
float* OvModel<Interface>::inputPlanes(std::source_location where) {
  const ov::Output<const ov::Node> input = compiledModel.input(0);
  const ov::PartialShape shape{1, 3, inputSize.height, inputSize.width};
  if (inputSize.empty() || input.get_element_type() != ov::element::f32 ||
      !input.get_partial_shape().compatible(shape)) {
    logInputMismatch(input, kPlanesText, *this->config, where);
    return nullptr;
  }
  ov::Tensor tensor = inferRequest.get_input_tensor(0);
  tensor.set_shape(shape.to_shape());
  return tensor.data<float>();
}

template <class Interface>
bool OvModel<Interface>::inferRegions(const VsaFrame* frame, Prepare prepare, const Read& read,
                                      std::source_location where) {
  if (isImageWithoutObjects(frame)) return true;
  const std::optional<cv::Mat> image = imageOf(frame, where);
  if (!image) return false;
  float* planes = nullptr;  // the same for every region
  for (std::size_t i = 0; i < frame->objects.size(); ++i) {
    const cv::Mat region = regionOf(*image, frame->objects[i]);
    if (planes == nullptr) planes = inputPlanes(where);
    if (planes == nullptr) return false;
    prepare(region, inputSize, planes);
    inferRequest.infer();
    if (!read(i, inferRequest.get_output_tensor(0))) return false;
  }
  return true;
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
  // The dimensions before the last two are usually 1. If one is 0, there are fewer numbers than the
  // table needs.
  const std::size_t rows = shape.rbegin()[1];
  const std::size_t cols = shape.rbegin()[0];
  constexpr std::size_t kMaxInt = std::numeric_limits<int>::max();
  if (rows > kMaxInt || cols > kMaxInt || rows * cols > output.get_size()) {
    logError("network output is too short," + shape.to_string(), where);
    return std::nullopt;
  }
  return FloatGrid{output.data<const float>(), static_cast<int>(rows), static_cast<int>(cols)};
}

std::optional<std::span<const float>> firstFloats(const ov::Tensor& output, std::size_t count,
                                                  std::source_location where) {
  if (output.get_element_type() != ov::element::f32 || output.get_size() < count) {
    logError("network output is " + output.get_element_type().to_string() +
                 output.get_shape().to_string() + ",expected f32 of at least " +
                 std::to_string(count),
             where);
    return std::nullopt;
  }
  return std::span(output.data<const float>(), count);
}

template class OvModel<VsaDetect>;
template class OvModel<VsaClassify>;
template class OvModel<VsaFeature>;

}  // namespace TolCompatibleLib
