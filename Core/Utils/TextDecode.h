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
/// best class of each time step, repetitions merged, blanks (class 0) left out. Classes past the
/// end of the dictionary are skipped. \param scores one row per time step, one column per class.
std::string CtcGreedyDecode(FloatGrid scores, const CharacterDictionary& dictionary);

/// How a table of scores per time step and class lies in memory.
struct OcrLayout {
  std::size_t steps;
  std::size_t classes;
  std::size_t stepStride;   ///< Floats from one step to the next.
  std::size_t classStride;  ///< Floats from one class to the next.
};

/// Either a layout or, where `error` is set, what is wrong with the shape.
struct OcrLayoutResult {
  OcrLayout layout;
  const char* error;
};

/// Finds out from the shape of an output which of the usual layouts it has: [steps, classes] with
/// the smaller dimension taken for the classes' complement, [steps, 1, classes], [1, steps,
/// classes] or [1, classes, steps].
OcrLayoutResult ocrLayoutOf(std::span<const std::size_t> shape);

/// Greedy CTC decoding of a table in any layout, with the host's alphabet. The first step is never
/// a repetition.
std::string decodeOcr(const float* scores, const OcrLayout& layout,
                      const std::vector<std::string>& alphabet);

/// Marks an object as read.
void setText(VsaObject& object, std::string& text) noexcept;

}  // namespace TolCompatibleLib
