#include "Command.h"

#include <CLI/CLI.hpp>
#include <exception>
#include <opencv2/core/utils/logger.hpp>
#include <utility>

#include "LibraryMessages.h"
#include "Messages.h"

namespace vsa {
namespace {

constexpr int kTerminalColumns = 80;

constexpr char kExamples[] = R"(Examples:
  vsa devices
  vsa run text.json page.png
  vsa run yolov8n.onnx street.jpg
  vsa run text.json scans/ 'more/*.jpg' --output annotated
  vsa run --json text.json clip.mp4 --max-frames 100 > results.jsonl
  find . -name '*.png' | vsa run --stdin text.json > results.jsonl
  vsa run audio.json dog.wav clip.mp4
  vsa compare person.json one.jpg two.jpg
  vsa doctor yolov8n.xml --write yolo8.json
  vsa doctor yolo8.json
  vsa compare-engines yolo8.json images/
  vsa bench yolo8.json street.jpg --runs 200

)";
constexpr char kExitStatus[] =
    "Exit status: 0 if everything succeeded; 1 if an input or the run of a model failed, or doctor "
    "or compare-engines found a problem or a difference; 2 if the usage or the pipeline is wrong; "
    "130, 143 or 129 if interrupted by Ctrl-C, SIGTERM or SIGHUP (the results up to then are "
    "complete).";

// Wraps descriptions in their column; CLI11 does this only in later versions.
class WrappingFormatter : public CLI::Formatter {
 public:
  std::string make_option_desc(const CLI::Option* option) const override {
    const int column = static_cast<int>(get_column_width());
    return wrapped(CLI::Formatter::make_option_desc(option), 0, kTerminalColumns - 1 - column);
  }
};

}  // namespace

Command::Command(std::string name, std::string description)
    : name_(std::move(name)), description_(std::move(description)) {}

void Command::addTo(CLI::App* program) {
  program->formatter(std::make_shared<WrappingFormatter>());
  program->footer(kExamples + wrapped(kExitStatus, 0, kTerminalColumns - 1) + "\n");
  command_ = program->add_subcommand(name_, description_);  // inherits formatter and footer
  command_->set_version_flag("--version", program->version());
  addOptions(command_);
}

bool Command::isChosen() const {
  return command_->parsed();
}

int Command::execute() const {
  if (!verbose_) cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_SILENT);
  Console console;
  const LibraryMessages messages(&console);
  const LogToConsole log(&console, verbose_);
  try {
    return run(&console, &log);
  } catch (const std::exception& error) {
    console.note(oneLine(error.what()));
    return kSomeFailed;
  }
}

void Command::addPipeline(CLI::App* command, const std::string& description) {
  command->add_option("PIPELINE", pipeline_, description)->type_name("")->required();
}

void Command::addJson(CLI::App* command, const std::string& description) {
  command->add_flag("-j,--json", json_, description);
}

void Command::addMaxFrames(CLI::App* command, const std::string& description) {
  constexpr std::int64_t kMaxFrames = std::int64_t{1} << 53;
  command->add_option("--max-frames", maxFrames_, description)
      ->check(CLI::Validator(
          [](const std::string& text) -> std::string {
            const std::string range = CLI::Range(std::int64_t{1}, kMaxFrames)(text);
            return range.empty() ? "" : text + " is not a whole number of at least 1";
          },
          ""))
      ->type_name("NUMBER");
}

void Command::addVerbose(CLI::App* command) {
  command->add_flag("-v,--verbose", verbose_, "Show the log lines of the library");
}

}  // namespace vsa
