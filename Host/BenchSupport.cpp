#include "BenchSupport.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <stdexcept>

#include "Messages.h"
#include "PipelineCheck.h"

#if defined(__linux__)
#include <unistd.h>
#endif

namespace vsa {

double residentMegabytes() {
#if defined(__linux__)
  std::ifstream file("/proc/self/statm");
  double pages = 0.0;
  double resident = 0.0;
  if (file >> pages >> resident) {
    return resident * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1e6;
  }
#endif
  return kUnknown;
}

double percentile(std::vector<double> values, double fraction) {
  const auto rank =
      static_cast<std::ptrdiff_t>(std::ceil(fraction * static_cast<double>(values.size())));
  const auto value = values.begin() + std::max<std::ptrdiff_t>(rank - 1, 0);
  std::nth_element(values.begin(), value, values.end());
  return *value;
}

std::string tableCell(double value, std::ptrdiff_t width, int digits) {
  std::string number = std::isnan(value) ? "-" : fixed(value, digits);
  while (std::ssize(number) >= width && digits > 0) number = fixed(value, --digits);
  const auto spaces = std::max<std::ptrdiff_t>(width - std::ssize(number), 1);
  return std::string(static_cast<std::size_t>(spaces), ' ') + number;
}

void runModel(Model& model, VsaFrame* frame) {
  if (!model.run(frame)) {
    const std::string reason = refusalReason(model.spec());
    throw std::runtime_error(model.spec().name + ": " +
                             (reason.empty() ? "the model refused the frame" : reason));
  }
}

}  // namespace vsa
