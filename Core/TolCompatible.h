/// \file
/// Public interface of TolCompatibleLib: neural networks for video and audio analysis behind a flat
/// C-linkage interface.
///
/// A host fills a VsaModelConfig and a VsaModelContext, calls VsaModelInit, passes VsaFrame records
/// to VsaModelDetect, VsaModelClassify or VsaModelFeature, reads the results from the frame, and
/// calls VsaModelRelease.
///
/// Detectors report only the classes in VsaFrame::wantedClasses, which is empty by default: a host
/// that does not fill it gets no objects. The pose detector and the text detector ignore it.
///
/// Memory: the host owns every record; only VsaModelSet and the models in it belong to the library,
/// from VsaModelInit to VsaModelRelease. Records hold standard-library members, so host and library
/// must be built with the same standard library and, on Windows, the same dynamic runtime;
/// otherwise the assertions at the end of this file fail to compile. Members named reservedN only
/// preserve the offsets; the library neither reads nor writes them.
///
/// Threads: different contexts are independent of each other. Calls on one context must not
/// overlap, with one exception: on a context of engine "ONNXRuntime", several threads may be in
/// VsaModelDetect at once, each with a frame of its own. The library starts no thread and takes no
/// lock of its own. (The inference engines keep worker threads.)
///
/// Errors: a call that fails returns false and logs one "[E]" line to the host's glog, at glog's
/// information severity. (Frames of the wrong kind, and calls for which the context has no model,
/// are rejected silently.) Exceptions of the engines and of OpenCV are not caught: they leave
/// VsaModelInit, the three run calls and VsaGetDeviceSet as ov::Exception, Ort::Exception,
/// cv::Exception or std::exception. After an exception the model still accepts the next frame.
#pragma once

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

/// The only value of VsaModelContext::version that this library accepts.
inline constexpr char kVsaInterfaceVersion[] = "pub20240113";

/// Value of VsaFrame::kind for an image.
inline constexpr std::uint32_t kVsaImageFrame = 0;
/// Value of VsaFrame::kind for a block of audio.
inline constexpr std::uint32_t kVsaAudioFrame = 1;

/// Value of VsaShape::tag for the key points of a pose.
inline constexpr std::int32_t kVsaKeyPointsTag = 5;
/// Value of VsaShape::tag for the outline polygon of a segmented object.
inline constexpr std::int32_t kVsaOutlineTag = 10;

/// A point of the frame in pixels, x to the right and y down. Not clamped to the frame.
struct VsaPoint {
  /// Column.
  std::int32_t x = 0;
  /// Row.
  std::int32_t y = 0;
};

/// A list of points with a tag that says what they are.
struct VsaShape {
  /// kVsaKeyPointsTag or kVsaOutlineTag.
  std::int32_t tag = 0;
  /// Key points: all key points of the network, in its order, visible or not. Outline: the vertices
  /// of one closed polygon.
  std::vector<VsaPoint> points;
};

