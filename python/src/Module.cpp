// The extension tolcompatible._native: the calls of the library on the records of the public
// header. The package in python/tolcompatible checks arguments and turns the results into what
// users see.
#include <nanobind/nanobind.h>
#include <nanobind/ndarray.h>
#include <nanobind/stl/optional.h>
#include <nanobind/stl/set.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/vector.h>

#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "DeviceNames.h"
#include "EngineCall.h"
#include "Frame.h"
#include "LogLines.h"
#include "Messages.h"
#include "Model.h"
#include "Objects.h"  // of the host
#include "Pipeline.h"
#include "ReadingOrder.h"
#include "Report.h"
#include "Results.h"
#include "Text.h"

namespace nb = nanobind;

namespace python {
namespace {

using Image = nb::ndarray<const std::uint8_t, nb::shape<-1, -1, 3>, nb::c_contig, nb::device::cpu>;
using Audio = nb::ndarray<nb::ro, nb::ndim<2>, nb::c_contig, nb::device::cpu>;
using Boxes = nb::ndarray<const std::int32_t, nb::shape<-1, 4>, nb::c_contig, nb::device::cpu>;

constexpr int kSigned16 = 1;  // codes of sample formats, as in FFmpeg's AVSampleFormat
constexpr int kFloat = 3;

// A call of the library failed.
struct Error : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Set by the package: takes whether the line is an error, its file, line number and text.
nb::object& logger() {
  static auto* const function = new nb::object(nb::none());
  return *function;
}

void passOn(const std::vector<LogLine>& lines) {
  for (const LogLine& line : lines) {
    logger()(line.isError, line.file, line.line, toString(line.text));
  }
}

// The text of the last error line; empty if there is none.
std::string lastError(const std::vector<LogLine>& lines) {
  for (auto line = lines.rbegin(); line != lines.rend(); ++line) {
    if (line->isError) return vsa::repairUtf8(vsa::oneLine(line->text));
  }
  return {};
}

// Calls the library without the GIL, passes its log lines on, and throws Error with the line or the
// exception that says why it failed. `work` returns whether it succeeded.
template <class Work>
void call(const std::string& subject, Work work) {
  const EngineCall permission;
  std::vector<LogLine> lines;
  std::string reason;
  bool succeeded = false;
  {
    LogCollector collector;
    const nb::gil_scoped_release released;
    try {
      succeeded = work();
    } catch (const std::exception& error) {
      reason = vsa::oneLine(error.what());
    }
    lines = collector.take();
  }
  passOn(lines);
  if (succeeded) return;
  const std::string logged = lastError(lines);
  if (reason.empty()) reason = logged.empty() ? "the model refused the frame" : logged;
  if (reason.find(logged) == std::string::npos) reason += ": " + logged;
  throw Error(subject.empty() ? reason : subject + ": " + reason);
}

// A model of the library. All calls of one model are made one after the other.
class Model {
 public:
  explicit Model(const vsa::ModelSpec& spec) : spec_(spec) {
    call("", [&] {
      model_ = std::make_unique<vsa::Model>(spec_);
      return true;
    });
  }
  Model(const Model&) = delete;
  Model& operator=(const Model&) = delete;

  ~Model() {
    const nb::error_scope saved;  // an exception may be pending
    try {
      close();
    } catch (nb::python_error& error) {
      error.discard_as_unraisable("tolcompatible.Model");
    }
  }

  const vsa::ModelSpec& spec() const { return spec_; }

  bool isClosed() const { return isClosed_; }

  // Waits for a call of another thread. At the end of the interpreter there is none, and a thread
  // that releases the GIL may not get it back.
  void close() {
    isClosed_ = true;
    if (isForked()) {
      // The threads that the engine would end do not exist in this process.
      static_cast<void>(model_.release());
      return;
    }
    if (areCallsFinished()) {
      model_.reset();
      return;
    }
    const CountedCall counted;
    LogCollector collector;
    {
      const nb::gil_scoped_release released;
      const std::lock_guard lock(mutex_);
      model_.reset();
    }
    passOn(collector.take());
  }

  // `previous` is null or the result of another model for the same image.
  Objects runOnImage(const Image& image, const Objects* previous) {
    VsaFrame frame;
    // The library only reads the pixels.
    frame.data = const_cast<std::uint8_t*>(image.data());
    frame.width = static_cast<std::uint32_t>(image.shape(1));
    frame.height = static_cast<std::uint32_t>(image.shape(0));
    if (previous != nullptr) frame.objects = previous->list;
    run(&frame);
    vsa::sortTextRegions(&frame.objects);
    return {std::move(frame.objects), frame.width, frame.height};
  }

