#include "OnnxRuntime/OrDetect.h"

#include <array>

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

/// What an input or output is: its type as ONNX Runtime numbers it (ONNXType,
/// ONNXTensorElementDataType) and, of a tensor, its dimensions. A dimension that is not fixed is
/// -1.
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

}  // namespace

void requireOnnxRuntime() {
  if (OrtGetApiBase()->GetApi(ORT_API_VERSION) != nullptr) return;
  throw Ort::Exception(std::string("ONNX Runtime ") + OrtGetApiBase()->GetVersionString() +
                           " is older than this library needs",
                       ORT_NOT_IMPLEMENTED);
}

OrDetect::OrDetect(const VsaModelConfig* modelConfig, const std::string& root, OutputLayout layout,
                   std::source_location where)
    : VsaDetect(modelConfig, root), layout_(layout) {
  const std::string path = vsaModelPath(*modelConfig, root);
  logInfo("modelPath=" + path + ",device=" + modelConfig->device, where);
  requireOnnxRuntime();
  environment = Ort::Env(ORT_LOGGING_LEVEL_WARNING, modelConfig->modelName.c_str());
  Ort::SessionOptions options;
  options.SetGraphOptimizationLevel(ORT_ENABLE_BASIC);
  session = std::make_unique<Ort::Session>(environment, widened<ORTCHAR_T>(path).c_str(), options);
  ready = fits(where);
  // A refused network is closed at once: the destructor goes by `ready` alone.
  if (!ready) session.reset();
}

bool OrDetect::fits(std::source_location where) {
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
  // Further dimensions and the type are ONNX Runtime's to refuse, when the network runs.
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
  // Deliberate: the low 32 bits of each.
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
  // Members fall in reverse order: the session before the environment that it lives in.
  if (ready) session.reset();
}

bool OrDetect::isOpen(std::source_location where) const {
  if (session == nullptr) logError("network was refused when it was opened", where);
  return session != nullptr;
}

std::optional<OrDetect::Answer> OrDetect::inferLetterboxed(const cv::Mat& image,
                                                           std::source_location where) {
  const std::array<std::int64_t, 4> shape{1, 3, inputSize.height, inputSize.width};
  const std::size_t count = std::size_t{3} * static_cast<std::size_t>(inputSize.height) *
                            static_cast<std::size_t>(inputSize.width);
  if (planes_ == nullptr) planes_ = std::make_unique_for_overwrite<float[]>(count);
  const std::optional<float> scale =
      letterboxPlanes(image, inputSize, planes_.get(), &padding_, where);
  if (!scale) return std::nullopt;

  const auto memory = Ort::MemoryInfo::CreateCpu(OrtDeviceAllocator, OrtMemTypeCPU);
  const auto value =
      Ort::Value::CreateTensor<float>(memory, planes_.get(), count, shape.data(), shape.size());
  const char* const inputName = inputNames.front().c_str();
  const char* const outputName = outputNames.front().c_str();
  std::vector<Ort::Value> values =
      session->Run(Ort::RunOptions{nullptr}, &inputName, &value, 1, &outputName, 1);

  // Deliberate: the size known since the network was opened governs the decoding. A network may
  // break its word, so there have to be as many floats at least.
  const bool inColumns = layout_.values < layout_.candidates;
  const int rows = outputDimensions[inColumns ? 0 : 1];
  const int cols = outputDimensions[inColumns ? 1 : 0];
  const auto told = values.front().GetTensorTypeAndShapeInfo();
  if (told.GetElementCount() < static_cast<std::size_t>(rows) * static_cast<std::size_t>(cols)) {
    logError("network output is too short," + dimensionsText(told.GetShape()), where);
    return std::nullopt;
  }
  const float* const floats = values.front().GetTensorData<float>();
  return Answer{std::move(values), FloatGrid{floats, rows, cols}, *scale};
}

}  // namespace TolCompatibleLib
