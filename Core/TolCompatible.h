/// \file
/// Public interface of TolCompatibleLib: neural networks for video and audio analysis behind one
/// flat set of calls.
///
/// A host fills a VsaModelConfig and a VsaModelContext, calls VsaModelInit, hands VsaFrame records
/// to VsaModelDetect, VsaModelClassify or VsaModelFeature, reads the results out of the frame, and
/// calls VsaModelRelease.
///
/// Memory: the host owns every record; only VsaModelSet and the models in it belong to the library,
/// from VsaModelInit to VsaModelRelease. Records hold standard-library members, so host and library
/// must be built with the same standard library and, on Windows, the same dynamic runtime; the
/// assertions at the end of this file stop a host that is not. Members named reservedN only keep
/// their places; the library neither reads nor writes them.
///
/// Threads: different contexts are independent of each other. Calls on one context must not
/// overlap, with one exception: on a context of engine "ONNXRuntime", several threads may be in
/// VsaModelDetect at once, each with a frame of its own. The library starts no thread and takes no
/// lock of its own. (The inference engines keep worker threads.)
///
/// Errors: a call returns false after one "[E]" line in the host's glog, written at glog's
/// information severity. (Frames of the other kind, and calls that no model is there for, are
/// refused silently.) Exceptions of the engines and of OpenCV are not caught: they leave
/// VsaModelInit, the three run calls and VsaGetDeviceSet as ov::Exception, Ort::Exception,
/// cv::Exception or std::exception, and the model keeps working on the next frame.
#pragma once

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

/// \def VSA_API
/// Marks an entry point: exported by the library, imported by hosts.
#if !defined(_WIN32)
#define VSA_API __attribute__((visibility("default")))
#elif defined(TolCompatibleLib_EXPORTS)
#define VSA_API __declspec(dllexport)
#else
#define VSA_API __declspec(dllimport)
#endif

namespace TolCompatibleLib {
class VsaDetect;
class VsaFeature;
class VsaClassify;
}  // namespace TolCompatibleLib

/// The one value of VsaModelContext::version that this library accepts.
inline constexpr char kVsaInterfaceVersion[] = "pub20240113";

/// Values of VsaFrame::kind.
inline constexpr std::uint32_t kVsaImageFrame = 0;
inline constexpr std::uint32_t kVsaAudioFrame = 1;  ///< \copydoc kVsaImageFrame

/// Values of VsaShape::tag: key points of a pose, outline polygon of a segmented object.
inline constexpr std::int32_t kVsaKeyPointsTag = 5;
inline constexpr std::int32_t kVsaOutlineTag = 10;  ///< \copydoc kVsaKeyPointsTag

/// A point of the frame in pixels, x to the right and y down. Not clamped to the frame.
struct VsaPoint {
  std::int32_t x = 0;  ///< Column.
  std::int32_t y = 0;  ///< Row.
};

/// A list of points with a tag that says what they are (kVsaKeyPointsTag, kVsaOutlineTag).
struct VsaShape {
  std::int32_t tag = 0;  ///< kVsaKeyPointsTag or kVsaOutlineTag.
  /// Key points: all of the network's, in its order, whether seen or not. Outline: the corners of
  /// one closed polygon.
  std::vector<VsaPoint> points;
};

/// One result. Detectors and the audio classifier make objects; the image classifier, the feature
/// extractors and the text recognisers fill further fields of the objects that they find in
/// VsaFrame::objects.
struct VsaObject {
  /// An object with every field at its default.
  VsaObject() = default;

  /// An object with a box in frame pixels, clamped to the frame: left and top to at least 0, right
  /// to at most `frameWidth`, bottom to at most `frameHeight`. Nothing else is checked, so `right`
  /// may be less than `left`.
  VsaObject(std::int32_t frameWidth, std::int32_t frameHeight, std::int32_t x1, std::int32_t y1,
            std::int32_t x2, std::int32_t y2, float confidence, std::int32_t classIndex,
            const std::string& label)
      : imageWidth(frameWidth),
        imageHeight(frameHeight),
        left(x1 > 0 ? x1 : 0),
        top(y1 > 0 ? y1 : 0),
        right(x2 < frameWidth ? x2 : frameWidth),
        bottom(y2 < frameHeight ? y2 : frameHeight),
        score(confidence),
        classId(classIndex),
        className(label) {}

