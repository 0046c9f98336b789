// Random damage to model files and texts, reproducible from a seed, for the programs that
// verify/damaged runs.
//
// Damage.cpp also replaces operator new: the sanitizer's version ends the program if memory runs
// out, but a shape of 2^62 pixels must end in an exception.
#pragma once

#include <cstddef>
#include <filesystem>
#include <random>
#include <span>
#include <string>

using Random = std::mt19937_64;

/// A random number below `end`, or 0 if `end` is 0.
std::size_t below(Random& random, std::size_t end);

/// The content of the file; empty if it cannot be read.
std::string readFile(const std::filesystem::path& file);
/// Replaces the content of the file.
void writeFile(const std::filesystem::path& file, const std::string& content);

/// One kind of damage.
using Damage = void (*)(Random& random, std::string& text);

// Kinds of damage for any content.

/// Overwrites one to three bytes.
void flipBytes(Random& random, std::string& text);
/// Removes the end.
void truncateText(Random& random, std::string& text);
/// Removes or repeats up to 40 bytes.
void damagePiece(Random& random, std::string& text);
/// Replaces a number (of a shape, a stride, an offset, an index) by one near a power of two, or by
/// "nan".
void changeNumber(Random& random, std::string& text);

/// Applies 1 to `maxCount` kinds, chosen at random.
void damage(Random& random, std::span<const Damage> kinds, std::size_t maxCount, std::string& text);

/// Writes a damaged copy of the .xml and .bin files of `network` to `path` with these extensions.
void writeDamagedIr(const std::string& network, Random& random, const std::string& path);

/// Writes a damaged copy of the ONNX file.
void writeDamagedOnnx(const std::string& network, Random& random, const std::string& path);
