// Collects what the library logs while it lives.
#pragma once

#include <glog/logging.h>

#include <mutex>
#include <string>
#include <utility>
#include <vector>

struct LogLine {
  std::string file;
  std::string text;
  int severity;
};

class LogCapture : public google::LogSink {
 public:
  LogCapture() { google::AddLogSink(this); }
  ~LogCapture() override { google::RemoveLogSink(this); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  void send(google::LogSeverity severity, const char* file, const char* /*base*/, int /*line*/,
            const google::LogMessageTime& /*time*/, const char* message, size_t length) override {
    const std::lock_guard lock(mutex_);
    lines_.push_back({file, std::string(message, length), severity});
  }

  /// The lines so far, which are then forgotten.
  std::vector<LogLine> take() {
    const std::lock_guard lock(mutex_);
    return std::exchange(lines_, {});
  }

  /// Their texts alone.
  std::vector<std::string> texts() {
    std::vector<std::string> texts;
    for (LogLine& line : take()) texts.push_back(std::move(line.text));
    return texts;
  }

 private:
  std::mutex mutex_;
  std::vector<LogLine> lines_;
};
