// The layout of the records that hosts are built against: offsets and sizes on 64-bit Windows, on
// which a string takes 32 bytes, a vector 24 and a set 16. On another platform an offset changes by
// the size differences of the strings, vectors and sets before it, so one table covers all
// platforms. This file contains compile-time checks only.

#include <cstddef>

#include "TolCompatible.h"

namespace TolCompatibleLib {
namespace {

/// Offset on this platform of a field, or size of a record, whose offset or size on Windows is
/// `windows`, if it follows that number of strings, vectors and sets. (Size differences may be
/// negative; unsigned arithmetic still gives the right sum.)
constexpr std::size_t at(std::size_t windows, std::size_t strings = 0, std::size_t vectors = 0,
                         std::size_t sets = 0) {
  return windows + strings * (sizeof(std::string) - 32) +
         vectors * (sizeof(std::vector<int>) - 24) + sets * (sizeof(VsaDeviceSet) - 16);
}

#if defined(__GNUC__)
// A set need not be a standard-layout type, but GCC and Clang know its offset.
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
#endif

static_assert(sizeof(VsaPoint) == 8 && offsetof(VsaPoint, x) == 0 && offsetof(VsaPoint, y) == 4);
static_assert(sizeof(VsaShape) == at(32, 0, 1) && offsetof(VsaShape, tag) == 0 &&
              offsetof(VsaShape, points) == 8);

static_assert(offsetof(VsaModelContext, version) == 32);
static_assert(offsetof(VsaModelContext, config) == at(64, 1));
static_assert(offsetof(VsaModelContext, modelRoot) == at(72, 1));
static_assert(offsetof(VsaModelContext, models) == at(104, 2));
static_assert(sizeof(VsaModelContext) == at(112, 2));

static_assert(offsetof(VsaModelSet, detect) == 0 && offsetof(VsaModelSet, feature) == 8);
static_assert(offsetof(VsaModelSet, classify) == 16 && sizeof(VsaModelSet) == 24);

static_assert(offsetof(VsaModelConfig, category) == 32);
static_assert(offsetof(VsaModelConfig, reserved64) == at(64, 1));
static_assert(offsetof(VsaModelConfig, modelName) == at(96, 1));
static_assert(offsetof(VsaModelConfig, engine) == at(128, 2));
static_assert(offsetof(VsaModelConfig, device) == at(160, 3));
static_assert(offsetof(VsaModelConfig, modelFile) == at(192, 4));
static_assert(offsetof(VsaModelConfig, modelDir) == at(224, 5));
static_assert(offsetof(VsaModelConfig, reserved256) == at(256, 6));
static_assert(offsetof(VsaModelConfig, classNames) == at(288, 6));
static_assert(offsetof(VsaModelConfig, classCount) == at(312, 6, 1));
static_assert(offsetof(VsaModelConfig, reserved316) == at(316, 6, 1));
static_assert(offsetof(VsaModelConfig, reserved320) == at(320, 6, 1));
static_assert(offsetof(VsaModelConfig, inputWidth) == at(324, 6, 1));
static_assert(offsetof(VsaModelConfig, inputHeight) == at(328, 6, 1));
static_assert(offsetof(VsaModelConfig, reserved332) == at(332, 6, 1));
static_assert(offsetof(VsaModelConfig, scoreThreshold) == at(336, 6, 1));
static_assert(offsetof(VsaModelConfig, nmsThreshold) == at(340, 6, 1));
static_assert(offsetof(VsaModelConfig, objThreshold) == at(344, 6, 1));
static_assert(sizeof(VsaModelConfig) == at(352, 6, 1));

static_assert(offsetof(VsaFrame, kind) == 0 && offsetof(VsaFrame, data) == 8);
static_assert(offsetof(VsaFrame, reserved16) == 16 && offsetof(VsaFrame, width) == 36);
static_assert(offsetof(VsaFrame, height) == 40 && offsetof(VsaFrame, audioFrameMaxSize) == 48);
static_assert(offsetof(VsaFrame, audioData) == 56 && offsetof(VsaFrame, reserved64) == 64);
static_assert(offsetof(VsaFrame, audioFrameSize) == 80 &&
              offsetof(VsaFrame, audioSampleRate) == 84);
static_assert(offsetof(VsaFrame, audioNbSamples) == 88 && offsetof(VsaFrame, audioSampleFmt) == 92);
static_assert(offsetof(VsaFrame, audioSampleFmtByteNum) == 96 && offsetof(VsaFrame, pts) == 104);
static_assert(offsetof(VsaFrame, reserved112) == 112 && offsetof(VsaFrame, audioFrameCount) == 120);
static_assert(offsetof(VsaFrame, wantedClasses) == 128);
static_assert(offsetof(VsaFrame, wantedLabels) == at(144, 0, 0, 1));
static_assert(offsetof(VsaFrame, objects) == at(160, 0, 0, 2));
static_assert(offsetof(VsaFrame, audioClassified) == at(184, 0, 1, 2));
static_assert(offsetof(VsaFrame, audioScore) == at(188, 0, 1, 2));
static_assert(offsetof(VsaFrame, reserved192) == at(192, 0, 1, 2));
static_assert(offsetof(VsaFrame, audioObjects) == at(232, 0, 1, 2));
static_assert(sizeof(VsaFrame) == at(256, 0, 2, 2));

static_assert(offsetof(VsaObject, imageWidth) == 0 && offsetof(VsaObject, imageHeight) == 4);
static_assert(offsetof(VsaObject, reserved8) == 8 && offsetof(VsaObject, left) == 12);
static_assert(offsetof(VsaObject, top) == 16 && offsetof(VsaObject, right) == 20);
static_assert(offsetof(VsaObject, bottom) == 24 && offsetof(VsaObject, cornerX2) == 28);
static_assert(offsetof(VsaObject, cornerY2) == 32 && offsetof(VsaObject, cornerX3) == 36);
static_assert(offsetof(VsaObject, cornerY3) == 40 && offsetof(VsaObject, angle) == 44);
static_assert(offsetof(VsaObject, score) == 48 && offsetof(VsaObject, classId) == 52);
static_assert(offsetof(VsaObject, className) == 56);
static_assert(offsetof(VsaObject, reserved88) == at(88, 1));
static_assert(offsetof(VsaObject, shapes) == at(96, 1));
static_assert(offsetof(VsaObject, classifyScore) == at(120, 1, 1));
static_assert(offsetof(VsaObject, classifyId) == at(124, 1, 1));
static_assert(offsetof(VsaObject, classifyName) == at(128, 1, 1));
static_assert(offsetof(VsaObject, textId) == at(160, 2, 1));
static_assert(offsetof(VsaObject, text) == at(168, 2, 1));
static_assert(offsetof(VsaObject, textScore) == at(200, 3, 1));
static_assert(offsetof(VsaObject, reserved204) == at(204, 3, 1));
static_assert(offsetof(VsaObject, reserved208) == at(208, 3, 1));
static_assert(offsetof(VsaObject, feature) == at(216, 3, 1));
static_assert(offsetof(VsaObject, reserved240) == at(240, 3, 2));
static_assert(offsetof(VsaObject, reserved244) == at(244, 3, 2));
static_assert(offsetof(VsaObject, reserved264) == at(264, 3, 2));
static_assert(offsetof(VsaObject, reserved296) == at(296, 4, 2));
static_assert(offsetof(VsaObject, reserved328) == at(328, 5, 2));
static_assert(sizeof(VsaObject) == at(360, 6, 2));

}  // namespace
}  // namespace TolCompatibleLib
