#include "LogLines.h"

#include <glog/logging.h>

#include <string_view>
#include <utility>

namespace python {
namespace {

thread_local LogCollector* collector = nullptr;

}  // namespace

class LogSink : public google::LogSink {
 public:
  void send(google::LogSeverity severity, const char* fullName, const char* /*baseName*/, int line,
            const google::LogMessageTime& /*time*/, const char* message,
            std::size_t length) override {
    if (collector == nullptr) return;
    const std::string_view text(message, length);
    const bool isError = text.starts_with("[E]") || severity >= google::GLOG_ERROR;
    collector->lines_.push_back({isError, fullName, line, std::string(text)});
  }
};

LogCollector::LogCollector() : outer_(std::exchange(collector, this)) {}

LogCollector::~LogCollector() {
  collector = outer_;
}

std::vector<LogLine> LogCollector::take() {
  return std::exchange(lines_, {});
}

void startLogging() {
  // Never destroyed: glog may log until the process ends.
  static LogSink* const sink = [] {
    if (!google::IsGoogleLoggingInitialized()) {
      google::InitGoogleLogging("tolcompatible");
      for (const auto severity :
           {google::GLOG_INFO, google::GLOG_WARNING, google::GLOG_ERROR, google::GLOG_FATAL}) {
        google::SetLogDestination(severity, "");
      }
      google::SetStderrLogging(google::GLOG_FATAL);
    }
    auto* const made = new LogSink;
    google::AddLogSink(made);
    return made;
  }();
  static_cast<void>(sink);
}

}  // namespace python
