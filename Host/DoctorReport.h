// The text that vsa doctor prints.
#pragma once

#include <cstdint>
#include <string>

namespace vsa {

/// Collects lines and counts the mismatches and warnings among them.
class DoctorReport {
 public:
  /// `columns` is the width of the terminal; if it is 0, lines are not broken.
  explicit DoctorReport(int columns) : columns_(columns) {}

  /// Adds a line. If it is broken, its other lines are indented by `further` more columns.
  void line(int indent, const std::string& text, int further = 2);

  /// Adds a mismatch: a file that cannot be examined, or what is wrong with a model.
  void error(const std::string& sentence);
  void wrong(int indent, const std::string& sentence);

  void warn(int indent, const std::string& sentence);

  /// Adds the last line: how many mismatches and warnings there are.
  void addTotals();

  const std::string& text() const { return text_; }
  std::int64_t mismatches() const { return mismatches_; }
  std::int64_t warnings() const { return warnings_; }

 private:
  int columns_;
  std::string text_;
  std::int64_t mismatches_ = 0;
  std::int64_t warnings_ = 0;
};

}  // namespace vsa
