#include "verify/Damage.h"

#include <array>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <new>

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

void removeOrRepeat(Random& random, std::string& text, std::size_t begin, std::size_t count) {
  if (random() % 2 == 0) {
    text.erase(begin, count);
  } else {
    text.insert(begin, text.substr(begin, count));
  }
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

}  // namespace

std::size_t below(Random& random, std::size_t end) {
  return end == 0 ? 0 : random() % end;
}

std::string readFile(const std::filesystem::path& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

void writeFile(const std::filesystem::path& file, const std::string& content) {
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

void damagePiece(Random& random, std::string& text) {
  removeOrRepeat(random, text, below(random, text.size()), 1 + below(random, 40));
}

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

void damage(Random& random, std::span<const Damage> kinds, std::size_t maxCount,
            std::string& text) {
  for (std::size_t i = 1 + below(random, maxCount); i > 0; --i)
    kinds[below(random, kinds.size())](random, text);
}

namespace {

constexpr Damage kTextDamage[] = {changeNumber, changeNumber, changeNumber,  changeType,
                                  changeType,   flipBytes,    damageElement, damageElement,
                                  truncateText, damagePiece};
constexpr Damage kWeightsDamage[] = {flipBytes, flipBytes, damagePiece, truncateText, extend};
constexpr Damage kMessageDamage[] = {changeField, changeField, changeField, changeField,
                                     changeField, flipBytes,   damagePiece, truncateText};

}  // namespace

void writeDamagedIr(const std::string& network, Random& random, const std::string& path) {
  std::string text = readFile(network + ".xml");
  std::string weights = readFile(network + ".bin");
  if (random() % 4 != 0) damage(random, kTextDamage, 3, text);
  if (random() % 2 == 0) damage(random, kWeightsDamage, 3, weights);
  writeFile(path + ".xml", text);
  writeFile(path + ".bin", weights);
}

void writeDamagedOnnx(const std::string& network, Random& random, const std::string& path) {
  std::string bytes = readFile(network);
  damage(random, kMessageDamage, 2, bytes);
  writeFile(path, bytes);
}
