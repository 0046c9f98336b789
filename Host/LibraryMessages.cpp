#include "LibraryMessages.h"

#include <iostream>

namespace vsa {
namespace {

// The text without the sequences that select colours.
std::string withoutColours(std::string text) {
  constexpr const char* kStart = "\x1b[";
  for (std::size_t at = text.find(kStart); at != std::string::npos; at = text.find(kStart, at)) {
    const std::size_t end = text.find_first_not_of("0123456789;", at + 2);
    if (end == std::string::npos || text[end] != 'm') {
      ++at;
    } else {
      text.erase(at, end + 1 - at);
    }
  }
  return text;
}

}  // namespace

LibraryMessages::LibraryMessages(Console* console)
    : console_(console), errors_(std::cerr.rdbuf(this)), log_(std::clog.rdbuf(this)) {}

LibraryMessages::~LibraryMessages() {
  std::cerr.rdbuf(errors_);
  std::clog.rdbuf(log_);
  if (!line_.empty()) showLine();
}

LibraryMessages::int_type LibraryMessages::overflow(int_type byte) {
  const char c = traits_type::to_char_type(byte);
  if (!traits_type::eq_int_type(byte, traits_type::eof())) xsputn(&c, 1);
  return traits_type::not_eof(byte);
}

std::streamsize LibraryMessages::xsputn(const char* bytes, std::streamsize count) {
  const std::lock_guard<std::mutex> lock(mutex_);
  for (std::streamsize i = 0; i < count; ++i) {
    if (bytes[i] == '\n') {
      showLine();
    } else {
      line_ += bytes[i];
    }
  }
  return count;
}

void LibraryMessages::showLine() {
  const std::string text = withoutColours(std::move(line_));
  line_.clear();
  if (text.find_first_not_of(' ') != std::string::npos) console_->note(text);
}

}  // namespace vsa
