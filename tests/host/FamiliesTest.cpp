// The families of the host against the library, through its entry points.
#include <TolCompatible/TolCompatible.h>
#include <gtest/gtest.h>

#include <exception>
#include <set>
#include <string>

#include "Families.h"
#include "support/Families.h"

namespace vsa {
namespace {

// Whether the library has the model: without its file the engine throws. If the library does not
// have the model, it returns false silently and leaves an empty set.
bool reachesEngine(const std::string& engine, const std::string& category,
                   const std::string& modelName) {
  VsaModelConfig config;
  config.engine = engine;
  config.category = category;
  config.modelName = modelName;
  config.device = "CPU";
  config.modelFile = "missing";
  config.classNames = {"a"};
  VsaModelContext context;
  context.version = kVsaInterfaceVersion;
  context.config = &config;
  context.modelRoot = testing::TempDir();
  try {
    EXPECT_FALSE(VsaModelInit(&context));
  } catch (const std::exception&) {
    return true;
  }
  const VsaModelSet* set = context.models;
  EXPECT_TRUE(set != nullptr && !set->detect && !set->classify && !set->feature);
  VsaModelRelease(&context);
  return false;
}

TEST(FamiliesTest, LibraryHasExactlyTheseModels) {
  std::set<std::string> names = {"NoSuchModel"};
  for (const Family& family : families()) names.insert(family.modelName);
  for (const ::Family& family : ::families()) names.insert(family.name);  // those of the library
  for (const std::string engine : {"OpenVINO", "ONNXRuntime", "TensorRT"}) {
    for (const std::string category : {"Detect", "Track", "Classify", "Other"}) {
      for (const std::string& name : names) {
        SCOPED_TRACE(engine + " " + category + " " + name);
        const Family* family = findFamily(category, name);
        EXPECT_EQ(reachesEngine(engine, category, name), family && family->isOn(engine));
      }
    }
  }
}

}  // namespace
}  // namespace vsa
