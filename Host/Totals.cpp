#include "Totals.h"

#include "Messages.h"

namespace vsa {

std::string summary(const Totals& totals) {
  std::string text = counted(totals.inputs, "input") + ", " +
                     counted(totals.frames, totals.frameNoun) + ", " +
                     counted(totals.objects, "object") + " in " + fixed(totals.seconds, 2) + " s";
  if (totals.frames > 0 && totals.seconds > 0.0) {
    text += ", " + fixed(static_cast<double>(totals.frames) / totals.seconds, 2) + " " +
            totals.frameNoun + "s a second";
  }
  text += " (loading the models " + fixed(totals.loadingSeconds, 2) + " s)\n";
  for (const ModelTime& model : totals.models) {
    text += "  " + model.name + ": ";
    text += model.runs == 0
                ? "did not run\n"
                : "mean " + fixed(1000.0 * model.seconds / static_cast<double>(model.runs), 1) +
                      " ms of " + counted(model.runs, "run") + "\n";
  }
  for (const ModelTime& model : totals.models) {
    if (model.removedObjects == 0) continue;
    text += "  " + counted(model.removedObjects, "object") + " without an area removed before " +
            model.name + "\n";
  }
  if (totals.failedInputs > 0) text += "  " + counted(totals.failedInputs, "input") + " failed\n";
  if (totals.failedRuns > 0) text += "  " + counted(totals.failedRuns, "model run") + " failed\n";
  return text;
}

}  // namespace vsa
