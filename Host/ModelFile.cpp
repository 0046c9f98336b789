#include "ModelFile.h"

#include <onnxruntime_cxx_api.h>

#include <array>
#include <filesystem>
#include <memory>
#include <numeric>
#include <openvino/openvino.hpp>
#include <stdexcept>
#include <utility>

#include "Messages.h"

#if !defined(_WIN32)
#include <fcntl.h>
#include <unistd.h>
#endif

namespace vsa {
namespace {

namespace fs = std::filesystem;

using Shape = std::vector<std::int64_t>;

// Exporters write metadata into OpenVINO's run-time information at three levels: the top, the group
// of the YOLO exporters, and the group to which ovc copies the metadata of an ONNX file.
constexpr std::array<const char*, 2> kGroups = {"model_info", "framework"};
constexpr std::array<const char*, 10> kKeys = {"names",  "labels", "imgsz",     "task",
                                               "stride", "author", "character", "kpt_shape",
                                               "args",   "version"};

Port portOf(const ov::Output<const ov::Node>& node) {
  Port port;
  const auto& names = node.get_names();
  port.name = names.empty() ? "" : *names.begin();
  port.type = node.get_element_type().to_string();
  const ov::PartialShape& shape = node.get_partial_shape();
  port.ranked = shape.rank().is_static();
  if (!port.ranked) return port;
  for (const ov::Dimension& side : shape) {
    port.shape.push_back(side.is_static() ? side.get_length() : kAnySize);
  }
  return port;
}

// While an object of this class exists, standard error is discarded. OpenVINO tries all its readers
// on a file of unknown format, and some of them print messages.
class Silence {
 public:
#if defined(_WIN32)
  Silence() {}  // not trivial, so that the compiler does not warn about an unused variable
#else
  Silence() : kept_(dup(STDERR_FILENO)) {
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (kept_ >= 0 && null >= 0) dup2(null, STDERR_FILENO);
    if (null >= 0) close(null);
  }
  ~Silence() {
    if (kept_ < 0) return;
    dup2(kept_, STDERR_FILENO);
    close(kept_);
  }
  Silence(const Silence&) = delete;
  Silence& operator=(const Silence&) = delete;

