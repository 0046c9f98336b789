// The two streams of the host: results on standard output, messages and a progress bar on standard
// error. They are in one place because on a terminal the bar must give way to both.
#pragma once

#include <chrono>
#include <string>
#include <string_view>

namespace vsa {

class Console {
 public:
  Console();

  /// Writes results to standard output and flushes them. Returns false from then on once they
  /// cannot be written, for example because the reader of a pipe has gone.
  bool write(std::string_view text);

  /// Waits until there is something to read on standard input, or its end; false where a signal
  /// came first.
  static bool waitForInput();

  /// Writes "vsa: ..." to standard error, on a terminal in lines of its width.
  void note(const std::string& sentence);

  /// Shows how far the work is (0 to 1), on a terminal and after the first second only.
  void progress(double share, const std::string& text);

  /// Removes the progress bar.
  void clear();

  /// Columns of the terminal that results go to; 0 where they go elsewhere.
  int columns() const { return outputIsTerminal_ ? kColumns : 0; }

 private:
  static constexpr int kColumns = 80;

  bool outputIsTerminal_;
  bool errorIsTerminal_;
  bool outputWorks_ = true;
  bool shown_ = false;
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  std::chrono::steady_clock::time_point drawn_{};
};

}  // namespace vsa
