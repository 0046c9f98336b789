// vsa: runs the models of a pipeline file on pictures, videos and sound. This file holds the
// command line only; the calls of the library are in Model.cpp.
#include <TolCompatible/TolCompatible.h>
#include <glog/logging.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include "Compare.h"
#include "Run.h"

namespace {

constexpr char kFooter[] =
    R"(Examples:
  vsa devices
  vsa run text.json page.png
  vsa run text.json scans/ 'more/*.jpg' --output annotated
  vsa run --json text.json clip.mp4 --max-frames 100 > results.jsonl
  vsa run audio.json dog.wav clip.mp4
  vsa compare person.json one.jpg two.jpg

Exit status: 0 all done; 1 some input or model run failed; 2 wrong usage or
pipeline; 130 interrupted (what was done until then is complete).
)";

void addRunOptions(CLI::App* command, vsa::RunOptions* options) {
  command->add_option("PIPELINE", options->pipeline, "JSON file that names the models")
      ->type_name("")
      ->required();
  command
      ->add_option("INPUT", options->inputs,
                   "Pictures, videos, sound (for models that take\nit), folders of them, patterns "
                   "(* ? [ ]) or\naddresses of streams")
      ->type_name("")
      ->required();
  command->add_flag("-j,--json", options->json,
                    "Print JSON Lines, one object a frame, instead\nof the table");
  command->add_option("--json-file", options->jsonFile, "Write JSON Lines to a file as well")
      ->type_name("FILE");
  command
      ->add_option("-o,--output", options->outputFolder,
                   "Write annotated pictures and videos to this\nfolder")
      ->type_name("FOLDER");
  command
      ->add_option("--font", options->fontFile,
                   "Font of the annotations (default: one with\nChinese letters, from the usual "
                   "places)")
      ->type_name("FILE");
  command->add_flag("-r,--recursive", options->recursive, "Look into folders in folders");
  command
      ->add_option("--max-frames", options->maxFrames,
                   "Stop each video after so many frames, sound\nafter so many blocks")
      ->check(CLI::Range(std::int64_t{1}, std::int64_t{1} << 53))
      ->type_name("NUMBER");
  command->add_flag("-q,--quiet", options->quiet, "No summary at the end");
  command->add_flag("-v,--verbose", options->verbose, "Show the log lines of the library");
  command->footer(kFooter);
}

void addCompareOptions(CLI::App* command, vsa::CompareOptions* options) {
  command
      ->add_option("PIPELINE", options->pipeline,
                   "JSON file that names a detector and a model\nthat makes features")
      ->type_name("")
      ->required();
  command->add_option("FIRST", options->pictures[0], "A picture")->type_name("")->required();
  command->add_option("SECOND", options->pictures[1], "A picture")->type_name("")->required();
  command->add_flag("-j,--json", options->json, "Print one JSON object");
  command->add_flag("-v,--verbose", options->verbose, "Show the log lines of the library");
  command->footer(kFooter);
}

}  // namespace

int main(int argc, char** argv) {
  // FFmpeg inside OpenCV would tell about every file that is no video on its own, and the engine's
  // thread library about a system that does not describe its processor (many containers).
#if !defined(_WIN32)
  setenv("OPENCV_FFMPEG_LOGLEVEL", "-8", 0);
  setenv("HWLOC_HIDE_ERRORS", "2", 0);
#endif
  google::InitGoogleLogging(argv[0]);
  vsa::RunOptions options;
  vsa::CompareOptions compareOptions;
  bool verbose = false;

  CLI::App app("vsa runs neural networks on pictures, videos and sound.", "vsa");
  app.set_version_flag("--version", std::string("vsa ") + VSA_VERSION + " (library interface " +
                                        kVsaInterfaceVersion + ")");
  app.require_subcommand(1);
  app.footer(kFooter);
  CLI::App* devices = app.add_subcommand("devices", "List the devices that models can run on");
  devices->add_flag("-v,--verbose", verbose, "Show the log lines of the library");
  CLI::App* run = app.add_subcommand("run", "Run a pipeline on pictures, videos or sound");
  addRunOptions(run, &options);
  CLI::App* compare =
      app.add_subcommand("compare", "Tell how much alike the best objects of two\npictures are");
  addCompareOptions(compare, &compareOptions);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? vsa::kDone : vsa::kUsageError;
  }
  try {
    if (devices->parsed()) return vsa::listDevices(verbose);
    if (compare->parsed()) return vsa::comparePictures(compareOptions);
    return vsa::runPipeline(options);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "vsa: %s\n", error.what());
    return vsa::kSomeFailed;
  }
}