 private:
  int kept_;
#endif
};

ModelFile readOpenVino(const std::string& path) {
  const Silence silence;
  ModelFile file;
  ov::Core core;
  const std::shared_ptr<const ov::Model> model = core.read_model(path);
  for (const auto& input : model->inputs()) file.inputs.push_back(portOf(input));
  for (const auto& output : model->outputs()) file.outputs.push_back(portOf(output));
  const auto read = [&](const std::vector<std::string>& keys) {
    try {
      if (model->has_rt_info(keys)) {
        file.metadata.emplace(keys.back(), model->get_rt_info<ov::Any>(keys).as<std::string>());
      }
    } catch (const ov::Exception&) {
      // Values that are not text are skipped.
    }
  };
  for (const char* key : kKeys) {
    for (const char* group : kGroups) read({group, key});
    if (std::string_view(key) != "version") read({key});  // at the top level: version of the format
  }
  return file;
}

// The usual element types by name, others by number.
std::string typeText(ONNXTensorElementDataType type) {
  static const std::map<ONNXTensorElementDataType, std::string> names = {
      {ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT, "f32"},  {ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT16, "f16"},
      {ONNX_TENSOR_ELEMENT_DATA_TYPE_DOUBLE, "f64"}, {ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT8, "u8"},
      {ONNX_TENSOR_ELEMENT_DATA_TYPE_INT32, "i32"},  {ONNX_TENSOR_ELEMENT_DATA_TYPE_INT64, "i64"},
  };
  const auto name = names.find(type);
  return name == names.end() ? "type " + std::to_string(type) : name->second;
}

Port portOf(std::string name, const Ort::TypeInfo& info) {
  Port port{std::move(name), "", false};
  if (info.GetONNXType() != ONNX_TYPE_TENSOR) return port;
  const auto tensor = info.GetTensorTypeAndShapeInfo();
  port.type = typeText(tensor.GetElementType());
  port.shape = tensor.GetShape();
  port.ranked = true;
  return port;
}

Ort::Session openOnnx(const Ort::Env& environment, const std::string& path,
                      GraphOptimizationLevel level) {
  Ort::SessionOptions options;
  options.SetGraphOptimizationLevel(level);
  // A path is wide on Windows.
  const std::basic_string<ORTCHAR_T> file = fs::path(path).native();
  return {environment, file.c_str(), options};
}

// An engine older than the headers returns a null function table.
void requireOnnxRuntime() {
  if (OrtGetApiBase()->GetApi(ORT_API_VERSION) == nullptr) {
    throw std::runtime_error("ONNX Runtime is older than the version that vsa was built for");
  }
}

// An environment that logs nothing, because the engine would log the text that it also throws.
Ort::Env quietEnvironment() {
  requireOnnxRuntime();
  return {ORT_LOGGING_LEVEL_FATAL, "vsa"};
}

ModelFile readOnnx(const std::string& path) {
  ModelFile file;
  const Ort::Env environment = quietEnvironment();
  const Ort::Session session = openOnnx(environment, path, ORT_DISABLE_ALL);
  const Ort::AllocatorWithDefaultOptions allocator;
  for (std::size_t i = 0; i < session.GetInputCount(); ++i) {
    file.inputs.push_back(
        portOf(session.GetInputNameAllocated(i, allocator).get(), session.GetInputTypeInfo(i)));
  }
  for (std::size_t i = 0; i < session.GetOutputCount(); ++i) {
    file.outputs.push_back(
        portOf(session.GetOutputNameAllocated(i, allocator).get(), session.GetOutputTypeInfo(i)));
  }
  const Ort::ModelMetadata metadata = session.GetModelMetadata();
  for (const char* key : kKeys) {
    const auto value = metadata.LookupCustomMetadataMapAllocated(key, allocator);
    if (value) file.metadata.emplace(key, value.get());
  }
  return file;
}

}  // namespace

std::string Port::text() const {
  if (type.empty()) return "not a tensor";
  std::string text = type + " [";
  for (const std::int64_t side : shape) {
    if (!text.ends_with('[')) text += ',';
    text += side < 0 ? "?" : std::to_string(side);
  }
  return text + (ranked ? "]" : "...]");
}

ModelFile readModelFile(const std::string& path) {
  std::error_code unused;
  if (fs::is_directory(path, unused)) {
    throw std::runtime_error(path + ": a folder, not a network file");
  }
  if (!fs::is_regular_file(path, unused)) throw std::runtime_error(path + ": no such file");
  const bool isXml = fs::path(path).extension() == ".xml";
  ModelFile file;
  try {
    file = isXml ? readOpenVino(path) : readOnnx(path);
  } catch (const std::exception& error) {
    throw std::runtime_error(path + ": " + oneLine(error.what()));
  } catch (...) {
    throw std::runtime_error(path + ": unknown error of the engine");
  }
  file.path = path;
  file.engine = isXml ? "OpenVINO" : "ONNXRuntime";
  return file;
}

BareNetwork openBare(const std::string& engine, const std::string& path,
                     const std::string& device) {
  if (engine == "OpenVINO") {
    const auto core = std::make_shared<ov::Core>();  // must outlive the network
    ov::InferRequest request = core->compile_model(path, device).create_infer_request();
    return [core, request, input = ov::Tensor()](const Shape& shape) mutable {
      const ov::Shape wanted(shape.begin(), shape.end());
      if (!input || input.get_shape() != wanted) {
        input = ov::Tensor(ov::element::f32, wanted);
        std::fill_n(input.data<float>(), input.get_size(), 0.5F);
        request.set_input_tensor(input);
      }
      request.infer();
    };
  }
  const auto environment = std::make_shared<Ort::Env>(quietEnvironment());
  const auto session =
      std::make_shared<Ort::Session>(openOnnx(*environment, path, ORT_ENABLE_BASIC));
  const Ort::AllocatorWithDefaultOptions allocator;
  const std::string input = session->GetInputNameAllocated(0, allocator).get();
  const std::string output = session->GetOutputNameAllocated(0, allocator).get();
  return [=, pixels = std::vector<float>()](const Shape& shape) mutable {
    const auto count =
        std::accumulate(shape.begin(), shape.end(), std::int64_t{1}, std::multiplies<>());
    pixels.resize(static_cast<std::size_t>(count), 0.5F);
    const auto memory = Ort::MemoryInfo::CreateCpu(OrtDeviceAllocator, OrtMemTypeCPU);
    const auto value = Ort::Value::CreateTensor<float>(memory, pixels.data(), pixels.size(),
                                                       shape.data(), shape.size());
    const char* const inputName = input.c_str();
    const char* const outputName = output.c_str();
    session->Run(Ort::RunOptions{nullptr}, &inputName, &value, 1, &outputName, 1);
  };
}

}  // namespace vsa