/// One result. Detectors and the audio classifier create objects; the image classifier, the feature
/// extractors and the text recognisers fill further fields of the objects in VsaFrame::objects.
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

  /// Width in pixels of the frame that the object was found in.
  std::int32_t imageWidth = 0;
  /// Height of that frame.
  std::int32_t imageHeight = 0;
  std::int32_t reserved8 = 0;
  /// Left edge of the box in frame pixels, at least 0. Text region: x of corner 0 (top left).
  std::int32_t left = 0;
  /// Top edge, at least 0. Text region: y of corner 0.
  std::int32_t top = 0;
  /// Right edge, at most imageWidth. Text region: x of corner 1 (top right).
  std::int32_t right = 0;
  /// Bottom edge, at most imageHeight. Text region: y of corner 1.
  std::int32_t bottom = 0;
  /// Text region: x of corner 2 (bottom right). The four corner fields are -1 for other models.
  std::int32_t cornerX2 = -1;
  /// Text region: y of corner 2.
  std::int32_t cornerY2 = -1;
  /// Text region: x of corner 3 (bottom left).
  std::int32_t cornerX3 = -1;
  /// Text region: y of corner 3.
  std::int32_t cornerY3 = -1;
  /// Rotation of an oriented box as the network returned it (YOLOv8: radians); -1 for every other
  /// model.
  float angle = -1.0F;
  /// Confidence score of the detector.
  float score = 0.0F;
  /// Index into VsaModelConfig::classNames.
  std::int32_t classId = 0;
  /// Copy of that name.
  std::string className;
  std::int32_t reserved88 = -1;
  /// Key points or outline; written by the pose and the segmentation detector.
  std::vector<VsaShape> shapes;
  /// Written by the image classifier: score of the best class divided by the sum of all positive
  /// scores, 0 to 1.
  float classifyScore = 0.0F;
  /// Written by the image classifier: index of that class; -1 before.
  std::int32_t classifyId = -1;
  /// Written by the image classifier: name of that class.
  std::string classifyName;
  /// Written by the text recognisers: 0 once `text` is set, -1 before.
  std::int32_t textId = -1;
  /// Written by the text recognisers, in the encoding of the dictionary: GBK (code page 936) with
  /// the built-in one, that of the host's classNames with another.
  std::string text;
  /// Written by the text recognisers: 1 once `text` is set.
  float textScore = 0.0F;
  std::int32_t reserved204 = -1;
  std::int32_t reserved208 = -1;
  /// Written by the feature extractors: 256 floats (DeepSort) or 128 (VsFaceNet), not normalised.
  std::vector<float> feature;
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
  /// "Detect", "Classify" or "Track" (feature extractors and text recognisers).
  std::string category;
  unsigned char reserved64[32] = {};
  /// Network family, for example "YOLO8" or "PaddleOCR"; compared exactly.
  std::string modelName;
  /// "OpenVINO" or "ONNXRuntime"; compared exactly.
  std::string engine;
  /// Device name as the engine knows it, for example "CPU".
  std::string device;
  /// Base name of the model file: without ".xml" for OpenVINO, the whole file name for ONNX
  /// Runtime.
  std::string modelFile;
  /// Folder of the model below VsaModelContext::modelRoot. If modelDir and modelFile are both
  /// empty, modelRoot is the whole path; see vsaModelPath.
  std::string modelDir;
  unsigned char reserved256[32] = {};
  /// Names of the classes by class id. A detection whose class has no name here is dropped. Text
  /// recognisers: the dictionary by class index, entry 0 standing for the CTC blank; for the model
  /// PaddleOCR, the single entry "paddleocr" selects the built-in dictionary.
  std::vector<std::string> classNames;
  /// Number of classes of the network. Pose detector: number of key points; 1 means 17.
  std::uint32_t classCount = 0;
  std::uint32_t reserved316 = 0;
  std::uint32_t reserved320 = 0;
  /// Width in pixels of the network's input. Text detector: frames with a longer side are shrunk to
  /// this length; 0 means 960. Text recogniser PaddleOCR: the width of a line; 0 means 320. Audio
  /// classifier: number of time steps.
  std::uint32_t inputWidth = 0;
  /// Height in pixels of the network's input. Text recogniser PaddleOCR: 0 means 48. Audio
  /// classifier: number of mel bands.
  std::uint32_t inputHeight = 0;
  std::uint32_t reserved332 = 0;
  /// Detectors keep candidates with a score (YOLOv5: class score) above this value, which must not
  /// be negative for networks that need NMS. Text detector: regions with a score of at least this
  /// value; 0 or less means 0.6. Classifiers: classes with a score of at least this value.
  float scoreThreshold = 0.0F;
  /// Non-maximum suppression (NMS): a box is dropped if its IoU with a box of higher score exceeds
  /// this value. Not negative.
  float nmsThreshold = 0.0F;
  /// YOLOv5 only: minimum objectness of a candidate.
  float objThreshold = 0.0F;
};

/// One image or one block of audio, and the results of the models that ran on it.
struct VsaFrame {
  /// kVsaImageFrame or kVsaAudioFrame. A model silently rejects the other kind.
  std::uint32_t kind = kVsaImageFrame;
  /// Image: first byte of height * width * 3 bytes, 8 bits a channel, blue-green-red, rows without
  /// gaps. Only read, and only during a call.
  void* data = nullptr;
  unsigned char reserved16[20] = {};
  /// Columns of the image; for audio, of the image that the audio belongs to, or 0.
  std::uint32_t width = 0;
  /// Rows, likewise.
  std::uint32_t height = 0;
  std::uint32_t reserved44 = 0;
  /// Audio: capacity of the host's buffer in bytes. This and the following fields down to
  /// audioFrameCount are sent to the mel-spectrogram service unchanged; the library itself uses
  /// only audioData and audioFrameSize.
  std::int32_t audioFrameMaxSize = 0;
  std::uint32_t reserved52 = 0;
  /// Audio: audioFrameSize bytes of PCM. Only read, and only during a call.
  const std::uint8_t* audioData = nullptr;
  unsigned char reserved64[16] = {};
  /// Audio: number of bytes at audioData, 0 or more.
  std::int32_t audioFrameSize = 0;
  /// Audio: samples per second of each channel.
  std::int32_t audioSampleRate = 0;
  /// Audio: samples of each channel in the block.
  std::int32_t audioNbSamples = 0;
  /// Audio: code of the sample format, as the service knows it.
  std::int32_t audioSampleFmt = 0;
  /// Audio: bytes of one sample of one channel.
  std::int32_t audioSampleFmtByteNum = 0;
  /// Audio: time stamp of the block, in the host's own units.
  std::int64_t pts = 0;
  unsigned char reserved112[8] = {};
  /// Audio: number of the block in its stream.
  std::int64_t audioFrameCount = 0;
  /// Detectors report only objects whose class name is in this set, so an empty set yields none.
  /// (The pose detector and the text detector ignore it.) Objects of other classes still take part
  /// in NMS.
  std::set<std::string> wantedClasses;
  /// The same for the labels of the classifiers.
  std::set<std::string> wantedLabels;
  /// Image results. Detectors append and never clear; the classifier and the text recogniser
  /// PaddleOCR also remove objects; other models only fill fields of the objects. The host clears
  /// the list between frames.
  std::vector<VsaObject> objects;
  /// Audio: set if a wanted class was recognised; never cleared by the library.
  bool audioClassified = false;
  /// Audio: score of that class.
  float audioScore = 0.0F;
  unsigned char reserved192[40] = {};
  /// Audio results; the library appends to them only if width and height are not 0.
  std::vector<VsaObject> audioObjects;
};

