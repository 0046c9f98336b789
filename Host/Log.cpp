#include "Log.h"

#include "Messages.h"

namespace vsa {

LogToConsole::LogToConsole(Console* console, bool verbose) : console_(console), verbose_(verbose) {
  for (const auto severity :
       {google::GLOG_INFO, google::GLOG_WARNING, google::GLOG_ERROR, google::GLOG_FATAL}) {
    google::SetLogDestination(severity, "");
  }
  google::SetStderrLogging(google::GLOG_FATAL);
  google::AddLogSink(this);
}

LogToConsole::~LogToConsole() {
  google::RemoveLogSink(this);
}

void LogToConsole::send(google::LogSeverity severity, const char* /*fullName*/,
                        const char* /*baseName*/, int /*line*/,
                        const google::LogMessageTime& /*time*/, const char* message,
                        std::size_t length) {
  const std::string text = oneLine({message, length});
  const bool isError = text.find("[E]") != std::string::npos || severity >= google::GLOG_ERROR;
  // If every frame of a video fails, the library logs the same line for each: it is shown once.
  if ((isError && text != last_) || verbose_) console_->note(text);
  if (isError) last_ = text;
  if (isError) ++errors_;
}

}  // namespace vsa
