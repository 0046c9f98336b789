// Usage: Damaged openvino|onnx FOLDER FIRST LAST
//
// Damages a model file for each of the seeds FIRST to LAST - 1, opens it and, if that works, runs it on a frame. Prints
// a line per seed: the seed and how it ended. `openvino` takes the networks of Families.h, `onnx` those of
// make_onnx.py in FOLDER; damaged files lie in FOLDER/damaged.

#include <glog/logging.h>
#include <onnxruntime_cxx_api.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <new>
#include <openvino/openvino.hpp>
#include <random>
#include <span>

#include "support/Families.h"
#include "support/TestHost.h"

// The address sanitizer's own would end the program where memory runs out; a shape of 2^62 pixels has to be an
// exception.
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  return std::malloc(size);
}
void* operator new[](std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  return std::malloc(size);
}
void* operator new(std::size_t size) {
  if (void* const memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
void* operator new[](std::size_t size) {
  return operator new(size);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
  void* memory = nullptr;
  if (posix_memalign(&memory, static_cast<std::size_t>(alignment), size) == 0) return memory;
  throw std::bad_alloc();
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
  return operator new(size, alignment);
}
void operator delete(void* memory, std::align_val_t /*alignment*/) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t /*size*/, std::align_val_t /*alignment*/) noexcept {
  std::free(memory);
}
void operator delete[](void* memory, std::align_val_t /*alignment*/) noexcept {
  std::free(memory);
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete[](void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
  std::free(memory);
}
void operator delete[](void* memory, std::size_t /*size*/) noexcept {
  std::free(memory);
}

namespace {

namespace fs = std::filesystem;

using Random = std::mt19937_64;

/// A number below `end`, or 0.
std::size_t below(Random& random, std::size_t end) {
  return end == 0 ? 0 : random() % end;
}

std::string contentOf(const fs::path& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

void store(const fs::path& file, const std::string& content) {
  std::ofstream(file, std::ios::binary | std::ios::trunc) << content;
}

void flipBytes(Random& random, std::string& text) {
  constexpr std::array<unsigned char, 6> kSpecial{0x00, 0x01, 0x7F, 0x80, 0xFE, 0xFF};
  for (std::size_t i = 1 + below(random, 3); i > 0 && !text.empty(); --i) {
    char& byte = text[below(random, text.size())];
    byte = static_cast<char>(random() % 2 == 0 ? kSpecial[below(random, kSpecial.size())] : random());
  }
}

void cutOff(Random& random, std::string& text) {
  text.resize(below(random, text.size()));
}

void removeOrDouble(Random& random, std::string& text, std::size_t begin, std::size_t count) {
  if (random() % 2 == 0) {
    text.erase(begin, count);
  } else {
    text.insert(begin, text.substr(begin, count));
  }
}

void damagePiece(Random& random, std::string& text) {
  removeOrDouble(random, text, below(random, text.size()), 1 + below(random, 40));
}

/// Another number in the place of one of a shape, a stride, an offset, an index: about a power of two, or none at all.
void changeNumber(Random& random, std::string& text) {
  const std::size_t begin = text.find_first_of("0123456789", below(random, text.size()));
  if (begin == std::string::npos) return;
  const std::size_t end = text.find_first_not_of("0123456789", begin);
  const std::uint64_t power = std::uint64_t{1} << below(random, random() % 2 == 0 ? 4 : 64);
  const std::string numbers[] = {std::to_string(power), std::to_string(power - 1), std::to_string(power + 1), "-1"};
  text.replace(begin, end - begin, random() % 16 == 0 ? "nan" : numbers[below(random, std::size(numbers))]);
}

/// Another precision in the place of one.
void changeType(Random& random, std::string& text) {
  constexpr std::array kTypes{"f16", "f64", "i64", "u8", "boolean", "u1", "i4", "string", "bf16", "?"};
  constexpr std::array kPrecisions{"FP16", "FP64", "I64", "U8", "BOOL", "U1", "I4", "I32", "STRING", ""};
  const bool isAttribute = random() % 2 == 0;
  const std::string key = isAttribute ? "element_type=\"" : "precision=\"";
  const std::size_t found = text.find(key, below(random, text.size()));
  if (found == std::string::npos) return;
  const std::size_t begin = found + key.size();
  const std::size_t place = below(random, kTypes.size());
  text.replace(begin, text.find('"', begin) - begin, isAttribute ? kTypes[place] : kPrecisions[place]);
}

/// An element with everything in it, gone or there twice.
void damageElement(Random& random, std::string& text) {
  const std::size_t begin = text.find('<', below(random, text.size()));
  if (begin == std::string::npos) return;
  const std::string name = text.substr(begin + 1, text.find_first_of(" />", begin) - begin - 1);
  const std::size_t shut = text.find('>', begin);
  std::size_t end = shut;
  if (shut != std::string::npos && text[shut - 1] != '/') end = text.find('>', text.find("</" + name, begin));
  if (end != std::string::npos) removeOrDouble(random, text, begin, end + 1 - begin);
}

void extend(Random& random, std::string& text) {
  text.append(1 + below(random, 4096), '\0');
}

/// Another value in a field of an ONNX message (a protocol buffer's integer field 1 or 2): a dimension, a type. Lengths
/// stay, so that the message can still be read.
void changeField(Random& random, std::string& text) {
  constexpr std::size_t kMostTypes = 28;
  const std::size_t tag = text.find_first_of("\x08\x10", below(random, text.size()));
  if (tag == std::string::npos || tag + 1 >= text.size()) return;
  text[tag + 1] = static_cast<char>(below(random, random() % 2 == 0 ? kMostTypes : 128));
}

using Damage = void (*)(Random&, std::string&);
constexpr Damage kOfText[] = {changeNumber, changeNumber,  changeNumber,  changeType, changeType,
                              flipBytes,    damageElement, damageElement, cutOff,     damagePiece};
constexpr Damage kOfWeights[] = {flipBytes, flipBytes, damagePiece, cutOff, extend};
constexpr Damage kOfMessages[] = {changeField, changeField, changeField, changeField,
                                  changeField, flipBytes,   damagePiece, cutOff};

void damage(Random& random, std::span<const Damage> ways, std::size_t most, std::string& text) {
  for (std::size_t i = 1 + below(random, most); i > 0; --i) ways[below(random, ways.size())](random, text);
}

/// Opens the model and shows it a frame with two objects.
const char* outcomeOf(TestModel& model) {
  cv::Mat image = randomImage(50, 40);
  VsaFrame frame = frameOf(image, {"a", "b"});
  frame.wantedLabels = frame.wantedClasses;
  frame.objects.assign(2, VsaObject(50, 40, 5, 5, 35, 20, 0.5F, 0, "a"));
  try {
    const bool opened = model.init();
    bool done = false;
    for (const auto run : {VsaModelDetect, VsaModelClassify, VsaModelFeature}) {
      if (run(&model.context, &frame)) done = true;
    }
    if (!opened) return "refused";
    return done ? "ran" : "ran and was refused";
  } catch (const ov::Exception&) {
    return "ov::Exception";
  } catch (const Ort::Exception&) {
    return "Ort::Exception";
  } catch (const cv::Exception&) {
    return "cv::Exception";
  } catch (const std::exception&) {
    return "std::exception";
  } catch (...) {
    return "FOREIGN";
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) return 2;
  FLAGS_minloglevel = google::FATAL;
  cv::setNumThreads(1);
  cv::redirectError([](int, const char*, const char*, const char*, int, void*) { return 0; });
  const bool isOpenVino = std::string(argv[1]) == "openvino";
  const fs::path folder = argv[2];
  fs::create_directories(folder / "damaged");
  std::vector<std::string> files;
  if (isOpenVino) {
    for (const Family& family : kFamilies) files.push_back(writeFamily(family));
  } else {
    for (const char* name : {"yolo8", "yolo5", "yolo26", "echo8", "dynamic_output", "breaks_its_word"}) {
      files.push_back((folder / name).string() + ".onnx");
    }
  }
  for (unsigned long long seed = std::stoull(argv[3]); seed < std::stoull(argv[4]); ++seed) {
    Random random(seed);
    const std::size_t chosen = seed % files.size();
    const std::string path = (folder / "damaged" / std::to_string(seed)).string();
    const Family family = isOpenVino ? kFamilies[chosen] : Family{"Detect", "", {64, 64}, {}, {}};
    TestModel model(family.category, family.name, path);
    model.setInput(static_cast<std::uint32_t>(std::max(family.input.width, 0)),
                   static_cast<std::uint32_t>(std::max(family.input.height, 0)));
    model.setClasses({"a", "b"});
    if (isOpenVino) {
      std::string text = contentOf(files[chosen] + ".xml");
      std::string weights = contentOf(files[chosen] + ".bin");
      if (random() % 4 != 0) damage(random, kOfText, 3, text);
      if (random() % 2 == 0) damage(random, kOfWeights, 3, weights);
      store(path + ".xml", text);
      store(path + ".bin", weights);
    } else {
      std::string bytes = contentOf(files[chosen]);
      damage(random, kOfMessages, 2, bytes);
      store(path, bytes);
      const std::string name = fs::path(files[chosen]).stem().string();
      model.config.engine = "ONNXRuntime";
      model.config.modelName = name.starts_with("yolo5") ? "YOLO5" : name.starts_with("yolo26") ? "YOLO26" : "YOLO8";
      if (name == "echo8") model.setInput(8, 4), model.setClasses({"a"});
    }
    std::printf("%llu %s\n", seed, outcomeOf(model));
    std::fflush(stdout);
    for (const char* suffix : {"", ".xml", ".bin"}) fs::remove(path + suffix);
  }
}
