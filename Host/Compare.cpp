// The command "compare": how similar the best objects of two images are.
#include <CLI/CLI.hpp>
#include <array>
#include <cstdio>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>

#include "Chain.h"
#include "Command.h"
#include "Frame.h"
#include "FrameSource.h"
#include "Inputs.h"
#include "JsonLines.h"
#include "Messages.h"
#include "Pipeline.h"
#include "Report.h"
#include "Similarity.h"
#include "Text.h"

namespace vsa {
namespace {

// The best object of an image, or of the first frame of a video.
VsaObject bestObject(const std::string& input, Chain* chain) {
  FrameSource source(input);
  cv::Mat image;
  if (!source.next(&image)) throw std::runtime_error("no frame can be read");
  VsaFrame frame = frameOf(image);
  const std::int64_t removedBefore = chain->removedObjects();
  const std::vector<Failure> failures = chain->run(&frame);
  if (!failures.empty()) {
    throw std::runtime_error(chain->nameOf(failures[0].model) + ": " + failures[0].reason);
  }
  if (frame.objects.empty() && chain->removedObjects() > removedBefore) {
    throw std::runtime_error("no object with an area was found");
  }
  return bestWithFeature(frame.objects);
}

Pipeline readImagePipeline(const std::string& path) {
  Pipeline pipeline = readPipeline(path);
  if (pipeline.takesAudio) throw PipelineError(path, "compare takes images, not audio");
  return pipeline;
}

class Compare : public Command {
 public:
  Compare() : Command("compare", "Compare the best objects of two images") {}

 protected:
  void addOptions(CLI::App* command) override {
    addPipeline(command, "JSON file with a detector and a model that computes feature vectors");
    command->add_option("FIRST", images_[0], "An image")->type_name("")->required();
    command->add_option("SECOND", images_[1], "An image")->type_name("")->required();
    addJson(command, "Print one JSON object");
    addVerbose(command);
  }

  int run(Console* console, const LogToConsole* log) const override {
    std::unique_ptr<Chain> chain;
    try {
      chain = std::make_unique<Chain>(readImagePipeline(pipeline_), log);
    } catch (const std::exception& error) {
      console->note(error.what());
      return kUsageError;
    }
    std::array<VsaObject, 2> best;
    int status = kDone;
    for (std::size_t i = 0; i < best.size(); ++i) {
      try {
        best[i] = bestObject(images_[i], chain.get());
      } catch (const PipelineError& error) {
        console->note(error.what());
        return kUsageError;
      } catch (const std::exception& error) {
        console->note(images_[i] + ": " + oneLine(error.what()));
        status = kSomeFailed;
      }
    }
    if (status != kDone) return status;
    const double similarity = cosineSimilarity(best[0].feature, best[1].feature);
    return print(best, similarity, console) ? kDone : kSomeFailed;
  }

 private:
  bool print(const std::array<VsaObject, 2>& best, double similarity, Console* console) const {
    std::string text;
    Json::Value json;
    json["similarity"] = similarity;
    for (std::size_t i = 0; i < best.size(); ++i) {
      FrameInfo info;
      info.input = withoutPasswords(images_[i]);
      info.width = best[i].imageWidth;
      info.height = best[i].imageHeight;
      text += frameTable(info, {best[i]}, console->columns());
      Json::Value& entry = json["objects"].append(objectJson(best[i]));
      setPath(&entry, "input", info.input);
    }
    text += "cosine similarity " + fixed(similarity, 4) + "\n";
    return console->write(json_ ? jsonLine(json) : text);
  }

  std::array<std::string, 2> images_;
};

}  // namespace

std::unique_ptr<Command> makeCompare() {
  return std::make_unique<Compare>();
}

}  // namespace vsa
