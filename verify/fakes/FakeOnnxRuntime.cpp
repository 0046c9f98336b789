// The functions of ONNX Runtime that the library calls. Every returned object is allocated, so that
// an object that is never released is detected as a leak.

#include <onnxruntime_c_api.h>

#include <algorithm>

#include "FakeEngines.h"

struct OrtEnv {};
struct OrtSession {};
struct OrtSessionOptions {};
struct OrtMemoryInfo {};
struct OrtTypeInfo {
  std::vector<std::int64_t> dimensions;
};
struct OrtTensorTypeAndShapeInfo : OrtTypeInfo {};
struct OrtValue {
  FakeTensor content;
  const void* input = nullptr;
  std::size_t inputBytes = 0;
};

namespace {

template <class Object>
OrtStatusPtr make(Object** out, Object content = {}) {
  const EngineMemory own;
  *out = new Object(std::move(content));
  return nullptr;
}

template <class Object>
void release(Object* object) {
  delete object;
}

OrtTensorTypeAndShapeInfo infoOf(const FakeTensor& output) {
  return {{{output.shape.begin(), output.shape.end()}}};
}

OrtAllocator* allocator() {
  static OrtAllocator only{};
  only.Free = [](OrtAllocator*, void* name) { delete static_cast<char*>(name); };
  return &only;
}

const OrtApi* api() {
  static const OrtApi table = [] {
    OrtApi made{};
    made.CreateEnv = [](auto, auto, OrtEnv** out) noexcept { return make(out); };
    made.SetLanguageProjection = [](auto, auto) noexcept { return OrtStatusPtr(); };
    made.CreateSessionOptions = [](OrtSessionOptions** out) noexcept { return make(out); };
    made.SetSessionGraphOptimizationLevel = [](auto, auto) noexcept { return OrtStatusPtr(); };
    made.CreateSession = [](auto, auto, auto, OrtSession** out) noexcept { return make(out); };
    made.SessionGetInputCount = [](auto, std::size_t* count) noexcept {
      return *count = 1, OrtStatusPtr();
    };
    made.SessionGetOutputCount = [](auto, std::size_t* count) noexcept {
      return *count = fakeNetwork.outputs.size(), OrtStatusPtr();
    };
    made.GetAllocatorWithDefaultOptions = [](OrtAllocator** out) noexcept {
      return *out = allocator(), OrtStatusPtr();
    };
    made.SessionGetInputName = [](auto, auto, auto, char** name) noexcept {
      return make(name, 'i');
    };
    made.SessionGetOutputName = made.SessionGetInputName;
    made.SessionGetInputTypeInfo = [](auto, auto, OrtTypeInfo** out) noexcept {
      const EngineMemory own;
      return make<OrtTypeInfo>(out, {fakeNetwork.input});
    };
    made.SessionGetOutputTypeInfo = [](auto, std::size_t i, OrtTypeInfo** out) noexcept {
      const EngineMemory own;
      return make<OrtTypeInfo>(out, infoOf(fakeNetwork.outputs[i]));
    };
    made.GetOnnxTypeFromTypeInfo = [](auto, ONNXType* out) noexcept {
      return *out = ONNX_TYPE_TENSOR, OrtStatusPtr();
    };
    made.CastTypeInfoToTensorInfo = [](const OrtTypeInfo* info,
                                       const OrtTensorTypeAndShapeInfo** out) noexcept {
      return *out = static_cast<const OrtTensorTypeAndShapeInfo*>(info), OrtStatusPtr();
    };
    made.GetTensorElementType = [](auto, ONNXTensorElementDataType* out) noexcept {
      return *out = ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT, OrtStatusPtr();
    };
    made.GetDimensionsCount = [](const OrtTensorTypeAndShapeInfo* info, std::size_t* out) noexcept {
      return *out = info->dimensions.size(), OrtStatusPtr();
    };
    made.GetDimensions = [](const OrtTensorTypeAndShapeInfo* info, std::int64_t* out,
                            std::size_t) noexcept {
      return std::ranges::copy(info->dimensions, out), OrtStatusPtr();
    };
    made.CreateCpuMemoryInfo = [](auto, auto, OrtMemoryInfo** out) noexcept { return make(out); };
    made.CreateTensorWithDataAsOrtValue = [](auto, void* data, std::size_t bytes, auto, auto, auto,
                                             OrtValue** out) noexcept {
      return make<OrtValue>(out, {{}, data, bytes});
    };
    made.Run = [](auto, auto, auto, const OrtValue* const* inputs, auto, auto, auto,
                  OrtValue** out) noexcept {
      const EngineMemory own;
      inputChecksum.add(inputs[0]->input, inputs[0]->inputBytes);
      return make<OrtValue>(out, {fakeNetwork.outputs[0]});
    };
    made.GetTensorTypeAndShape = [](const OrtValue* value,
                                    OrtTensorTypeAndShapeInfo** out) noexcept {
      const EngineMemory own;
      return make(out, infoOf(value->content));
    };
    made.GetTensorShapeElementCount = [](const OrtTensorTypeAndShapeInfo* info,
                                         std::size_t* out) noexcept {
      *out = 1;
      for (const std::int64_t length : info->dimensions) *out *= static_cast<std::size_t>(length);
      return OrtStatusPtr();
    };
    made.GetTensorMutableData = [](OrtValue* value, void** out) noexcept {
      return *out = value->content.numbers.data(), OrtStatusPtr();
    };
#if ORT_API_VERSION >= 23  // newer headers call this one
    made.GetTensorData = [](const OrtValue* value, const void** out) noexcept {
      return *out = value->content.numbers.data(), OrtStatusPtr();
    };
#endif
    made.ReleaseEnv = release;
    made.ReleaseSession = release;
    made.ReleaseSessionOptions = release;
    made.ReleaseMemoryInfo = release;
    made.ReleaseTypeInfo = release;
    made.ReleaseTensorTypeAndShapeInfo = release;
    made.ReleaseValue = release;
    made.ReleaseRunOptions = [](OrtRunOptions*) {};
    return made;
  }();
  return &table;
}

}  // namespace

extern "C" const OrtApiBase* OrtGetApiBase() noexcept {
  static const OrtApiBase base{[](std::uint32_t) noexcept -> const OrtApi* {
                                 ++apiRequests;
                                 return hasOldOnnxRuntime ? nullptr : api();
                               },
                               []() noexcept { return "0.1"; }};
  return &base;
}
