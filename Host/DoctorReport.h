// The text that vsa doctor prints.
#pragma once

#include <cstdint>
#include <string>

namespace vsa {

/// Collects lines and counts the errors and warnings among them.
class DoctorReport {
 public:
  /// `columns` is the width of the terminal; if it is 0, lines are not wrapped.
  explicit DoctorReport(int columns) : columns_(columns) {}

  /// Adds a line. If it is wrapped, its other lines are indented by `further` more columns.
  void line(int indent, const std::string& text, int further = 2);

  /// Adds an error about a file that cannot be examined. The sentence begins with its path.
  void fileError(const std::string& sentence);

  /// Adds an error about a model, or a warning.
  void error(int indent, const std::string& sentence);
  void warn(int indent, const std::string& sentence);

  /// Adds the last line: the number of errors and warnings.
  void addTotals();

  const std::string& text() const { return text_; }
  std::int64_t errors() const { return errors_; }
  std::int64_t warnings() const { return warnings_; }

 private:
  int columns_;
  std::string text_;
  std::int64_t errors_ = 0;
  std::int64_t warnings_ = 0;
};

}  // namespace vsa
