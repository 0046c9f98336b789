// Collects the log lines of the library during its lifetime.
#pragma once

#include <glog/logging.h>
#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <utility>
#include <vector>

using Texts = std::vector<std::string>;

class LogCapture : public google::LogSink {
 public:
  LogCapture() { google::AddLogSink(this); }
  ~LogCapture() override { google::RemoveLogSink(this); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  void send(google::LogSeverity severity, const char* file, const char* /*base*/, int /*line*/,
            const google::LogMessageTime& /*time*/, const char* message, size_t length) override {
    EXPECT_EQ(severity, google::GLOG_INFO);  // of error lines, too
    const std::lock_guard lock(mutex_);
    texts_.emplace_back(message, length);
    lines_.push_back(file + (": " + texts_.back()));
  }

  /// Returns the lines logged so far as "[E]text" and removes them.
  Texts takeTexts() { return takeAll().first; }
  /// Returns the lines logged so far as "Core/File: [E]text" and removes them.
  Texts takeLines() { return takeAll().second; }

 private:
  std::pair<Texts, Texts> takeAll() {
    const std::lock_guard lock(mutex_);
    return {std::exchange(texts_, {}), std::exchange(lines_, {})};
  }

  std::mutex mutex_;
  Texts texts_, lines_;
};
