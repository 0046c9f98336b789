// Shows what libraries write to C++'s error streams on the console. ONNX Runtime and OpenCV write
// their warnings there, with names from the network file or the name of an image in them.
#pragma once

#include <mutex>
#include <streambuf>
#include <string>

#include "Console.h"

namespace vsa {

/// While it exists, Console::note() shows each line that is written to std::cerr and std::clog.
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
  std::string line_;  // not yet ended
  std::streambuf* errors_;
  std::streambuf* log_;
};

}  // namespace vsa
