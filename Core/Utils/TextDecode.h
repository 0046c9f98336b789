// From the scores of a text recognition network to text, and into an object.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "TolCompatible.h"
#include "Utils/FloatGrid.h"
#include "Utils/PaddleOcrDictionary.h"

namespace TolCompatibleLib {

/// Greedy CTC decoding (Graves et al., "Connectionist Temporal Classification", ICML 2006): the
/// best class of each time step, with repetitions merged and blanks (class 0) dropped. Classes past
/// the end of the dictionary are skipped. @param scores one row per time step, one column per
/// class.
std::string CtcGreedyDecode(FloatGrid scores, const CharacterDictionary& dictionary);

/// Memory layout of the scores per time step and class.
struct OcrLayout {
  std::size_t steps;
  std::size_t classes;
  std::size_t stepStride;   ///< Floats from one step to the next.
  std::size_t classStride;  ///< Floats from one class to the next.
};

/// A layout or, if `error` is not null, the text of the log line about the shape.
struct OcrLayoutResult {
  OcrLayout layout;
  const char* error;
};

/// The layout of an output, derived from its shape. Rank 2: the larger dimension is the number of
/// classes, the smaller one the number of steps. Rank 3: [steps, 1, classes]; otherwise [1, a, b],
/// which is [1, classes, steps] if a > b and [1, steps, classes] if not.
OcrLayoutResult ocrLayoutOf(std::span<const std::size_t> shape);

/// Greedy CTC decoding of scores in any layout, with the host's alphabet. Classes past the end of
/// the alphabet are skipped.
std::string decodeOcr(const float* scores, const OcrLayout& layout,
                      const std::vector<std::string>& alphabet);

/// Moves a recognised text into its object.
void setText(VsaObject& object, std::string& text) noexcept;

}  // namespace TolCompatibleLib
