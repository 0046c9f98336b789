// The built-in dictionary and the layouts of scores. ReferenceTest compares decoded texts.

#include "Utils/TextDecode.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <tuple>

namespace {

using namespace TolCompatibleLib;

TEST(Dictionary, HoldsPublishedListInGbk) {
  const CharacterDictionary dictionary = CharacterDictionary::builtIn();
  ASSERT_EQ(dictionary.size(), 6624U);
  const std::pair<std::size_t, const char*> entries[] = {
      {0, "blank"}, {1, "'"}, {2, "\xC1\xC6"}, {25, "2"}, {6614, "\xA8\xAC"}, {6623, "\x91\xC9"}};
  for (const auto& [index, text] : entries) EXPECT_EQ(dictionary[index], text) << index;
  std::uint32_t checksum = 2166136261U;  // FNV-1a over the entries, each followed by a line feed
  for (std::size_t i = 0; i < dictionary.size(); ++i) {
    for (const char c : std::string(dictionary[i]) + "\n") {
      checksum = (checksum ^ static_cast<unsigned char>(c)) * 16777619U;
    }
  }
  EXPECT_EQ(checksum, 2547496953U);
}

TEST(OcrLayout, FollowsFromShape) {
  struct Case {
    std::vector<std::size_t> shape;
    const char* error;
    std::size_t steps, classes, stepStride, classStride;
  };
  const Case cases[] = {{{1, 40, 97}, nullptr, 40, 97, 97, 1},
                        {{1, 97, 40}, nullptr, 40, 97, 1, 40},
                        {{40, 1, 97}, nullptr, 40, 97, 97, 1},
                        {{1, 1, 97}, nullptr, 1, 97, 97, 1},
                        {{1, 40, 40}, nullptr, 40, 40, 40, 1},
                        {{40, 97}, nullptr, 40, 97, 97, 1},
                        {{97, 40}, nullptr, 40, 97, 97, 1},
                        {{5, 5}, nullptr, 5, 5, 5, 1},
                        {{2, 40, 97}, "Unknown output format!", 0, 0, 0, 0},
                        {{97}, "Unsupported shape!", 0, 0, 0, 0},
                        {{1, 1, 40, 97}, "Unsupported shape!", 0, 0, 0, 0}};
  for (const Case& c : cases) {
    const OcrLayoutResult found = ocrLayoutOf(c.shape);
    if (c.error != nullptr) {
      EXPECT_STREQ(found.error, c.error);
      continue;
    }
    const OcrLayout& layout = found.layout;
    EXPECT_EQ(std::tie(layout.steps, layout.classes, layout.stepStride, layout.classStride),
              std::tie(c.steps, c.classes, c.stepStride, c.classStride));
    EXPECT_EQ(found.error, nullptr);
  }
}

TEST(DecodeOcr, DropsClassesPastTheAlphabet) {
  const float scores[] = {0, 1, 0, 0, 0, 1, 0, 1, 0};  // classes 1, 2 and 1
  EXPECT_EQ(decodeOcr(scores, {3, 3, 3, 1}, {"-", "a"}), "aa");
  EXPECT_EQ(decodeOcr(scores, {9, 1, 1, 1}, {"-", "a"}), "");
  EXPECT_EQ(decodeOcr(nullptr, {std::size_t{1} << 60, 0, 0, 1}, {"-", "a"}), "");
}

}  // namespace
