// Usage: Damaged openvino|onnx FOLDER FIRST LAST
//
// For each seed from FIRST to LAST - 1, damages a model file, opens it and, if that works, runs it
// on a frame. Prints one line per seed: the seed and the outcome. Damages the tiny networks of all
// families of the engine; those on ONNX Runtime must be in FOLDER (make_onnx.py). Damaged files are
// written to FOLDER/damaged.

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

#include "support/TestHost.h"
#include "support/TinyNetworks.h"

// The sanitizer's operator new ends the program if memory runs out, but a shape of 2^62 pixels must
// end in an exception.
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

/// A random number below `end`, or 0 if `end` is 0.
std::size_t below(Random& random, std::size_t end) {
  return end == 0 ? 0 : random() % end;
}

std::string readFile(const fs::path& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

void writeFile(const fs::path& file, const std::string& content) {
  std::ofstream(file, std::ios::binary | std::ios::trunc) << content;
}

void flipBytes(Random& random, std::string& text) {
  constexpr std::array<unsigned char, 6> kSpecial{0x00, 0x01, 0x7F, 0x80, 0xFE, 0xFF};
  for (std::size_t i = 1 + below(random, 3); i > 0 && !text.empty(); --i) {
    char& byte = text[below(random, text.size())];
    byte =
        static_cast<char>(random() % 2 == 0 ? kSpecial[below(random, kSpecial.size())] : random());
  }
}

void truncateText(Random& random, std::string& text) {
  text.resize(below(random, text.size()));
}

void removeOrRepeat(Random& random, std::string& text, std::size_t begin, std::size_t count) {
  if (random() % 2 == 0) {
    text.erase(begin, count);
  } else {
    text.insert(begin, text.substr(begin, count));
  }
}

void damagePiece(Random& random, std::string& text) {
  removeOrRepeat(random, text, below(random, text.size()), 1 + below(random, 40));
}

/// Replaces a number (of a shape, a stride, an offset, an index) by one near a power of two, or by
/// "nan".
void changeNumber(Random& random, std::string& text) {
  const std::size_t begin = text.find_first_of("0123456789", below(random, text.size()));
  if (begin == std::string::npos) return;
  const std::size_t end = text.find_first_not_of("0123456789", begin);
  const std::uint64_t power = std::uint64_t{1} << below(random, random() % 2 == 0 ? 4 : 64);
  const std::string numbers[] = {std::to_string(power), std::to_string(power - 1),
                                 std::to_string(power + 1), "-1"};
  text.replace(begin, end - begin,
               random() % 16 == 0 ? "nan" : numbers[below(random, std::size(numbers))]);
}

/// Replaces an element type or a precision by another.
void changeType(Random& random, std::string& text) {
  constexpr std::array kTypes{"f16", "f64", "i64",    "u8",   "boolean",
                              "u1",  "i4",  "string", "bf16", "?"};
  constexpr std::array kPrecisions{"FP16", "FP64", "I64", "U8",     "BOOL",
                                   "U1",   "I4",   "I32", "STRING", ""};
  const bool isAttribute = random() % 2 == 0;
  const std::string key = isAttribute ? "element_type=\"" : "precision=\"";
  const std::size_t found = text.find(key, below(random, text.size()));
  if (found == std::string::npos) return;
  const std::size_t begin = found + key.size();
  const std::size_t type = below(random, kTypes.size());
  text.replace(begin, text.find('"', begin) - begin,
               isAttribute ? kTypes[type] : kPrecisions[type]);
}

/// Removes or repeats an XML element with its content.
void damageElement(Random& random, std::string& text) {
  const std::size_t begin = text.find('<', below(random, text.size()));
  if (begin == std::string::npos) return;
  const std::string name = text.substr(begin + 1, text.find_first_of(" />", begin) - begin - 1);
  const std::size_t tagEnd = text.find('>', begin);
  std::size_t end = tagEnd;
  if (tagEnd != std::string::npos && text[tagEnd - 1] != '/')
    end = text.find('>', text.find("</" + name, begin));
  if (end != std::string::npos) removeOrRepeat(random, text, begin, end + 1 - begin);
}

void extend(Random& random, std::string& text) {
  text.append(1 + below(random, 4096), '\0');
}

/// Changes a dimension or a type: the value of integer field 1 or 2 of a protocol-buffer message.
/// Lengths do not change, so that the message can still be parsed.
void changeField(Random& random, std::string& text) {
  constexpr std::size_t kTypeCount = 28;
  const std::size_t tag = text.find_first_of("\x08\x10", below(random, text.size()));
  if (tag == std::string::npos || tag + 1 >= text.size()) return;
  text[tag + 1] = static_cast<char>(below(random, random() % 2 == 0 ? kTypeCount : 128));
}

using Damage = void (*)(Random&, std::string&);
constexpr Damage kTextDamage[] = {changeNumber, changeNumber, changeNumber,  changeType,
                                  changeType,   flipBytes,    damageElement, damageElement,
                                  truncateText, damagePiece};
constexpr Damage kWeightsDamage[] = {flipBytes, flipBytes, damagePiece, truncateText, extend};
constexpr Damage kMessageDamage[] = {changeField, changeField, changeField, changeField,
                                     changeField, flipBytes,   damagePiece, truncateText};

void damage(Random& random, std::span<const Damage> kinds, std::size_t maxCount,
            std::string& text) {
  for (std::size_t i = 1 + below(random, maxCount); i > 0; --i)
    kinds[below(random, kinds.size())](random, text);
}

/// Opens the model and runs it on a frame with two objects.
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
    return done ? "ran" : "ran and returned false";
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

/// The families of an engine; on ONNX Runtime also YOLO8 with other networks of make_onnx.py.
std::vector<Family> familiesToDamage(const std::string& engine) {
  std::vector<Family> found = familiesOn(engine);
  if (engine == "ONNXRuntime") {
    Family yolo8 = findFamily(engine, "Detect", "YOLO8");
    for (const char* file : {"dynamic_output.onnx", "wrong_declared_shape.onnx"}) {
      yolo8.onnxFile = file;
      found.push_back(yolo8);
    }
    yolo8.onnxFile = "echo8.onnx";
    yolo8.input = {8, 4};
    yolo8.classNames = {"a"};
    found.push_back(yolo8);
  }
  return found;
}

/// Writes a damaged copy of the files of `network` to `path`.
void writeDamaged(const Family& family, const std::string& network, Random& random,
                  const std::string& path) {
  if (family.engine == "OpenVINO") {
    std::string text = readFile(network + ".xml");
    std::string weights = readFile(network + ".bin");
    if (random() % 4 != 0) damage(random, kTextDamage, 3, text);
    if (random() % 2 == 0) damage(random, kWeightsDamage, 3, weights);
    writeFile(path + ".xml", text);
    writeFile(path + ".bin", weights);
  } else {
    std::string bytes = readFile(network);
    damage(random, kMessageDamage, 2, bytes);
    writeFile(path, bytes);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) return 2;
  FLAGS_minloglevel = google::FATAL;
  cv::setNumThreads(1);
  cv::redirectError([](int, const char*, const char*, const char*, int, void*) { return 0; });
  const fs::path folder = argv[2];
  fs::create_directories(folder / "damaged");
  const std::string engine = std::string(argv[1]) == "openvino" ? "OpenVINO" : "ONNXRuntime";
  const std::vector<Family> families = familiesToDamage(engine);
  std::vector<std::string> networks;
  for (const Family& family : families) networks.push_back(networkOf(family, folder.string()));
  for (unsigned long long seed = std::stoull(argv[3]); seed < std::stoull(argv[4]); ++seed) {
    Random random(seed);
    const std::size_t index = seed % families.size();
    const Family& family = families[index];
    const std::string path = (folder / "damaged" / std::to_string(seed)).string();
    writeDamaged(family, networks[index], random, path);
    TestModel model(family.category, family.name, path);
    model.config.engine = engine;
    model.setInput(static_cast<std::uint32_t>(std::max(family.input.width, 0)),
                   static_cast<std::uint32_t>(std::max(family.input.height, 0)));
    model.setClasses(family.classNames);
    std::printf("%llu %s\n", seed, outcomeOf(model));
    std::fflush(stdout);
    for (const char* suffix : {"", ".xml", ".bin"}) fs::remove(path + suffix);
  }
}
