// vsa: runs the models of a pipeline file on images, videos and audio. Each command is in a file of
// its own; the calls of the library are in Model.cpp.
#include <TolCompatible/TolCompatible.h>
#include <glog/logging.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "Command.h"
#include "Inputs.h"
#include "Messages.h"
#include "Text.h"

namespace {

// Sets an environment variable that has no value yet.
void setDefault(const char* name, const char* value) {
#if defined(_WIN32)
  if (std::getenv(name) == nullptr) _putenv_s(name, value);
#else
  setenv(name, value, 0);
#endif
}

}  // namespace

int main(int argc, char** argv) {
  // Suppresses messages of FFmpeg inside OpenCV about files that are not videos, and those of the
  // engine's thread library on systems that do not describe their processor (many containers).
  // Also keeps ONNX Runtime, which doctor uses without the library, from sending usage data.
  setDefault("OPENCV_FFMPEG_LOGLEVEL", "-8");
  setDefault("HWLOC_HIDE_ERRORS", "2");
  setDefault("ORT_DISABLE_TELEMETRY", "1");
  google::InitGoogleLogging(argv[0]);

  CLI::App program("vsa runs neural networks on images, videos and audio.", "vsa");
  program.set_version_flag("--version", std::string("vsa ") + VSA_VERSION + " (library interface " +
                                            kVsaInterfaceVersion + ")");
  program.require_subcommand(1);
  const std::unique_ptr<vsa::Command> commands[] = {vsa::makeDevices(),        vsa::makeRun(),
                                                    vsa::makeCompare(),        vsa::makeDoctor(),
                                                    vsa::makeCompareEngines(), vsa::makeBench()};
  for (const auto& command : commands) command->addTo(&program);
  std::vector<std::string> arguments(argv + std::min(argc, 1), argv + argc);
  if (!arguments.empty() && arguments[0] == "help") {
    arguments.erase(arguments.begin());
    arguments.emplace_back("--help");
  }
  if (!arguments.empty() && !arguments[0].starts_with('-')) {
    std::vector<std::string> names;
    for (const CLI::App* command : program.get_subcommands({}))
      names.push_back(command->get_name());
    if (std::ranges::find(names, arguments[0]) == names.end()) {
      const std::string message =
          "vsa: there is no command " + vsa::inQuotes(vsa::withoutPasswords(arguments[0])) +
          vsa::suggestion(arguments[0], names) + "\n" + "The commands are " +
          vsa::joined(names, ", ") + ". Run with --help for more information.\n";
      std::cerr << vsa::printableLines(message);
      return vsa::kUsageError;
    }
  }
  std::ranges::reverse(arguments);  // as CLI11 expects
  try {
    program.parse(arguments);
  } catch (const CLI::ParseError& error) {
    std::ostringstream stream;
    const bool isHelp = program.exit(error, std::cout, stream) == 0;
    // The message can repeat any argument. A line break in one must not begin a line of output.
    std::string message = stream.str();
    for (int i = 1; i < argc; ++i) {
      const std::string argument = argv[i];
      if (argument.find('\n') == std::string::npos) continue;
      for (std::size_t at = 0; (at = message.find(argument, at)) != std::string::npos;) {
        message.replace(at, argument.size(), vsa::printable(argument));
      }
    }
    std::cerr << vsa::printableLines(vsa::withoutPasswords(message));
    return isHelp ? vsa::kDone : vsa::kUsageError;
  }
  for (const auto& command : commands) {
    if (command->isChosen()) return command->execute();
  }
  return vsa::kUsageError;
}
