// The built library as a host loads it: by name, with nothing of it linked.

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <openvino/openvino.hpp>
#include <string>

#include "TolCompatible.h"

namespace {

class Library {
 public:
  explicit Library(int flags) : handle_(dlopen(TOL_LIBRARY, RTLD_NOW | flags)) {
    if (handle_ == nullptr) ADD_FAILURE() << dlerror();
  }
  ~Library() { dlclose(handle_); }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;

  template <class Function>
  Function* find(const char* name) const {
    return reinterpret_cast<Function*>(dlsym(handle_, name));
  }

 private:
  void* handle_;
};

TEST(SharedLibrary, EngineExceptionsAreCaughtByTypeHoweverItWasLoaded) {
  for (const int flags : {RTLD_LOCAL, RTLD_GLOBAL}) {
    const Library library(flags);
    auto* const init = library.find<decltype(VsaModelInit)>("VsaModelInit");
    auto* const release = library.find<decltype(VsaModelRelease)>("VsaModelRelease");
    ASSERT_TRUE(init != nullptr && release != nullptr);
    VsaModelConfig config;
    config.engine = "OpenVINO";
    config.category = "Detect";
    config.modelName = "YOLO8";
    config.device = "CPU";
    VsaModelContext context;
    context.version = kVsaInterfaceVersion;
    context.config = &config;
    context.modelRoot = "nowhere";
    EXPECT_THROW(init(&context), ov::Exception);
    EXPECT_THROW(init(&context), std::runtime_error);
    EXPECT_EQ(context.models, nullptr);
    release(&context);
  }
}

TEST(SharedLibrary, LoadsAndClosesAgainAndAgain) {
  for (int i = 0; i < 20; ++i) {
    const Library library(RTLD_LOCAL);
    auto* const init = library.find<decltype(VsaGlobalInit)>("VsaGlobalInit");
    ASSERT_NE(init, nullptr);
    EXPECT_TRUE(init());
  }
}

}  // namespace
