// vsa: runs the models of a pipeline file on images, videos and audio. Each command is in a file of
// its own; the calls of the library are in Model.cpp.
#include <TolCompatible/TolCompatible.h>
#include <glog/logging.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>

#include "Command.h"
#include "Inputs.h"
#include "Text.h"

int main(int argc, char** argv) {
  // Suppresses messages of FFmpeg inside OpenCV about files that are not videos, and those of the
  // engine's thread library on systems that do not describe their processor (many containers).
  // Also keeps ONNX Runtime, which doctor uses without the library, from sending usage data.
#if !defined(_WIN32)
  setenv("OPENCV_FFMPEG_LOGLEVEL", "-8", 0);
  setenv("HWLOC_HIDE_ERRORS", "2", 0);
  setenv("ORT_DISABLE_TELEMETRY", "1", 0);
#endif
  google::InitGoogleLogging(argv[0]);

  CLI::App program("vsa runs neural networks on images, videos and audio.", "vsa");
  program.set_version_flag("--version", std::string("vsa ") + VSA_VERSION + " (library interface " +
                                            kVsaInterfaceVersion + ")");
  program.require_subcommand(1);
  const std::unique_ptr<vsa::Command> commands[] = {vsa::makeDevices(),        vsa::makeRun(),
                                                    vsa::makeCompare(),        vsa::makeDoctor(),
                                                    vsa::makeCompareEngines(), vsa::makeBench()};
  for (const auto& command : commands) command->addTo(&program);
  try {
    program.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    // The message can repeat any argument.
    std::ostringstream message;
    const bool isHelp = program.exit(error, std::cout, message) == 0;
    std::cerr << vsa::printableLines(vsa::withoutPasswords(message.str()));
    return isHelp ? vsa::kDone : vsa::kUsageError;
  }
  for (const auto& command : commands) {
    if (command->isChosen()) return command->execute();
  }
  return vsa::kUsageError;
}
