// The entry points, and the table of the models that they build.

#include "TolCompatible.h"

#include <cstddef>
#include <memory>
#include <string_view>
#include <utility>

#include "OnnxRuntime/OrModels.h"
#include "OpenVINO/OvModels.h"
#include "Utils/Log.h"
#include "VsaModel.h"

namespace TolCompatibleLib {
namespace {

/// Makes a model and stores it in its slot. If slot and make function have different types, this
/// does not compile.
template <auto slot, auto make>
bool build(VsaModelSet& set, const VsaModelConfig* config, const std::string& modelRoot) {
  auto model = make(config, modelRoot);
  const bool ready = model->ready;
  set.*slot = model.release();
  return ready;
}

struct ModelRow {
  ModelId id;
  bool (*build)(VsaModelSet& set, const VsaModelConfig* config, const std::string& modelRoot);
};

/// The models, in the order tried; the only registration there is. The engine "TensorRT" is known
/// and has no models. Feature extractors and text recognisers have the category "Track".
constexpr ModelRow kModels[] = {
    {{"OpenVINO", "Detect", "YOLO26"}, build<&VsaModelSet::detect, makeOvDetectYolo26>},
    {{"OpenVINO", "Detect", "YOLO8"}, build<&VsaModelSet::detect, makeOvDetectYolo8>},
    {{"OpenVINO", "Detect", "YOLO8-POSE"}, build<&VsaModelSet::detect, makeOvDetectYolo8Pose>},
    {{"OpenVINO", "Detect", "YOLO8-OBB"}, build<&VsaModelSet::detect, makeOvDetectYolo8Obb>},
    {{"OpenVINO", "Detect", "YOLO8-Seg"}, build<&VsaModelSet::detect, makeOvDetectYolo8Seg>},
    {{"OpenVINO", "Detect", "YOLO5"}, build<&VsaModelSet::detect, makeOvDetectYolo5>},
    {{"OpenVINO", "Detect", "PaddleOCR"}, build<&VsaModelSet::detect, makeOvDetectPaddleOCR>},
    {{"OpenVINO", "Classify", "ResNet"}, build<&VsaModelSet::classify, makeOvClassifyResNet>},
    {{"OpenVINO", "Classify", "AudioNet"}, build<&VsaModelSet::classify, makeOvClassifyAudioNet>},
    {{"OpenVINO", "Track", "DeepSort"}, build<&VsaModelSet::feature, makeOvFeatureDeepSort>},
    {{"OpenVINO", "Track", "PaddleOCR"}, build<&VsaModelSet::feature, makeOvFeaturePaddleOCR>},
    {{"OpenVINO", "Track", "VsFaceNet"}, build<&VsaModelSet::feature, makeOvFeatureVsFaceNet>},
    {{"OpenVINO", "Track", "VsOCR"}, build<&VsaModelSet::feature, makeOvFeatureVsOCR>},
    {{"ONNXRuntime", "Detect", "YOLO5"}, build<&VsaModelSet::detect, makeOrDetectYolo5>},
    {{"ONNXRuntime", "Detect", "YOLO8"}, build<&VsaModelSet::detect, makeOrDetectYolo8>},
    {{"ONNXRuntime", "Detect", "YOLO26"}, build<&VsaModelSet::detect, makeOrDetectYolo26>},
};

bool isSupported(const std::string& version) {
  if (version == kVsaInterfaceVersion) return true;
  logError("core:" + version + " not equal to vsa:" + kVsaInterfaceVersion);
  return false;
}

/// Checks the version in the host's record, of which only the offset of the version is known. There
/// is no hardware codec to open, so the result is always false.
bool openCodec(const void* record) {
  if (record == nullptr) {
    logError("context is null");
    return false;
  }
  const char* const version = static_cast<const char*>(record) + offsetof(VsaModelContext, version);
  isSupported(*reinterpret_cast<const std::string*>(version));
  return false;
}

/// Passes the frame to the model in `slot` unchecked: models reject what they cannot process.
template <auto slot>
bool runModel(const VsaModelContext* context, VsaFrame* frame) {
  if (context == nullptr || context->models == nullptr) {
    logError(context == nullptr ? "context is null" : "context has no models");
    return false;
  }
  auto* const model = context->models->*slot;
  return model != nullptr && model->run(frame);
}

}  // namespace

std::vector<ModelId> modelIds() {
  std::vector<ModelId> ids;
  for (const ModelRow& row : kModels) ids.push_back(row.id);
  return ids;
}

}  // namespace TolCompatibleLib

using TolCompatibleLib::logError;
using TolCompatibleLib::logInfo;

bool VsaGlobalInit() {
  logInfo("VsaGlobalInit()");
  logInfo(kVsaInterfaceVersion);
  return true;
}

bool VsaGlobalRelease() {
  logInfo("VsaGlobalRelease()");
  return true;
}

bool VsaModelInit(VsaModelContext* context) {
  if (context == nullptr) {
    logError("context is null");
    return false;
  }
  if (!TolCompatibleLib::isSupported(context->version)) return false;

  auto set = std::make_unique<VsaModelSet>();
  bool ready = false;
  if (const VsaModelConfig* config = context->config; config == nullptr) {
    logError("config is null");
  } else {
    for (const TolCompatibleLib::ModelRow& row : TolCompatibleLib::kModels) {
      if (config->engine == row.id.engine && config->category == row.id.category &&
          config->modelName == row.id.modelName) {
        ready = row.build(*set, config, context->modelRoot);
        break;
      }
    }
  }
  context->models = set.release();
  return ready;
}

void VsaModelRelease(VsaModelContext* context) {
  if (context == nullptr || context->models == nullptr) return;
  VsaModelSet& set = *context->models;
  delete std::exchange(set.detect, nullptr);
  delete std::exchange(set.feature, nullptr);
  delete std::exchange(set.classify, nullptr);
  delete std::exchange(context->models, nullptr);
}

bool VsaModelDetect(VsaModelContext* context, VsaFrame* frame) {
  return TolCompatibleLib::runModel<&VsaModelSet::detect>(context, frame);
}

bool VsaModelClassify(VsaModelContext* context, VsaFrame* frame) {
  return TolCompatibleLib::runModel<&VsaModelSet::classify>(context, frame);
}

bool VsaModelFeature(VsaModelContext* context, VsaFrame* frame) {
  return TolCompatibleLib::runModel<&VsaModelSet::feature>(context, frame);
}

void VsaGetDeviceSet(VsaDeviceSet* devices) {
  if (devices == nullptr) {
    logError("device set is null");
    return;
  }
  TolCompatibleLib::addOpenVinoDevices(*devices);
  TolCompatibleLib::addOnnxRuntimeDevices(*devices);
}

bool VsaHardwareDecodeInit(void* context) {
  return TolCompatibleLib::openCodec(context);
}

bool VsaHardwareEncodeInit(void* context) {
  return TolCompatibleLib::openCodec(context);
}

bool VsaHardwareDecode(void* /*context*/, void* /*frame*/) {
  return false;
}

bool VsaHardwareEncode(void* /*context*/, void* /*frame*/) {
  return false;
}

void VsaHardwareDecodeRelease(void* /*context*/) {}

void VsaHardwareEncodeRelease(void* /*context*/) {}
