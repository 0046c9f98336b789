// The table of families that tests, fuzzing, long checks and benchmarks share has every row of the
// library's model table, and each of its networks opens and runs.

#include <gtest/gtest.h>

#include <set>
#include <string>

#include "VsaModel.h"
#include "support/TestHost.h"
#include "support/TinyNetworks.h"

namespace {

TEST(Families, HasEveryModelOfTheLibrary) {
  std::set<std::string> titles;
  for (const Family& family : families()) titles.insert(titleOf(family));
  std::set<std::string> models;
  for (const TolCompatibleLib::ModelId& id : TolCompatibleLib::modelIds()) {
    models.insert(std::string(id.engine) + " " + std::string(id.category) + " " +
                  std::string(id.modelName));
  }
  EXPECT_EQ(titles, models);
  EXPECT_EQ(titles.size(), families().size());
}

TEST(Families, EveryNetworkOpensAndRuns) {
  cv::Mat image(48, 64, CV_8UC3, cv::Scalar::all(80));
  for (const Family& family : families()) {
    SCOPED_TRACE(titleOf(family));
    TestModel model(family.category, family.name, networkOf(family, TOL_ONNX_NETWORKS));
    model.config.engine = family.engine;
    model.setInput(static_cast<std::uint32_t>(family.input.width),
                   static_cast<std::uint32_t>(family.input.height));
    model.setClasses(family.classNames);
    ASSERT_TRUE(model.init());
    const VsaModelSet& set = *model.context.models;
    EXPECT_EQ(set.detect != nullptr, family.category == "Detect");
    EXPECT_EQ(set.classify != nullptr, family.category == "Classify");
    EXPECT_EQ(set.feature != nullptr, family.category == "Track");
    VsaFrame frame = frameOf(image, {"a", "b"});
    frame.wantedLabels = frame.wantedClasses;
    frame.objects = {VsaObject(64, 48, 4, 4, 40, 30, 0.5F, 0, "a")};
    // Audio needs the spectrogram service; an image is an input of the wrong kind.
    EXPECT_EQ(model.run(&frame), family.takes != Takes::kAudio);
  }
}

}  // namespace
