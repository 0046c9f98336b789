// The OpenVINO models, one make function each. Each class is defined in its own file.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "VsaModel.h"

namespace TolCompatibleLib {

std::unique_ptr<VsaDetect> makeOvDetectYolo26(const VsaModelConfig* config,
                                              const std::string& modelRoot);
std::unique_ptr<VsaDetect> makeOvDetectYolo8(const VsaModelConfig* config,
                                             const std::string& modelRoot);
std::unique_ptr<VsaDetect> makeOvDetectYolo8Pose(const VsaModelConfig* config,
                                                 const std::string& modelRoot);
std::unique_ptr<VsaDetect> makeOvDetectYolo8Obb(const VsaModelConfig* config,
                                                const std::string& modelRoot);
std::unique_ptr<VsaDetect> makeOvDetectYolo8Seg(const VsaModelConfig* config,
                                                const std::string& modelRoot);
std::unique_ptr<VsaDetect> makeOvDetectYolo5(const VsaModelConfig* config,
                                             const std::string& modelRoot);
std::unique_ptr<VsaDetect> makeOvDetectPaddleOCR(const VsaModelConfig* config,
                                                 const std::string& modelRoot);
std::unique_ptr<VsaClassify> makeOvClassifyResNet(const VsaModelConfig* config,
                                                  const std::string& modelRoot);
std::unique_ptr<VsaClassify> makeOvClassifyAudioNet(const VsaModelConfig* config,
                                                    const std::string& modelRoot);
std::unique_ptr<VsaFeature> makeOvFeatureDeepSort(const VsaModelConfig* config,
                                                  const std::string& modelRoot);
std::unique_ptr<VsaFeature> makeOvFeaturePaddleOCR(const VsaModelConfig* config,
                                                   const std::string& modelRoot);
std::unique_ptr<VsaFeature> makeOvFeatureVsFaceNet(const VsaModelConfig* config,
                                                   const std::string& modelRoot);
std::unique_ptr<VsaFeature> makeOvFeatureVsOCR(const VsaModelConfig* config,
                                               const std::string& modelRoot);

/// Adds "OpenVINO-" + name for every device that OpenVINO offers, and "OpenVINO-GPU" if one of them
/// is a GPU. Logs the engine's version. Throws ov::Exception if the engine fails.
void addOpenVinoDevices(VsaDeviceSet& devices);

/// Adds these names for the devices in `available`.
void addOpenVinoDeviceNames(const std::vector<std::string>& available, VsaDeviceSet& devices);

}  // namespace TolCompatibleLib
