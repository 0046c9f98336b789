// A host in C++17 that includes only the public header and the engines' exception types.
// verify/hosts compiles it with each compiler, also as C++20, and runs it for each way of loading
// the library; ctest runs two of the combinations.
//
// Usage: HostMatrix LIBRARY (linked | local | global | deepbind) (plain | initialised) NETWORKS
//
// NETWORKS is a folder with yolo8.xml and yolo8.onnx of tests/support/make_onnx.py. Prints the
// expectations that were not met and, as the last line, the number of those that were; the exit
// code is 0 if all were met.
#define ORT_API_MANUAL_INIT  // only the types are used: ONNX Runtime is not linked
#if defined(_WIN32)
#include <windows.h>
#else
#include <dlfcn.h>
#endif
#include <glog/logging.h>
#include <onnxruntime_cxx_api.h>

#include <atomic>
#include <iostream>
#include <openvino/core/except.hpp>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "TolCompatible.h"

namespace {

int met = 0;
int failed = 0;
void expect(bool isMet, const std::string& what) {
  ++(isMet ? met : failed);
  if (!isMet) std::cout << "FAULT: " << what << "\n";
}

#if defined(_WIN32)

std::runtime_error lastError() {
  return std::runtime_error("Windows error " + std::to_string(GetLastError()));
}

/// The library, loaded by its file name.
struct LoadedFile {
  LoadedFile(const char* file, const std::string& /*mode*/) : handle(LoadLibraryA(file)) {
    if (handle == nullptr) throw lastError();
  }
  ~LoadedFile() { FreeLibrary(handle); }
  LoadedFile(const LoadedFile&) = delete;
  LoadedFile& operator=(const LoadedFile&) = delete;

  void* symbol(const char* name) const {
    const FARPROC found = GetProcAddress(handle, name);
    if (found == nullptr) throw lastError();
    return reinterpret_cast<void*>(found);
  }

  HMODULE handle;
};

#else

/// The library, loaded by its file name.
struct LoadedFile {
  LoadedFile(const char* file, const std::string& mode) {
    const int flags = mode == "global"     ? RTLD_GLOBAL
                      : mode == "deepbind" ? RTLD_LOCAL | RTLD_DEEPBIND
                                           : RTLD_LOCAL;
    // A linked library is loaded already; its symbols are those of the program.
    handle = dlopen(mode == "linked" ? nullptr : file, RTLD_NOW | flags);
    if (handle == nullptr) throw std::runtime_error(dlerror());
  }
  ~LoadedFile() { dlclose(handle); }
  LoadedFile(const LoadedFile&) = delete;
  LoadedFile& operator=(const LoadedFile&) = delete;

  void* symbol(const char* name) const {
    void* const found = dlsym(handle, name);
    if (found == nullptr) throw std::runtime_error(dlerror());
    return found;
  }

  void* handle;
};

#endif

struct Library {
  Library(const char* path, const std::string& mode) : file(path, mode) {
    init = find<decltype(VsaModelInit)>("VsaModelInit");
    detect = find<decltype(VsaModelDetect)>("VsaModelDetect");
    release = find<decltype(VsaModelRelease)>("VsaModelRelease");
  }

  template <class Function>
  Function* find(const char* name) const {
    return reinterpret_cast<Function*>(file.symbol(name));
  }

  LoadedFile file;
  decltype(VsaModelInit)* init;
  decltype(VsaModelDetect)* detect;
  decltype(VsaModelRelease)* release;
};

/// A log sink of the host that counts the lines of the library.
struct Sink : google::LogSink {
  void send(google::LogSeverity, const char* file, const char*, int, const google::LogMessageTime&,
            const char*, size_t) override {
    lines += std::string(file).rfind("Core/", 0) == 0 ? 1 : 0;
  }
  std::atomic<int> lines = 0;
};

struct Model {
  Model(const std::string& engine, const std::string& path, const std::string& device) {
    config.engine = engine;
    config.category = "Detect";
    config.modelName = "YOLO8";
    config.device = device;
    config.classNames = {"a", "b"};
    config.classCount = 2;
    config.inputWidth = config.inputHeight = 64;
    config.scoreThreshold = 0.25F;
    config.nmsThreshold = 0.5F;
    context.version = kVsaInterfaceVersion;
    context.config = &config;
    context.modelRoot = path;
  }
  VsaModelConfig config;
  VsaModelContext context;
};

template <class Exception>
bool throws(const Library& library, Model& model) {
  try {
    library.init(&model.context);
  } catch (const Exception& error) {
    return std::string(error.what()).size() > 1 && model.context.models == nullptr;
  } catch (...) {
  }
  return false;
}

void check(const Library& library, const std::string& networks) {
  Sink sink;
  google::AddLogSink(&sink);
  using Throws = bool (*)(const Library&, Model&);
  const std::tuple<std::string, std::string, std::string, Throws> faults[] = {
      {"OpenVINO", "nowhere", "CPU", throws<ov::Exception>},
      {"OpenVINO", networks + "/yolo8", "NONE", throws<ov::Exception>},
      {"ONNXRuntime", "nowhere", "CPU", throws<Ort::Exception>},
  };
  for (const auto& [engine, path, device, throwsTyped] : faults) {
    Model model(engine, path, device);
    const std::string what = engine + " with " + path + " on " + device;
    expect(throwsTyped(library, model), what + ", by the engine's type");
    expect(throws<std::exception>(library, model), what + ", as std::exception");
    library.release(&model.context);
  }
#if TOL_FAKE_OPENVINO
  const std::vector<std::string> engines = {"ONNXRuntime"};  // the stand-in opens no files
#else
  const std::vector<std::string> engines = {"OpenVINO", "ONNXRuntime"};
#endif
  for (const std::string& engine : engines) {
    Model model(engine, networks + (engine == "OpenVINO" ? "/yolo8" : "/yolo8.onnx"), "CPU");
    std::string pixels(std::size_t{3} * 64 * 64, '\x40');
    VsaFrame frame;
    frame.data = pixels.data();
    frame.width = frame.height = 64;
    frame.wantedClasses = {"a", "b"};
    expect(library.init(&model.context) && library.detect(&model.context, &frame),
           engine + " runs");
    expect(frame.objects.size() == 2 && frame.objects[0].className == "b",
           engine + " finds the two objects");
    library.release(&model.context);
    library.release(&model.context);
    expect(model.context.models == nullptr, engine + " is released, twice");
    expect(!library.detect(&model.context, &frame) && frame.objects.size() == 2,
           engine + " is not run after that");
  }
  google::RemoveLogSink(&sink);
  expect(sink.lines >= 5 * static_cast<int>(engines.size()),
         "the host's sink received " + std::to_string(sink.lines) + " lines of the library");
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc != 5) throw std::runtime_error("usage: HostMatrix LIBRARY MODE GLOG NETWORKS");
  if (argv[3] == std::string("initialised")) google::InitGoogleLogging(argv[0]);
  check(Library(argv[1], argv[2]), argv[4]);
  for (int i = 0; i < 50; ++i) {
    const Library again(argv[1], argv[2]);
    expect(again.find<decltype(VsaGlobalInit)>("VsaGlobalInit")(), "loaded again");
  }
  std::cout << met << " of " << met + failed << "\n";
  return failed > 0 ? 1 : 0;
} catch (const std::exception& error) {
  std::cerr << "HostMatrix: " << error.what() << "\n";
  return 1;
}
