#include "DoctorReport.h"

#include "Inputs.h"
#include "Messages.h"
#include "Text.h"

namespace vsa {

void DoctorReport::line(int indent, const std::string& text, int further) {
  text_ += std::string(static_cast<std::size_t>(indent), ' ') +
           wrapped(printable(withoutPasswords(text)), indent + further,
                   columns_ > 0 ? columns_ - 1 - indent : 0) +
           "\n";
}

void DoctorReport::fileError(const std::string& sentence) {
  line(0, sentence);
  ++errors_;
}

void DoctorReport::error(int indent, const std::string& sentence) {
  line(indent, "error: " + sentence);
  ++errors_;
}

void DoctorReport::warn(int indent, const std::string& sentence) {
  line(indent, "warning: " + sentence);
  ++warnings_;
}

void DoctorReport::addTotals() {
  if (errors_ + warnings_ == 0) {
    line(0, "no problems found");
  } else {
    line(0, counted(errors_, "error") + ", " + counted(warnings_, "warning"));
  }
}

}  // namespace vsa
