// Shows the log lines of the library on the console.
#pragma once

#include <glog/logging.h>

#include <cstddef>
#include <string>

#include "Console.h"

namespace vsa {

/// Shows the library's error lines on standard error, and all other lines if `verbose`. While it
/// exists, glog itself writes nothing.
class LogToConsole : public google::LogSink {
 public:
  LogToConsole(Console* console, bool verbose);
  ~LogToConsole() override;
  LogToConsole(const LogToConsole&) = delete;
  LogToConsole& operator=(const LogToConsole&) = delete;

  void send(google::LogSeverity severity, const char* fullName, const char* baseName, int line,
            const google::LogMessageTime& time, const char* message, std::size_t length) override;

  /// Number of error lines so far.
  int errors() const { return errors_; }

 private:
  Console* console_;
  bool verbose_;
  int errors_ = 0;
  std::string last_;
};

}  // namespace vsa