  // `samples` has one row for each moment and one column for each channel.
  Objects runOnAudio(const Audio& samples, int rate, double seconds, std::int64_t index,
                     const Objects* previous) {
    const bool isFloat = samples.dtype() == nb::dtype<float>();
    if (!isFloat && samples.dtype() != nb::dtype<std::int16_t>()) {
      throw nb::type_error("samples must be int16 or float32");
    }
    constexpr std::size_t kMaxBytes = 1 << 28;  // as in vsa
    if (samples.nbytes() > kMaxBytes) throw nb::value_error("the block is larger than 256 MiB");
    VsaFrame block;
    block.kind = kVsaAudioFrame;
    // The library reports the recognised classes as objects only if the size is not 0.
    block.width = 1;
    block.height = 1;
    block.audioData = static_cast<const std::uint8_t*>(samples.data());
    block.audioFrameSize = static_cast<std::int32_t>(samples.nbytes());
    block.audioFrameMaxSize = block.audioFrameSize;
    block.audioSampleRate = rate;
    block.audioNbSamples = static_cast<std::int32_t>(samples.shape(0));
    block.audioSampleFmt = isFloat ? kFloat : kSigned16;
    block.audioSampleFmtByteNum = static_cast<std::int32_t>(samples.itemsize());
    block.pts = std::llround(seconds * 1000.0);
    block.audioFrameCount = index;
    if (previous != nullptr) {
      block.audioObjects = previous->list;
      block.audioClassified = previous->isClassified;
      block.audioScore = previous->audioScore;
    }
    run(&block);
    return {std::move(block.audioObjects), 0, 0, block.audioClassified, block.audioScore};
  }

 private:
  void run(VsaFrame* frame) {
    call(spec_.location, [&] {
      const std::lock_guard lock(mutex_);
      if (!model_) throw std::runtime_error("the model is closed");
      vsa::removeEmptyBoxes(spec_, &frame->objects);
      return model_->run(frame);
    });
  }

  vsa::ModelSpec spec_;
  std::mutex mutex_;
  std::unique_ptr<vsa::Model> model_;
  std::atomic<bool> isClosed_ = false;
};

// The models of a pipeline. `content` is the content of the file, or None to read it; with content,
// messages about its models name `path` alone.
nb::tuple openPipeline(const nb::bytes& path, const std::optional<nb::bytes>& content) {
  const std::string file(path.c_str(), path.size());
  const std::string text = content ? std::string(content->c_str(), content->size()) : "";
  vsa::Pipeline pipeline;
  if (areCallsFinished()) throw NotAllowed("the interpreter is shutting down");
  {
    const CountedCall counted;
    const nb::gil_scoped_release released;  // reading a pipe waits for whoever writes to it
    pipeline = content ? vsa::parsePipeline(text, file) : vsa::readPipeline(file);
  }
  nb::list models;
  for (vsa::ModelSpec& spec : pipeline.models) {
    if (content) spec.location = file;
    models.append(nb::cast(new Model(spec), nb::rv_policy::take_ownership));
  }
  return nb::make_tuple(models, pipeline.takesAudio, pipeline.blockSeconds);
}

vsa::FrameInfo infoOf(const nb::bytes& input, std::int64_t index, std::optional<double> time) {
  vsa::FrameInfo info;
  info.input.assign(input.c_str(), input.size());
  info.index = index;
  info.time = time;
  return info;
}

std::string imageJson(const Objects& objects, const nb::bytes& input, std::int64_t index,
                      std::optional<double> time) {
  vsa::FrameInfo info = infoOf(input, index, time);
  info.width = static_cast<int>(objects.width);
  info.height = static_cast<int>(objects.height);
  return vsa::frameJson(info, objects.list);
}

std::string audioJson(const Objects& objects, const nb::bytes& input, std::int64_t index,
                      double time, double duration) {
  vsa::FrameInfo info = infoOf(input, index, time);
  info.duration = duration;
  VsaFrame block;
  block.audioObjects = objects.list;
  block.audioClassified = objects.isClassified;
  block.audioScore = objects.audioScore;
  return vsa::blockJson(info, block);
}

Objects fromBoxes(std::uint32_t width, std::uint32_t height, const Boxes& boxes,
                  const std::vector<float>& scores, const std::vector<std::int32_t>& classIds,
                  const std::vector<std::string>& classNames) {
  const std::size_t count = boxes.shape(0);
  if (scores.size() != count || classIds.size() != count || classNames.size() != count) {
    throw nb::value_error("boxes, scores, class ids and class names differ in number");
  }
  Objects objects{{}, width, height};
  for (std::size_t i = 0; i < count; ++i) {
    objects.list.emplace_back(static_cast<std::int32_t>(width), static_cast<std::int32_t>(height),
                              boxes(i, 0), boxes(i, 1), boxes(i, 2), boxes(i, 3), scores[i],
                              classIds[i], classNames[i]);
  }
  return objects;
}

// The inverse of imageJson() and audioJson().
Objects fromJson(const std::string& line) {
  Json::Value json;
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  std::string errors;
  const bool isRead =
      reader->parse(line.data(), line.data() + line.size(), &json, &errors) && json.isObject();
  const bool isAudio = isRead && json["classified"].isBool();
  if (!isAudio && (!isRead || !json["width"].isInt() || !json["height"].isInt())) {
    throw nb::value_error("not a frame in JSON");
  }
  const cv::Size size =
      isAudio ? cv::Size() : cv::Size(json["width"].asInt(), json["height"].asInt());
  Objects objects;
  objects.width = static_cast<std::uint32_t>(size.width);
  objects.height = static_cast<std::uint32_t>(size.height);
  if (isAudio) {
    objects.isClassified = json["classified"].asBool();
    objects.audioScore = json["score"].asFloat();
  }
  for (Json::Value& object : json["objects"]) {
    if (isAudio && object.isObject()) {
      for (int side = 0; side < 4; ++side) object["box"][side] = 0;  // audio has no position
    }
    objects.list.push_back(vsa::objectFromJson(object, size));
  }
  return objects;
}

std::set<std::string> devices() {
  VsaDeviceSet names;
  call("", [&] {
    names = vsa::deviceNames();
    return true;
  });
  return names;
}

// An exception type of the package. `bases` is a type or a tuple of types.
nb::object makeException(nb::module_& module, const char* name, const char* doc, nb::handle bases) {
  const std::string qualified = std::string("tolcompatible.") + name;
  nb::object type =
      nb::steal(PyErr_NewExceptionWithDoc(qualified.c_str(), doc, bases.ptr(), nullptr));
  module.attr(name) = type;
  return type;
}

}  // namespace
}  // namespace python

