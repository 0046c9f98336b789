// Classification of a block of audio by its mel-spectrogram, which a service on the loopback
// interface computes. Input is [1, 3, mel bands, time steps] floats: the spectrogram three times.
// Output 0 begins with one score per class; the result is the best one divided by the sum of the
// positive ones.

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "OpenVINO/OvModel.h"
#include "OpenVINO/OvModels.h"
#include "Utils/ClassScore.h"
#include "Utils/Log.h"
#include "Utils/Objects.h"
#include "Utils/PreProcessUtils.h"

namespace TolCompatibleLib {
namespace {

class OvClassifyAudioNet final : public OvModel<VsaClassify> {
 public:
  OvClassifyAudioNet(const VsaModelConfig* modelConfig, const std::string& root)
      : OvModel("OvClassifyAudioNet", modelConfig, root) {}
  ~OvClassifyAudioNet() override { logInfo("~OvClassifyAudioNet()"); }
  bool run(VsaFrame* frame) override;
};

constexpr char kService[] = "http://127.0.0.1:9555";

/// Writes all rows one after the other into the first plane, truncated at its end or padded with
/// zeros, and copies that plane to the other two.
void fillSpectrogramPlanes(const MelSpectrogram& rows, std::size_t planeSize, float* planes) {
  std::size_t filled = 0;
  for (const std::vector<float>& row : rows) {
    const std::size_t count = std::min(row.size(), planeSize - filled);
    std::copy_n(row.begin(), count, planes + filled);
    filled += count;
  }
  std::fill(planes + filled, planes + planeSize, 0.0F);
  std::copy_n(planes, planeSize, planes + planeSize);
  std::copy_n(planes, planeSize, planes + 2 * planeSize);
}

/// The object for a block of audio: a point in the centre of the image that the audio belongs to.
VsaObject audioObject(const VsaFrame& frame, const ClassScore& best, const std::string& label) {
  const auto length = [](std::uint32_t side) {
    constexpr std::uint32_t kMaxInt = std::numeric_limits<std::int32_t>::max();
    return static_cast<std::int32_t>(std::min(side, kMaxInt));
  };
  const std::int32_t width = length(frame.width);
  const std::int32_t height = length(frame.height);
  return VsaObject(width, height, width / 2, height / 2, width / 2, height / 2, best.score,
                   best.classId, label);
}

bool OvClassifyAudioNet::run(VsaFrame* frame) {
  if (frame == nullptr) {
    logError("frame is null");
    return false;
  }
  if (frame->kind != kVsaAudioFrame) return false;
  MelSpectrogram rows;
  if (AudioToMelSpec(kService, *frame, rows) == 0) return false;
  if (rows.empty() || std::cmp_not_equal(rows.size(), inputSize.height)) {
    logError("mels error:" + std::to_string(rows.size()));
    return false;
  }
  // Deliberate: only the first row's length is checked; later rows are used whatever their length.
  if (std::cmp_not_equal(rows.front().size(), inputSize.width)) {
    logError("time_steps error:" + std::to_string(rows.front().size()));
    return false;
  }
  float* const planes = inputPlanes();
  if (planes == nullptr) return false;
  fillSpectrogramPlanes(rows, rows.size() * rows.front().size(), planes);
  inferRequest.infer();

  const ov::Tensor output = inferRequest.get_output_tensor(0);
  const auto scores = firstFloats(output, config->classCount);
  if (!scores) return false;
  const ClassScore best = bestClass(*scores);
  // As in the image classifier, a NaN score (the result of infinite scores) does not pass.
  if (best.score < config->scoreThreshold || std::isnan(best.score)) return true;
  const std::string* label = wantedName(best.classId, *config, frame->wantedLabels);
  if (label == nullptr) return true;
  if (frame->width > 0 && frame->height > 0) {
    frame->audioObjects.push_back(audioObject(*frame, best, *label));
  }
  frame->audioClassified = true;
  frame->audioScore = best.score;
  return true;
}

}  // namespace

std::unique_ptr<VsaClassify> makeOvClassifyAudioNet(const VsaModelConfig* config,
                                                    const std::string& modelRoot) {
  return std::make_unique<OvClassifyAudioNet>(config, modelRoot);
}

}  // namespace TolCompatibleLib
