#include "OnnxRuntime/OrDetect.h"

#include <array>

#include "Utils/Log.h"
#include "Utils/ModelPath.h"
#include "Utils/PreProcessUtils.h"

namespace TolCompatibleLib {
namespace {

std::string dimensionsText(const std::vector<std::int64_t>& dimensions) {
  std::string text;
  for (const std::int64_t dimension : dimensions) {
    text += text.empty() ? '[' : ',';
    text += std::to_string(dimension);
  }
  return text += ']';
}

/// What is wrong with an input or output that has to be a table of floats.
std::string wrongTensor(const char* what,
                        const std::optional<std::vector<std::int64_t>>& dimensions) {
  std::string text = what;
  if (dimensions) text.append(",").append(dimensionsText(*dimensions));
  return text;
}

/// The dimensions of a tensor of floats; nothing for anything else. A dimension that is not fixed
/// is -1.
std::optional<std::vector<std::int64_t>> floatDimensions(const Ort::TypeInfo& type) {
  if (type.GetONNXType() != ONNX_TYPE_TENSOR) return std::nullopt;
  const auto tensor = type.GetTensorTypeAndShapeInfo();
  if (tensor.GetElementType() != ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT) return std::nullopt;
  return tensor.GetShape();
}

}  // namespace

OrDetect::OrDetect(const VsaModelConfig* modelConfig, const std::string& root, OutputLayout layout,
                   std::source_location where)
    : VsaDetect(modelConfig, root), layout_(layout) {
  const std::string path = modelPath(*modelConfig, root);
  logInfo("modelPath=" + path + ",device=" + modelConfig->device, where);
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
  const auto input = floatDimensions(session->GetInputTypeInfo(0));
  if (!input || input->size() != 4) {
    logError(wrongTensor("network input is no float tensor of rank 4", input), where);
    return false;
  }
  if ((*input)[2] != std::int64_t{config->inputHeight} ||
      (*input)[3] != std::int64_t{config->inputWidth}) {
    logError("input_height=" + std::to_string((*input)[2]) +
                 ",input_width=" + std::to_string((*input)[3]),
             where);
    return false;
  }
  for (std::size_t i = 0; i < outputs; ++i) {
    outputNames.emplace_back(session->GetOutputNameAllocated(i, allocator).get());
  }
  const auto output = outputs == 0 ? std::nullopt : floatDimensions(session->GetOutputTypeInfo(0));
  if (!output || output->size() != 3) {
    logError(wrongTensor("network output is no float tensor of rank 3", output), where);
    return false;
  }
  // Deliberate: the low 32 bits of each.
  outputDimensions[0] = static_cast<std::int32_t>((*output)[layout_.values]);
  outputDimensions[1] = static_cast<std::int32_t>((*output)[layout_.candidates]);
  if (outputDimensions[0] < 1 || outputDimensions[1] < 1) {
    logError("network output has no fixed size," + dimensionsText(*output), where);
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
  if (!ready) logError("network was refused when it was opened", where);
  return ready;
}

std::optional<OrDetect::Answer> OrDetect::inferLetterboxed(const cv::Mat& image,
                                                           std::source_location where) {
  const std::optional<Letterbox> input = letterbox(image, inputSize, nullptr, where);
  if (!input) return std::nullopt;
  const std::array<std::int64_t, 4> shape{1, 3, inputSize.height, inputSize.width};
  cv::Mat planes(3 * inputSize.height, inputSize.width, CV_32FC1);
  fillUnitPlanes(input->canvas, planes.ptr<float>());

  const auto memory = Ort::MemoryInfo::CreateCpu(OrtDeviceAllocator, OrtMemTypeCPU);
  const auto value = Ort::Value::CreateTensor<float>(memory, planes.ptr<float>(), planes.total(),
                                                     shape.data(), shape.size());
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
  return Answer{std::move(values), FloatGrid{floats, rows, cols}, input->scale};
}

}  // namespace TolCompatibleLib
