// The built-in dictionary, and reading text out of scores.

#include "Utils/TextDecode.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <limits>

namespace {

using namespace TolCompatibleLib;

TEST(Dictionary, HoldsThePublishedListInGbk) {
  const CharacterDictionary dictionary = CharacterDictionary::builtIn();
  ASSERT_EQ(dictionary.size(), 6624U);
  const std::pair<std::size_t, const char*> entries[] = {
      {0, "blank"}, {1, "'"},  {2, "\xC1\xC6"}, {18, "\xE3\xEA"}, {19, "\xBC\xC6"},   {25, "2"},
      {26, "0"},    {27, "8"}, {28, "-"},       {29, "7"},        {31, ">"},          {32, ":"},
      {33, "]"},    {34, ","}, {93, "1"},       {94, "3"},        {6614, "\xA8\xAC"}, {6623, "\x91\xC9"}};
  for (const auto& [index, text] : entries) EXPECT_EQ(dictionary[index], text) << index;

  std::array<int, 3> byLength{};
  int unknown = 0;
  std::uint32_t checksum = 2166136261U;  // FNV-1a over the entries, each closed by a line feed
  for (std::size_t i = 0; i < dictionary.size(); ++i) {
    const std::string entry = std::string(dictionary[i]) + "\n";
    for (const char c : entry) checksum = (checksum ^ static_cast<unsigned char>(c)) * 16777619U;
    if (i > 0) ++byLength.at(dictionary[i].size());
    if (dictionary[i] == "?") ++unknown;
  }
  EXPECT_EQ(byLength[1], 122);
  EXPECT_EQ(byLength[2], 6501);
  EXPECT_EQ(unknown, 29);
  EXPECT_EQ(checksum, 2547496953U);
}

/// Scores in which class `best[t]` wins step t.
std::vector<float> scoresOf(const std::vector<int>& best, int classes) {
  std::vector<float> scores(best.size() * static_cast<std::size_t>(classes), 0.1F);
  for (std::size_t t = 0; t < best.size(); ++t) {
    scores[t * static_cast<std::size_t>(classes) + static_cast<std::size_t>(best[t])] = 0.9F;
  }
  return scores;
}

TEST(CtcGreedyDecode, MergesRepetitionsAndSkipsBlanksAndUnknownClasses) {
  const CharacterDictionary letters({"-", "a", "b", "c", "d", "e", "f", "g"});
  const std::pair<std::vector<int>, std::string> cases[] = {{{0, 5, 5, 0, 5, 7, 7}, "eeg"},
                                                            {{}, ""},
                                                            {{0, 0, 0}, ""},
                                                            {{1, 1, 2, 2, 1}, "aba"},
                                                            {{8, 1, 9, 1, 8}, "aa"},
                                                            {{1, 8, 8, 1}, "aa"}};
  for (const auto& [best, text] : cases) {
    const std::vector<float> scores = scoresOf(best, 10);
    EXPECT_EQ(CtcGreedyDecode({scores.data(), static_cast<int>(best.size()), 10}, letters), text);
  }
}

TEST(CtcGreedyDecode, TheFirstOfEqualsWinsAndNanNever) {
  const CharacterDictionary letters({"-", "a", "b"});
  constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
  const std::vector<float> scores = {0, 1, 1, kNan, kNan, kNan, kNan, 1, 2, 1, 1, 1};
  EXPECT_EQ(CtcGreedyDecode({scores.data(), 4, 3}, letters), "ab");
  EXPECT_EQ(CtcGreedyDecode({scores.data(), 4, 0}, letters), "");
  EXPECT_EQ(CtcGreedyDecode({scores.data(), 1, 3}, CharacterDictionary(std::vector<std::string>{})), "");
}

TEST(OcrLayout, IsToldByTheShape) {
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
    EXPECT_EQ(found.error, nullptr);
    EXPECT_EQ(found.layout.steps, c.steps);
    EXPECT_EQ(found.layout.classes, c.classes);
    EXPECT_EQ(found.layout.stepStride, c.stepStride);
    EXPECT_EQ(found.layout.classStride, c.classStride);
  }
}

TEST(DecodeOcr, FollowsTheLayoutAndTheAlphabetOnly) {
  const std::vector<std::string> alphabet = {"-", "a", "b", "c"};
  const std::vector<float> rows = scoresOf({3, 3, 0, 3, 1, 4}, 5);
  EXPECT_EQ(decodeOcr(rows.data(), {6, 5, 5, 1}, alphabet), "cca");  // class 4 has no letter
  std::vector<float> columns(rows.size());
  for (std::size_t t = 0; t < 6; ++t) {
    for (std::size_t c = 0; c < 5; ++c) columns[c * 6 + t] = rows[t * 5 + c];
  }
  EXPECT_EQ(decodeOcr(columns.data(), {6, 5, 1, 6}, alphabet), "cca");
  EXPECT_EQ(decodeOcr(rows.data(), {0, 5, 5, 1}, alphabet), "");
  EXPECT_EQ(decodeOcr(rows.data(), {30, 1, 1, 1}, alphabet), "");
  EXPECT_EQ(decodeOcr(nullptr, {std::size_t{1} << 60, 0, 0, 1}, alphabet), "");
}

}  // namespace
