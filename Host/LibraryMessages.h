// Shows on the console what libraries write to std::cerr and std::clog. ONNX Runtime and OpenCV
// write warnings there, which can contain names from a network file or the name of an image.
#pragma once

#include <mutex>
#include <streambuf>
#include <string>

#include "Console.h"

namespace vsa {

/// While an object exists, Console::note() shows each line written to std::cerr and std::clog.
class LibraryMessages : private std::streambuf {
 public:
  explicit LibraryMessages(Console* console);
  ~LibraryMessages() override;
  LibraryMessages(const LibraryMessages&) = delete;
  LibraryMessages& operator=(const LibraryMessages&) = delete;

 private:
  int_type overflow(int_type byte) override;
  std::streamsize xsputn(const char* bytes, std::streamsize count) override;
  void showLine();

  Console* console_;
  std::mutex mutex_;  // engines write from threads of their own
  std::string line_;  // without line break so far
  std::streambuf* errors_;
  std::streambuf* log_;
};

}  // namespace vsa
