// The order in which a person reads the lines of text in an image.
#pragma once

#include <TolCompatible/TolCompatible.h>

#include <cstddef>
#include <string>
#include <vector>

namespace vsa {

/// Sorts the text regions into reading order: lines from top to bottom, each from left to right,
/// and one column after the other. Other objects keep their places. The text must be horizontal;
/// the page may be rotated by less than 45 degrees.
void sortTextRegions(std::vector<VsaObject>* objects);

/// The text of the objects in reading order as valid UTF-8 without control characters, one line of
/// the image per line. The texts of several objects on one line are separated by a space.
std::string plainText(const std::vector<VsaObject>& objects);

}  // namespace vsa
