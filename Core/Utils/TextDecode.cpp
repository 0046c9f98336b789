#include "Utils/TextDecode.h"

#include <limits>
#include <utility>

namespace TolCompatibleLib {

std::string CtcGreedyDecode(FloatGrid scores, const CharacterDictionary& dictionary) {
  std::string text;
  int previous = 0;
  for (int step = 0; step < scores.rows; ++step) {
    const int best = firstMaximum(scores.row(step), scores.cols);
    if (best != 0 && best != previous && static_cast<std::size_t>(best) < dictionary.size()) {
      text += dictionary[static_cast<std::size_t>(best)];
    }
    previous = best;  // blanks too, so a character that is repeated across a blank is kept twice
  }
  return text;
}

OcrLayoutResult ocrLayoutOf(std::span<const std::size_t> shape) {
  const auto byRows = [](std::size_t steps, std::size_t classes) {
    return OcrLayoutResult{{steps, classes, classes, 1}, nullptr};
  };
  if (shape.size() == 2) {
    // Deliberate: both are read as [steps, classes], so an output of [classes, steps] is misread.
    return shape[1] <= shape[0] ? byRows(shape[1], shape[0]) : byRows(shape[0], shape[1]);
  }
  if (shape.size() != 3) return {{}, "Unsupported shape!"};
  if (shape[1] == 1) return byRows(shape[0], shape[2]);
  if (shape[0] != 1) return {{}, "Unknown output format!"};
  if (shape[1] > shape[2]) return {{shape[2], shape[1], 1, shape[2]}, nullptr};
  return byRows(shape[1], shape[2]);
}

std::string decodeOcr(const float* scores, const OcrLayout& layout,
                      const std::vector<std::string>& alphabet) {
  std::string text;
  if (layout.classes <= 1) return text;  // blanks only
  std::size_t previous = layout.classes;
  for (std::size_t step = 0; step < layout.steps; ++step) {
    const float* values = scores + step * layout.stepStride;
    std::size_t best = 0;
    float max = -std::numeric_limits<float>::infinity();
    for (std::size_t c = 0; c < layout.classes; ++c) {
      const float value = values[c * layout.classStride];
      if (value > max) {
        max = value;
        best = c;
      }
    }
    if (best != 0 && best != previous && best < alphabet.size()) text += alphabet[best];
    previous = best;
  }
  return text;
}

void setText(VsaObject& object, std::string& text) noexcept {
  object.text = std::move(text);
  object.textId = 0;
  object.textScore = 1.0F;
}

}  // namespace TolCompatibleLib