/// The models of a context; created by VsaModelInit, freed by VsaModelRelease. At most one pointer
/// is set.
struct VsaModelSet {
  /// Run by VsaModelDetect.
  TolCompatibleLib::VsaDetect* detect = nullptr;
  /// Run by VsaModelFeature.
  TolCompatibleLib::VsaFeature* feature = nullptr;
  /// Run by VsaModelClassify.
  TolCompatibleLib::VsaClassify* classify = nullptr;
};

/// The host's handle for one model.
struct VsaModelContext {
  /// Neither read nor written by the library.
  unsigned char reservedForHost[32] = {};
  /// Set by the host to kVsaInterfaceVersion.
  std::string version;
  /// Set by the host; read on every run.
  VsaModelConfig* config = nullptr;
  /// Folder of the model files without a separator at its end; copied by VsaModelInit.
  std::string modelRoot;
  /// Null at first; written by VsaModelInit, cleared by VsaModelRelease.
  VsaModelSet* models = nullptr;
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

/// Logs the call and the interface version. Always returns true. Not needed before other calls,
/// harmless if repeated.
VSA_API bool VsaGlobalInit();

/// Logs the call. Always returns true; models stay usable.
VSA_API bool VsaGlobalRelease();

/// Builds the model that `context->config` names and stores it in `context->models`.
///
/// Returns true if the model is ready to run. Returns false after one "[E]" line for
/// - a null context or a wrong version; `models` is unchanged,
/// - a null configuration; `models` is an empty set,
/// - an ONNX network that does not fit the configuration; `models` holds a model that rejects every
///   frame.
///
/// Returns false silently, with an empty set, if the library has no such model. An existing set is
/// not released: call VsaModelRelease first. Throws the engine's exception if the model file is
/// missing or broken or the device is unknown; `models` is unchanged then.
VSA_API bool VsaModelInit(VsaModelContext* context);

/// Destroys the model and frees the set; does nothing if there is none. Does not throw.
VSA_API void VsaModelRelease(VsaModelContext* context);

/// Runs the detector of the context on `frame` and appends the objects found to `frame->objects`.
/// If the call returns false or throws, nothing is appended. Returns false silently without a
/// detector and for a frame that is not an image, and after one "[E]" line for a frame without
/// pixels, a network whose input or output does not fit the configuration, and a box that does not
/// fit the int32 fields of an object. Returns true otherwise, also if nothing was found.
VSA_API bool VsaModelDetect(VsaModelContext* context, VsaFrame* frame);

/// The same for the classifier of the context: classifies `frame->objects`, or the audio block.
VSA_API bool VsaModelClassify(VsaModelContext* context, VsaFrame* frame);

/// The same for the feature extractor or text recogniser of the context: works on `frame->objects`.
VSA_API bool VsaModelFeature(VsaModelContext* context, VsaFrame* frame);

/// Adds the names of all engines and devices that models can run on to `devices` and removes
/// nothing.
VSA_API void VsaGetDeviceSet(VsaDeviceSet* devices);

/// Hardware codecs: there are none, so these calls return false or do nothing. The two Init calls
/// take a record whose version has the offset that it has in VsaModelContext, and log an "[E]" line
/// if it is not kVsaInterfaceVersion. The others read nothing and accept null.
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

// Host and library must share one layout of the standard library's types. The offsets of all fields
// follow from these sizes; the library checks them when it is built.
static_assert(sizeof(void*) == 8, "TolCompatibleLib is a 64-bit library");
#if defined(_MSC_VER)
static_assert(sizeof(std::string) == 32 && sizeof(std::vector<int>) == 24 &&
                  sizeof(std::set<std::string>) == 16,
              "build the host with the release runtime (/MD) and _ITERATOR_DEBUG_LEVEL 0");
#elif defined(__GLIBCXX__)
static_assert(_GLIBCXX_USE_CXX11_ABI == 1 && sizeof(std::string) == 32 &&
                  sizeof(std::vector<int>) == 24 && sizeof(std::set<std::string>) == 48,
              "build the host with the C++11 ABI of libstdc++ and without _GLIBCXX_DEBUG");
#else
#error "TolCompatibleLib needs libstdc++ or, on Windows, the standard library of Visual C++"
#endif