  std::int32_t imageWidth = 0;   ///< Width in pixels of the frame that the object was found in.
  std::int32_t imageHeight = 0;  ///< Height of that frame.
  std::int32_t reserved8 = 0;
  std::int32_t left = 0;    ///< Box in frame pixels; of a text region, x of corner 0 (top left).
  std::int32_t top = 0;     ///< Of a text region, y of corner 0.
  std::int32_t right = 0;   ///< At most imageWidth; of a text region, x of corner 1 (top right).
  std::int32_t bottom = 0;  ///< At most imageHeight; of a text region, y of corner 1.
  std::int32_t cornerX2 =
      -1;  ///< Corner 2 (bottom right) of a text region; -1 for every other model.
  std::int32_t cornerY2 = -1;  ///< Likewise.
  std::int32_t cornerX3 =
      -1;  ///< Corner 3 (bottom left) of a text region; -1 for every other model.
  std::int32_t cornerY3 = -1;  ///< Likewise.
  float angle =
      -1.0F;  ///< Rotation of an oriented box as the network gave it; -1 for every other model.
  float score = 0.0F;        ///< Confidence of the detector.
  std::int32_t classId = 0;  ///< Index into VsaModelConfig::classNames.
  std::string className;     ///< Copy of that name.
  std::int32_t reserved88 = -1;
  std::vector<VsaShape>
      shapes;  ///< Key points or outline; written by the pose and segmentation detectors.
  float classifyScore =
      0.0F;  ///< Written by the image classifier: share of the best class, 0 to 1.
  std::int32_t classifyId =
      -1;                    ///< Written by the image classifier: index of that class; -1 before.
  std::string classifyName;  ///< Written by the image classifier: name of that class.
  std::int32_t textId = -1;  ///< 0 once a text recogniser wrote `text`.
  /// Written by the text recognisers, in the encoding of the dictionary: GBK (code page 936) with
  /// the built-in one, that of the host's classNames with another.
  std::string text;
  float textScore = 0.0F;  ///< 1 once a text recogniser wrote `text`.
  std::int32_t reserved204 = -1;
  std::int32_t reserved208 = -1;
  std::vector<float>
      feature;  ///< Written by the feature extractors: 256 or 128 numbers, not normalised.
  std::int32_t reserved240 = -1;
  std::int32_t reserved244[5] = {};
  std::string reserved264;
  std::string reserved296;
  std::string reserved328;
};

/// What a model is and how it runs. The host fills it before VsaModelInit and keeps it, unchanged,
/// until VsaModelRelease: the model keeps the pointer and reads the record on every run.
struct VsaModelConfig {
  unsigned char reserved0[32] = {};
  std::string
      category;  ///< "Detect", "Classify" or "Track" (feature extractors and text recognisers).
  unsigned char reserved64[32] = {};
  std::string modelName;  ///< Network family, for example "YOLO8" or "PaddleOCR"; compared exactly.
  std::string engine;     ///< "OpenVINO" or "ONNXRuntime"; compared exactly.
  std::string device;     ///< Device name as the engine knows it, for example "CPU".
  /// Base name of the model file: without ".xml" for OpenVINO, the whole file name for ONNX
  /// Runtime.
  std::string modelFile;
  /// Folder of the model below VsaModelContext::modelRoot. Where modelDir and modelFile are both
  /// empty, modelRoot is the whole path; else it is modelRoot + "/" + modelDir + "/" + modelFile,
  /// also when one of the two is empty.
  std::string modelDir;
  unsigned char reserved256[32] = {};
  /// Names of the classes by class id. A detection whose class has no name here is left out. For
  /// the text recogniser the dictionary by class index, entry 0 standing for the blank; the one
  /// entry "paddleocr" selects the built-in one.
  std::vector<std::string> classNames;
  /// Number of classes of the network. For the pose detector the number of key points, 1
  /// meaning 17.
  std::uint32_t classCount = 0;
  std::uint32_t reserved316 = 0;
  std::uint32_t reserved320 = 0;
  /// Width in pixels of the network's input. Text detector: the longest side that a frame is shrunk
  /// to, 0 meaning 960. Text recogniser: the width of a line, 0 meaning 320. Audio classifier:
  /// number of time steps.
  std::uint32_t inputWidth = 0;
  /// Height of the network's input. Text recogniser: 0 means 48. Audio classifier: number of mel
  /// bands.
  std::uint32_t inputHeight = 0;
  std::uint32_t reserved332 = 0;
  /// Detections score above it; not negative where overlaps are suppressed. Text detector: regions
  /// score at least it, 0 or less meaning 0.6. Classifiers: at least it.
  float scoreThreshold = 0.0F;
  float nmsThreshold = 0.0F;  ///< Boxes that overlap a better one by more than this share (IoU) are
                              ///< left out; not negative.
  float objThreshold = 0.0F;  ///< YOLOv5 only: candidates have at least this objectness.
};

