// YOLOv8 detection: one anchor-free head.
// Output 0 is [1, 4 + classes, N] floats; column i is candidate i:
//   rows 0-3   centre x, centre y, width, height in network pixels
//   rows 4-    one activated score per class; the best one is the candidate's score
// NMS works across classes, and before the host's class filter.
//
// The list of OpenVINO's devices is here, too: its log line carries this file's name.

#include "OpenVINO/OvModel.h"
#include "OpenVINO/OvModels.h"
#include "Utils/Log.h"
#include "Utils/Objects.h"
#include "Utils/YoloDecode.h"

namespace TolCompatibleLib {
namespace {

class OvDetectYolo8 final : public OvModel<VsaDetect> {
 public:
  OvDetectYolo8(const VsaModelConfig* modelConfig, const std::string& root)
      : OvModel("OvDetectYolo8", modelConfig, root) {}
  ~OvDetectYolo8() override { logInfo("~OvDetectYolo8()"); }
  bool run(VsaFrame* frame) override;
};

bool OvDetectYolo8::run(VsaFrame* frame) {
  const auto inference = inferLetterboxed(frame);
  if (!inference) return false;
  const FloatGrid& columns = inference->grid;
  if (!checkDimension("Yolo8", std::size_t(columns.rows), std::size_t{config->classCount} + 4)) {
    return false;
  }
  const Candidates candidates =
      decodeYolo8(columns, static_cast<int>(config->classCount), config->scoreThreshold);
  FrameObjects found = wantedObjects(candidates, inference->scale, *config, *frame);
  if (logBadBox(found.badBox)) return false;
  append(frame->objects, std::move(found.objects));
  return true;
}

}  // namespace

std::unique_ptr<VsaDetect> makeOvDetectYolo8(const VsaModelConfig* config,
                                             const std::string& modelRoot) {
  return std::make_unique<OvDetectYolo8>(config, modelRoot);
}

void addOpenVinoDevices(VsaDeviceSet& devices) {
  logInfo(std::string("OpenVINO ") + ov::get_openvino_version().buildNumber);
  addOpenVinoDeviceNames(ov::Core("").get_available_devices(), devices);
}

void addOpenVinoDeviceNames(const std::vector<std::string>& available, VsaDeviceSet& devices) {
  for (const std::string& device : available) {
    // "GPU" stands for any GPU, so a host need not choose between GPU.0 and GPU.1.
    if (device.find("GPU") != std::string::npos) devices.insert("OpenVINO-GPU");
    devices.insert("OpenVINO-" + device);
  }
}

}  // namespace TolCompatibleLib
