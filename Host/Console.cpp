#include "Console.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <iostream>

#include "Inputs.h"
#include "Messages.h"
#include "Text.h"

#if defined(_WIN32)
#include <fcntl.h>
#include <io.h>
#include <windows.h>
#else
#include <poll.h>
#include <unistd.h>
#endif

namespace vsa {
namespace {

bool isTerminal(std::FILE* stream) {
#if defined(_WIN32)
  return _isatty(_fileno(stream)) != 0;
#else
  return isatty(fileno(stream)) != 0;
#endif
}

// "8 s", "3 min" or "2.5 h".
std::string durationText(double seconds) {
  if (seconds < 90.0) return fixed(seconds, 0) + " s";
  return seconds < 5400.0 ? fixed(seconds / 60.0, 0) + " min" : fixed(seconds / 3600.0, 1) + " h";
}

using Clock = std::chrono::steady_clock;

std::atomic<int> firstSignal = 0;       // 0 if none has arrived
std::atomic<Clock::rep> firstTime = 0;  // likewise
static_assert(std::atomic<int>::is_always_lock_free &&
              std::atomic<Clock::rep>::is_always_lock_free);

// One event can send a signal twice: "timeout" sends it to the process and to its group, and if a
// terminal is closed, both the shell and the kernel send SIGHUP. So the second one counts only
// after a moment.
extern "C" void onInterrupt(int signal) {
  constexpr Clock::duration kMoment = std::chrono::milliseconds(300);
  // NOLINTNEXTLINE(bugprone-signal-handler): the clock only makes an asynchronous-safe system call
  const Clock::rep now = Clock::now().time_since_epoch().count();
  if (Clock::rep first = 0; firstTime.compare_exchange_strong(first, now)) {
    firstSignal = signal;
  } else if (now - first > kMoment.count()) {
    std::signal(signal, SIG_DFL);
    std::raise(signal);
    return;
  }
  std::signal(signal, onInterrupt);  // some systems reset it before the call
}

}  // namespace

Console::Console() : outputIsTerminal_(isTerminal(stdout)), errorIsTerminal_(isTerminal(stderr)) {
#if defined(_WIN32)
  codePage_ = GetConsoleOutputCP();
  SetConsoleOutputCP(CP_UTF8);
  _setmode(_fileno(stdout), _O_BINARY);  // JSON Lines end in "\n" everywhere
#else
  // If the reader of a pipe has exited, the program must not be killed by a signal: the failed
  // write ends the run.
  std::signal(SIGPIPE, SIG_IGN);
#endif
}

Console::~Console() {
#if defined(_WIN32)
  // The setting belongs to the console window, which other programs use afterwards.
  if (codePage_ != 0) SetConsoleOutputCP(codePage_);
#endif
}

bool Console::write(std::string_view text) {
  std::string shown;
  if (outputIsTerminal_) {
    clear();
    shown = printableLines(text);
    text = shown;
  }
  if (outputWorks_ && (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() ||
                       std::fflush(stdout) != 0)) {
    // A closed pipe needs no message.
    if (errno != EPIPE) note("the results cannot be written to standard output");
    outputWorks_ = false;
  }
  return outputWorks_;
}

bool Console::waitForInput() {
#if !defined(_WIN32)
  // A read would be restarted after a signal. The signal may also arrive just before poll(), or in
  // another thread, so poll() must end by itself.
  constexpr int kMilliseconds = 100;
  pollfd input{STDIN_FILENO, POLLIN, 0};
  while (std::cin.rdbuf()->in_avail() <= 0) {
    if (isInterrupted()) return false;
    const int ready = poll(&input, 1, kMilliseconds);
    if (ready > 0 || (ready < 0 && errno != EINTR)) break;
  }
#endif
  return true;
}

void Console::catchInterrupt() {
  for (const int signal : {SIGINT, SIGTERM}) std::signal(signal, onInterrupt);
#if defined(_WIN32)
  std::signal(SIGBREAK, onInterrupt);
#else
  if (std::signal(SIGHUP, onInterrupt) == SIG_IGN) std::signal(SIGHUP, SIG_IGN);
#endif
}

int Console::interruptSignal() {
  return firstSignal;
}

void Console::note(const std::string& sentence) {
  std::string text = "vsa: " + printable(withoutPasswords(sentence));
  if (errorIsTerminal_) text = wrapped(text, 5, kColumns - 1);
  const std::lock_guard<std::mutex> lock(mutex_);
  eraseBar();
  std::fprintf(stderr, "%s\n", text.c_str());
}

void Console::progress(double fraction, const std::string& text) {
  constexpr int kBar = 20;
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto now = std::chrono::steady_clock::now();
  if (!errorIsTerminal_ || now - start_ < std::chrono::seconds(1) ||
      now - drawn_ < std::chrono::milliseconds(100)) {
    return;
  }
  drawn_ = now;
  fraction = std::clamp(fraction, 0.0, 1.0);
  const auto filled = static_cast<std::size_t>(fraction * kBar);
  const std::string bar = std::string(filled, '#') + std::string(kBar - filled, '.');
  std::string left;
  if (fraction > 0.0) {
    const double elapsed = std::chrono::duration<double>(now - start_).count();
    left = "about " + durationText(elapsed / fraction * (1.0 - fraction)) + " left, ";
  }
  // The text is ASCII; 51 characters keep the line below 80 columns.
  std::fprintf(stderr, "\r[%s] %3.0f%% %-51.51s", bar.c_str(), fraction * 100.0,
               (left + text).c_str());
  std::fflush(stderr);
  shown_ = true;
}

void Console::clear() {
  const std::lock_guard<std::mutex> lock(mutex_);
  eraseBar();
}

void Console::eraseBar() {
  if (!shown_) return;
  std::fprintf(stderr, "\r%*s\r", kColumns - 1, "");
  std::fflush(stderr);
  shown_ = false;
}

}  // namespace vsa
