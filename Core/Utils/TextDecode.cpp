#include "Utils/TextDecode.h"

namespace TolCompatibleLib {

std::string ctcGreedyDecode(FloatGrid scores, const CharacterDictionary& dictionary) {
  std::string text;
  int previous = 0;
  for (int step = 0; step < scores.rows; ++step) {
    const int best = firstMaximum(scores.row(step), scores.cols);
    if (best != 0 && best != previous && static_cast<std::size_t>(best) < dictionary.size()) {
      text += dictionary[static_cast<std::size_t>(best)];
    }
    previous = best;  // the blank too, so a character on both sides of one is doubled
  }
  return text;
}

}  // namespace TolCompatibleLib
