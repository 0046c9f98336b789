// Collects what the library logs while it lives.
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
    EXPECT_EQ(severity, google::GLOG_INFO);  // of errors too
    const std::lock_guard lock(mutex_);
    texts_.emplace_back(message, length);
    located_.push_back(file + (": " + texts_.back()));
  }

  /// The lines so far, which are then forgotten; without their files or, as "file: text", with
  /// them.
  Texts texts() { return take().first; }
  Texts located() { return take().second; }

 private:
  std::pair<Texts, Texts> take() {
    const std::lock_guard lock(mutex_);
    return {std::exchange(texts_, {}), std::exchange(located_, {})};
  }

  std::mutex mutex_;
  Texts texts_, located_;
};
