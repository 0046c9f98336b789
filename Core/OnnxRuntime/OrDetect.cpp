#include "OnnxRuntime/OrDetect.h"

#include <array>
#include <cstdlib>

#include "Utils/Log.h"
#include "Utils/PreProcessUtils.h"

namespace TolCompatibleLib {
namespace {

std::string dimensionsText(const std::vector<std::int64_t>& dimensions) {
  std::string text = "[";
  for (const std::int64_t dimension : dimensions) {
    if (text.size() > 1) text += ',';
    text += std::to_string(dimension);
  }
  return text += ']';
}

/// The type of an input or output, as ONNX Runtime numbers it (ONNXType,
/// ONNXTensorElementDataType), and the dimensions of a tensor. A dynamic dimension is -1.
struct PortType {
  ONNXType kind = ONNX_TYPE_UNKNOWN;
  ONNXTensorElementDataType element = ONNX_TENSOR_ELEMENT_DATA_TYPE_UNDEFINED;
  std::vector<std::int64_t> dimensions;

  bool isTensor() const { return kind == ONNX_TYPE_TENSOR; }
  std::string text() const {
    return "type=" + std::to_string(kind) + ",element=" + std::to_string(element) +
           ",dimensions=" + dimensionsText(dimensions);
  }
};

PortType portType(const Ort::TypeInfo& info) {
  PortType port;
  port.kind = info.GetONNXType();
  if (port.isTensor()) {
    const auto tensor = info.GetTensorTypeAndShapeInfo();
    port.element = tensor.GetElementType();
    port.dimensions = tensor.GetShape();
  }
  return port;
}

/// Logs the path of the model file, then makes the environment.
Ort::Env openEnvironment(const VsaModelConfig& config, const std::string& root,
                         const std::source_location& where) {
  logInfo("modelPath=" + vsaModelPath(config, root) + ",device=" + config.device, where);
  openApi();
  return Ort::Env(ORT_LOGGING_LEVEL_WARNING, config.modelName.c_str());
}

/// ONNX Runtime collects usage data (model name, program path, an identifier of the device) and
/// sends it, unless this variable is set when the first environment is made. A value that the host
/// has set stays.
void disableTelemetry() {
  constexpr const char* kVariable = "ORT_DISABLE_TELEMETRY";
  if (std::getenv(kVariable) != nullptr) return;
#if defined(_WIN32)
  _putenv_s(kVariable, "1");
#else
  setenv(kVariable, "1", 0);
#endif
}

}  // namespace

void openApi() {
  static const OrtApi* const api = [] {
    disableTelemetry();
    const OrtApi* const found = OrtGetApiBase()->GetApi(ORT_API_VERSION);
    if (found == nullptr) {
      throw Ort::Exception(std::string("ONNX Runtime ") + OrtGetApiBase()->GetVersionString() +
                               " is older than this library needs",
                           ORT_NOT_IMPLEMENTED);
    }
    Ort::InitApi(found);
    return found;
  }();
  static_cast<void>(api);
}

InputPool::~InputPool() {
  for (const std::atomic<Buffer*>& slot : idle_) delete slot.load();
}

InputPool::Handle InputPool::take(std::size_t count) {
  for (std::atomic<Buffer*>& slot : idle_) {
    if (Buffer* const buffer = slot.exchange(nullptr)) return Handle(buffer, Return{this});
  }
  auto buffer = std::make_unique<Buffer>();
  buffer->planes = std::make_unique_for_overwrite<float[]>(count);
  return Handle(buffer.release(), Return{this});
}

void InputPool::put(Buffer* buffer) {
  for (std::atomic<Buffer*>& slot : idle_) {
    Buffer* expected = nullptr;
    if (slot.compare_exchange_strong(expected, buffer)) return;
  }
  delete buffer;
}

OrDetect::OrDetect(const VsaModelConfig* modelConfig, const std::string& root, OutputLayout layout,
                   std::source_location where)
    : VsaDetect(modelConfig, root),
      environment(openEnvironment(*modelConfig, root, where)),
      layout_(layout) {
  const std::string path = vsaModelPath(*modelConfig, root);
  Ort::SessionOptions options;
  options.SetGraphOptimizationLevel(ORT_ENABLE_BASIC);
  session = std::make_unique<Ort::Session>(environment, widened<ORTCHAR_T>(path).c_str(), options);
  ready = checkNetwork(where);
  // A rejected network is closed at once: the destructor releases the session only if `ready`.
  if (!ready) session.reset();
}

bool OrDetect::checkNetwork(const std::source_location& where) {
  const std::size_t inputs = session->GetInputCount();
  const std::size_t outputs = session->GetOutputCount();
  if (inputs != 1) {
    logError("numInputNodes error:" + std::to_string(inputs), where);
    return false;
  }
  const Ort::AllocatorWithDefaultOptions allocator;
  inputNames.emplace_back(session->GetInputNameAllocated(0, allocator).get());
  const PortType input = portType(session->GetInputTypeInfo(0));
  if (!input.isTensor() || input.dimensions.size() < 4) {
    logError("network input is no picture," + input.text(), where);
    return false;
  }
  // ONNX Runtime itself rejects other mismatches of dimensions and type when the network runs.
  if (input.dimensions[2] != std::int64_t{config->inputHeight} ||
      input.dimensions[3] != std::int64_t{config->inputWidth}) {
    logError("input_height=" + std::to_string(input.dimensions[2]) +
                 ",input_width=" + std::to_string(input.dimensions[3]),
             where);
    return false;
  }
  for (std::size_t i = 0; i < outputs; ++i) {
    outputNames.emplace_back(session->GetOutputNameAllocated(i, allocator).get());
  }
  const PortType output = outputs == 0 ? PortType() : portType(session->GetOutputTypeInfo(0));
  if (!output.isTensor() || output.element != ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT ||
      output.dimensions.size() != 3) {
    logError("network output is no float tensor of rank 3," + output.text(), where);
    return false;
  }
  // Deliberate: only the low 32 bits of each dimension are used.
  outputDimensions[0] = static_cast<std::int32_t>(output.dimensions[layout_.values]);
  outputDimensions[1] = static_cast<std::int32_t>(output.dimensions[layout_.candidates]);
  if (outputDimensions[0] < 1 || outputDimensions[1] < 1) {
    logError("network output has no fixed size," + dimensionsText(output.dimensions), where);
    return false;
  }
  inputSize = cv::Size(static_cast<int>(config->inputWidth), static_cast<int>(config->inputHeight));
  return true;
}

OrDetect::~OrDetect() {
  // Members are destroyed in reverse order: the session before its environment.
  if (ready) session.reset();
}

std::optional<cv::Mat> OrDetect::openFrame(const VsaFrame* frame,
                                           std::source_location where) const {
  std::optional<cv::Mat> image = imageOf(frame, where);
  if (!image || session != nullptr) return image;
  logError("network was refused when it was opened", where);
  return std::nullopt;
}

std::optional<OrDetect::Inference> OrDetect::inferLetterboxed(const cv::Mat& image,
                                                              std::source_location where) {
  const std::array<std::int64_t, 4> shape{1, 3, inputSize.height, inputSize.width};
  const std::size_t count = std::size_t{3} * static_cast<std::size_t>(inputSize.height) *
                            static_cast<std::size_t>(inputSize.width);
  InputPool::Handle input = inputs_.take(count);
  float* const planes = input->planes.get();
  const std::optional<float> scale = input->writer.writePlanes(image, inputSize, planes, where);
  if (!scale) return std::nullopt;

  const auto memory = Ort::MemoryInfo::CreateCpu(OrtDeviceAllocator, OrtMemTypeCPU);
  const auto value =
      Ort::Value::CreateTensor<float>(memory, planes, count, shape.data(), shape.size());
  const char* const inputName = inputNames.front().c_str();
  const char* const outputName = outputNames.front().c_str();
  std::vector<Ort::Value> output =
      session->Run(Ort::RunOptions{nullptr}, &inputName, &value, 1, &outputName, 1);

  // Deliberate: decoding uses the output size that the network declared when it was opened. The
  // actual output may be smaller, so the number of floats is checked.
  const bool inColumns = layout_.values < layout_.candidates;
  const int rows = outputDimensions[inColumns ? 0 : 1];
  const int cols = outputDimensions[inColumns ? 1 : 0];
  const auto info = output.front().GetTensorTypeAndShapeInfo();
  if (info.GetElementCount() < static_cast<std::size_t>(rows) * static_cast<std::size_t>(cols)) {
    logError("network output is too short," + dimensionsText(info.GetShape()), where);
    return std::nullopt;
  }
  const float* const floats = output.front().GetTensorData<float>();
  return Inference{std::move(input), std::move(output), FloatGrid{floats, rows, cols}, *scale};
}

}  // namespace TolCompatibleLib
