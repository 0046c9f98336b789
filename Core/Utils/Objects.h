// Changes to the host's list of results.
#pragma once

#include <cstddef>
#include <iterator>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "TolCompatible.h"

namespace TolCompatibleLib {

/// Whether the frame is an image without objects, so that a model that works on objects has nothing
/// to do.
inline bool isImageWithoutObjects(const VsaFrame* frame) {
  return frame != nullptr && frame->kind == kVsaImageFrame && frame->objects.empty();
}

/// Moves `found` to the end of `objects`. If memory runs out, nothing is appended.
inline void append(std::vector<VsaObject>& objects, std::vector<VsaObject>&& found) {
  objects.insert(objects.end(), std::make_move_iterator(found.begin()),
                 std::make_move_iterator(found.end()));
}

/// The name of a class; null if `config` has no name for it or if the name is not in `wanted`.
inline const std::string* wantedName(int classId, const VsaModelConfig& config,
                                     const std::set<std::string>& wanted) {
  const auto index = static_cast<std::size_t>(classId);
  if (index >= config.classNames.size()) return nullptr;
  const std::string& name = config.classNames[index];
  return wanted.contains(name) ? &name : nullptr;
}

/// Replaces the feature vector of object i with the `length` numbers from features[i * length] on.
/// Reuses the memory of the vectors if it is large enough. If memory runs out, no object changes.
inline void setFeatures(std::vector<VsaObject>& objects, const std::vector<float>& features,
                        std::size_t length) {
  for (VsaObject& object : objects) object.feature.reserve(length);
  auto begin = features.begin();
  for (VsaObject& object : objects) {
    const auto end = begin + static_cast<std::ptrdiff_t>(length);
    object.feature.assign(begin, end);
    begin = end;
  }
}

/// Results of a model for objects of the frame, each with the index of its object, ascending.
template <class Result>
using Results = std::vector<std::pair<std::size_t, Result>>;

/// Passes each object with its result to `write` and removes the objects without a result. Does not
/// throw if `write` does not, so either the whole list changes or nothing does.
template <class Result, class Write>
void rewrite(std::vector<VsaObject>& objects, Results<Result>& results, Write write) {
  for (std::size_t kept = 0; kept < results.size(); ++kept) {
    auto& [index, result] = results[kept];
    if (kept != index) objects[kept] = std::move(objects[index]);
    write(objects[kept], result);
  }
  objects.resize(results.size());
}

}  // namespace TolCompatibleLib