NB_MODULE(_native, module) {
  using python::Model;
  using python::Objects;
  // Objects that are alive when the interpreter ends are freed with the process.
  nb::set_leak_warnings(false);
  // Suppresses messages of the engine's thread library on systems that do not describe their
  // processor (many containers).
  setenv("HWLOC_HIDE_ERRORS", "2", 0);
  python::startLogging();

  static PyObject* error = nullptr;
  static PyObject* pipelineError = nullptr;
  error = python::makeException(module, "Error",
                                "A model could not be opened, or refused a frame. The message "
                                "holds the library's error line or the engine's message.",
                                PyExc_RuntimeError)
              .release()
              .ptr();
  pipelineError =
      python::makeException(module, "PipelineError",
                            "A pipeline file or an argument of Model is wrong. The message "
                            "names the place.",
                            nb::make_tuple(nb::handle(error), nb::handle(PyExc_ValueError)))
          .release()
          .ptr();
  nb::register_exception_translator([](const std::exception_ptr& thrown, void*) {
    try {
      std::rethrow_exception(thrown);
    } catch (const vsa::PipelineError& caught) {
      PyErr_SetString(pipelineError, vsa::repairUtf8(caught.what()).c_str());
    } catch (const python::Error& caught) {
      PyErr_SetString(error, vsa::repairUtf8(caught.what()).c_str());
    } catch (const python::NotAllowed& caught) {
      PyErr_SetString(error, vsa::repairUtf8(caught.what()).c_str());
    }
  });

  module.attr("interface_version") = kVsaInterfaceVersion;
  module.def("set_logger", [](nb::object function) { python::logger() = std::move(function); });
  module.def("finish_calls", &python::finishCalls);
  module.def("devices", &python::devices);
  module.def("open_pipeline", &python::openPipeline, nb::arg("path"),
             nb::arg("content").none() = nb::none());

  nb::class_<Objects>(module, "Objects")
      .def("__len__", [](const Objects& objects) { return objects.list.size(); })
      .def_static("from_boxes", &python::fromBoxes)
      .def_static("from_json", &python::fromJson)
      .def("take", &python::take)
      .def("image_json", &python::imageJson, nb::arg("input"), nb::arg("frame"),
           nb::arg("time").none())
      .def("audio_json", &python::audioJson)
      .def_ro("width", &Objects::width)
      .def_ro("height", &Objects::height)
      .def_ro("classified", &Objects::isClassified)
      .def_ro("audio_score", &Objects::audioScore)
      .def("boxes", &python::boxes)
      .def("scores", &python::scores)
      .def("class_ids", &python::classIds)
      .def("class_names", &python::classNames)
      .def("angles", &python::angles)
      .def("corners", &python::corners)
      .def("key_points", &python::keyPoints)
      .def("outlines", &python::outlines)
      .def("label_ids", &python::labelIds)
      .def("label_scores", &python::labelScores)
      .def("label_names", &python::labelNames)
      .def("texts", &python::texts)
      .def("features", &python::features);

  nb::class_<Model>(module, "Model")
      .def("run_on_image", &Model::runOnImage, nb::arg("image").noconvert(),
           nb::arg("previous").none() = nb::none())
      .def("run_on_audio", &Model::runOnAudio, nb::arg("samples").noconvert(), nb::arg("rate"),
           nb::arg("time"), nb::arg("index"), nb::arg("previous").none())
      .def("close", &Model::close)
      .def_prop_ro("closed", &Model::isClosed)
      .def_prop_ro("takes_audio", [](const Model& model) { return model.spec().takesAudio(); })
      .def_prop_ro("name", [](const Model& model) { return python::toString(model.spec().name); })
      .def_prop_ro("class_names", [](const Model& model) {
        nb::list names;
        for (const std::string& name : model.spec().config.classNames) {
          names.append(python::toString(name));
        }
        return names;
      });
}
