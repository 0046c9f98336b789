// The terminal: results on standard output, messages and a progress bar on standard error, signals
// that end the program. One class writes to both streams because on a terminal the bar must be
// removed before any output.
#pragma once

#include <chrono>
#include <mutex>
#include <string>
#include <string_view>

namespace vsa {

class Console {
 public:
  Console();
  ~Console();
  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;

  /// Writes results to standard output and flushes them; to a terminal, only printableLines().
  /// Once a write has failed, for example because the reader of a pipe has exited, this and all
  /// later calls return false.
  bool write(std::string_view text);

  /// Waits until standard input has data or ends. Returns false if interruptSignal() is set first.
  static bool waitForInput();

  /// From now on the first Ctrl-C, SIGTERM or SIGHUP (unless it is ignored; on Windows, Ctrl-C or
  /// Ctrl-Break) only sets interruptSignal(); the second one ends the program, unless it arrives
  /// within 0.3 s.
  static void catchInterrupt();
  /// The number of that signal; 0 if none has arrived.
  static int interruptSignal();
  static bool isInterrupted() { return interruptSignal() != 0; }

  /// Writes "vsa: ..." to standard error, as one line, printable() and without passwords; on a
  /// terminal, wraps it to the width of the terminal. May be called from any thread.
  void note(const std::string& sentence);

  /// Shows the progress as a fraction from 0 to 1, only on a terminal and after the first second.
  void progress(double fraction, const std::string& text);

  /// Removes the progress bar.
  void clear();

  /// Columns of the terminal on standard output; 0 if it is not a terminal.
  int columns() const { return outputIsTerminal_ ? kColumns : 0; }

 private:
  static constexpr int kColumns = 80;

  void eraseBar();

  [[maybe_unused]] unsigned codePage_ = 0;  // on Windows: of the console, before it was UTF-8
  bool outputIsTerminal_;
  bool errorIsTerminal_;
  bool outputWorks_ = true;
  std::mutex mutex_;    // of the bar and of standard error
  bool shown_ = false;  // the bar
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  std::chrono::steady_clock::time_point drawn_{};
};

}  // namespace vsa
