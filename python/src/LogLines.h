// The log lines of the library during one call.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace python {

/// A line that the library logged.
struct LogLine {
  bool isError = false;
  std::string file;  ///< Path in the source tree, without extension.
  int line = 0;
  std::string text;  ///< With its tag: "[E]..." or "[I]...".
};

/// Keeps the lines that this thread logs while the object exists. The library logs only in the
/// thread that calls it, so no lock is needed, and the GIL is not taken while glog holds its own.
class LogCollector {
 public:
  LogCollector();
  ~LogCollector();
  LogCollector(const LogCollector&) = delete;
  LogCollector& operator=(const LogCollector&) = delete;

  /// Returns the lines and forgets them.
  std::vector<LogLine> take();

 private:
  friend class LogSink;
  std::vector<LogLine> lines_;
  LogCollector* outer_;
};

/// Initialises glog, unless the process has done so, such that it writes neither files nor to
/// standard error. Further calls do nothing.
void startLogging();

}  // namespace python