/// One image or one block of audio, and the results of the models that ran on it.
struct VsaFrame {
  std::uint32_t kind = kVsaImageFrame;  ///< kVsaImageFrame or kVsaAudioFrame; a model silently
                                        ///< refuses the other kind.
  /// Image: first byte of height * width * 3 bytes, 8 bits a channel, blue-green-red, rows without
  /// gaps. Only read, and only during a call.
  void* data = nullptr;
  unsigned char reserved16[20] = {};
  std::uint32_t width =
      0;  ///< Columns of the image; for audio, of the picture that the sound belongs to, or 0.
  std::uint32_t height = 0;  ///< Rows, likewise.
  std::uint32_t reserved44 = 0;
  /// Audio: this and the fields down to audioFrameCount go to the spectrogram service as they are;
  /// the library itself uses audioFrameSize alone. Here the room of the host's buffer in bytes.
  std::int32_t audioFrameMaxSize = 0;
  std::uint32_t reserved52 = 0;
  const std::uint8_t* audioData =
      nullptr;  ///< Audio: audioFrameSize bytes of PCM. Only read, only during a call.
  unsigned char reserved64[16] = {};
  std::int32_t audioFrameSize = 0;   ///< Audio: number of bytes at audioData, 0 or more.
  std::int32_t audioSampleRate = 0;  ///< Audio: samples a second of each channel.
  std::int32_t audioNbSamples = 0;   ///< Audio: samples of each channel in the block.
  std::int32_t audioSampleFmt = 0;   ///< Audio: code of the sample format, as the service knows it.
  std::int32_t audioSampleFmtByteNum = 0;  ///< Audio: bytes of one sample of one channel.
  std::int64_t pts = 0;                    ///< Audio: time of the block, in the host's own units.
  unsigned char reserved112[8] = {};
  std::int64_t audioFrameCount = 0;  ///< Audio: number of the block in its stream.
  /// Detectors report only objects whose class name is in here, so an empty set yields none. (The
  /// pose and the text detector report all.) Classes that are left out still suppress what they
  /// overlap.
  std::set<std::string> wantedClasses;
  std::set<std::string> wantedLabels;  ///< The same for the labels of the classifiers.
  /// Image results. Detectors append and never clear; the classifier and the text recognisers
  /// rewrite the list, the feature extractors fill its objects. The host clears it between frames.
  std::vector<VsaObject> objects;
  bool audioClassified =
      false;  ///< Audio: set when a wanted class was recognised; never cleared by the library.
  float audioScore = 0.0F;  ///< Audio: score of that class.
  unsigned char reserved192[40] = {};
  std::vector<VsaObject>
      audioObjects;  ///< Audio results, appended to where width and height are not 0.
};

/// The models of a context; made by VsaModelInit, freed by VsaModelRelease. At most one pointer is
/// set.
struct VsaModelSet {
  TolCompatibleLib::VsaDetect* detect = nullptr;      ///< Run by VsaModelDetect.
  TolCompatibleLib::VsaFeature* feature = nullptr;    ///< Run by VsaModelFeature.
  TolCompatibleLib::VsaClassify* classify = nullptr;  ///< Run by VsaModelClassify.
};

/// The host's handle for one model.
struct VsaModelContext {
  unsigned char reservedForHost[32] = {};  ///< Neither read nor written by the library.
  std::string version;                     ///< Set by the host to kVsaInterfaceVersion.
  VsaModelConfig* config = nullptr;        ///< Set by the host; read on every run.
  std::string modelRoot;  ///< Folder of the model files without a separator at its end; copied.
  VsaModelSet* models =
      nullptr;  ///< Written by VsaModelInit, cleared by VsaModelRelease. Null at first.
};

/// Path of the model file that `config` names below `modelRoot`, as the library logs it. Nothing is
/// normalised: an empty modelDir leaves two slashes in a row. OpenVINO models open this path with
/// ".xml" appended, ONNX Runtime models open it as it is.
inline std::string vsaModelPath(const VsaModelConfig& config, const std::string& modelRoot) {
  if (config.modelDir.empty() && config.modelFile.empty()) return modelRoot;
  return modelRoot + "/" + config.modelDir + "/" + config.modelFile;
}

