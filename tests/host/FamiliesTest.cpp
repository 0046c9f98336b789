// The families of the host against the library, through its entry points.
#include <TolCompatible/TolCompatible.h>
#include <gtest/gtest.h>

#include <exception>
#include <set>
#include <string>

#include "Families.h"

namespace vsa {
namespace {

enum class Outcome { kEngineThrew, kEmptySet, kOther };

// Initialises a model whose file does not exist. If the library has the model, its engine throws.
Outcome initWithoutFile(const std::string& engine, const std::string& category,
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
    if (VsaModelInit(&context)) return Outcome::kOther;
  } catch (const std::exception&) {
    return Outcome::kEngineThrew;
  }
  const VsaModelSet* set = context.models;
  const bool isEmpty = set != nullptr && !set->detect && !set->classify && !set->feature;
  VsaModelRelease(&context);
  return isEmpty ? Outcome::kEmptySet : Outcome::kOther;
}

// A row that the library does not have would end with an empty set instead of an exception.
TEST(FamiliesTest, LibraryHasExactlyTheseModels) {
  std::set<std::string> names = {"NoSuchModel"};
  for (const Family& family : families()) names.insert(family.modelName);
  for (const std::string engine : {"OpenVINO", "ONNXRuntime", "TensorRT"}) {
    for (const std::string category : {"Detect", "Track", "Classify", "Other"}) {
      for (const std::string& name : names) {
        const Family* family = findFamily(category, name);
        const bool isListed = family != nullptr && family->isOn(engine);
        EXPECT_EQ(initWithoutFile(engine, category, name),
                  isListed ? Outcome::kEngineThrew : Outcome::kEmptySet)
            << engine << " " << category << " " << name;
      }
    }
  }
}

}  // namespace
}  // namespace vsa
