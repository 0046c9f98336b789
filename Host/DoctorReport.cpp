#include "DoctorReport.h"

#include "Messages.h"
#include "Text.h"

namespace vsa {

void DoctorReport::line(int indent, const std::string& text, int further) {
  text_ += std::string(static_cast<std::size_t>(indent), ' ') +
           wrapped(printable(text), indent + further, columns_ > 0 ? columns_ - 1 - indent : 0) +
           "\n";
}

void DoctorReport::error(const std::string& sentence) {
  line(0, sentence);
  ++mismatches_;
}

void DoctorReport::wrong(int indent, const std::string& sentence) {
  line(indent, "wrong: " + sentence);
  ++mismatches_;
}

void DoctorReport::warn(int indent, const std::string& sentence) {
  line(indent, "warning: " + sentence);
  ++warnings_;
}

void DoctorReport::addTotals() {
  if (mismatches_ + warnings_ == 0) {
    line(0, "nothing is wrong");
  } else {
    line(0, counted(mismatches_, "mismatch") + ", " + counted(warnings_, "warning"));
  }
}

}  // namespace vsa