/// Names of engines with their devices, for example "OpenVINO-CPU".
using VsaDeviceSet = std::set<std::string>;

extern "C" {

/// Logs the call and the interface version. Always true; not needed before other calls,
/// harmless when repeated.
VSA_API bool VsaGlobalInit();

/// Logs that the host is done. Always true; models stay usable.
VSA_API bool VsaGlobalRelease();

/// Builds the model that `context->config` names and stores it in `context->models`.
///
/// Returns true when the model is ready to run. Returns false, with one "[E]" line, for a null
/// context or a wrong version, which leave `models` as it was, for a null configuration, which
/// leaves an empty set, and for an ONNX network that does not fit the configuration, which leaves a
/// set whose model refuses every frame; and silently, with an empty set, where the library has no
/// such model. A set that is already there is not released: call VsaModelRelease first. Throws what
/// the engine throws for a missing or broken model file or an unknown device; `models` is then as
/// it was.
VSA_API bool VsaModelInit(VsaModelContext* context);

/// Destroys the model and frees the set; does nothing where there is none. Does not throw.
VSA_API void VsaModelRelease(VsaModelContext* context);

/// Runs the detector of the context on `frame` and appends what it finds to `frame->objects`, all
/// of it or, when the call returns false or throws, nothing. False without a detector, for a frame
/// that is not an image, and after one "[E]" line for a frame without pixels or a network whose
/// input or output does not fit the configuration. True otherwise, also when nothing was found.
VSA_API bool VsaModelDetect(VsaModelContext* context, VsaFrame* frame);

/// The same for the classifier of the context: classifies `frame->objects`, or the audio block.
VSA_API bool VsaModelClassify(VsaModelContext* context, VsaFrame* frame);

/// The same for the feature extractor or text recogniser of the context: works on `frame->objects`.
VSA_API bool VsaModelFeature(VsaModelContext* context, VsaFrame* frame);

/// Adds the names of all engines and devices that models can run on to `devices`, which keeps what
/// it holds.
VSA_API void VsaGetDeviceSet(VsaDeviceSet* devices);

/// Hardware codecs: there are none, so these calls report failure or do nothing. The two Init calls
/// take a record whose version lies where VsaModelContext has it, and log an "[E]" line when it is
/// not kVsaInterfaceVersion; the others read nothing and take null.
VSA_API bool VsaHardwareDecodeInit(void* context);
/// Always false; see VsaHardwareDecodeInit.
VSA_API bool VsaHardwareDecode(void* context, void* frame);
/// Does nothing; see VsaHardwareDecodeInit.
VSA_API void VsaHardwareDecodeRelease(void* context);
/// See VsaHardwareDecodeInit.
VSA_API bool VsaHardwareEncodeInit(void* context);
/// Always false; see VsaHardwareDecodeInit.
VSA_API bool VsaHardwareEncode(void* context, void* frame);
/// Does nothing; see VsaHardwareDecodeInit.
VSA_API void VsaHardwareEncodeRelease(void* context);

}  // extern "C"

// The layout that hosts are built against: offsets and sizes on 64-bit Windows, where a string
// takes 32 bytes, a vector 24 and a set 16. Elsewhere each offset moves with the strings, vectors
// and sets before it, so one table serves all.
namespace TolCompatibleLib::layout {

static_assert(sizeof(void*) == 8, "TolCompatibleLib is a 64-bit library");
#if defined(_MSC_VER)
static_assert(sizeof(std::string) == 32 && sizeof(std::vector<int>) == 24 &&
                  sizeof(VsaDeviceSet) == 16,
              "build the host with the release runtime (/MD) and _ITERATOR_DEBUG_LEVEL 0");
#endif

/// Where a field or end of record at offset `windows` lies here, with so many strings, vectors and
/// sets before it. (Differences may be negative; unsigned arithmetic makes the sum right all the
/// same.)
constexpr std::size_t at(std::size_t windows, std::size_t strings = 0, std::size_t vectors = 0,
                         std::size_t sets = 0) {
  return windows + strings * (sizeof(std::string) - 32) +
         vectors * (sizeof(std::vector<int>) - 24) + sets * (sizeof(VsaDeviceSet) - 16);
}

#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored \
    "-Winvalid-offsetof"  // a set may be no standard-layout member; GCC and Clang can tell
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

#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif

}  // namespace TolCompatibleLib::layout
