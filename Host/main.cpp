// vsa: runs the models of a pipeline file on pictures, videos and sound. This file holds the
// command line only; the calls of the library are in Model.cpp.
#include <TolCompatible/TolCompatible.h>
#include <glog/logging.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include "Bench.h"
#include "Compare.h"
#include "CompareEngines.h"
#include "Doctor.h"
#include "Run.h"

namespace {

constexpr char kFooter[] =
    R"(Examples:
  vsa devices
  vsa run text.json page.png
  vsa run text.json scans/ 'more/*.jpg' --output annotated
  vsa run --json text.json clip.mp4 --max-frames 100 > results.jsonl
  find . -name '*.png' | vsa run --stdin text.json > results.jsonl
  vsa run audio.json dog.wav clip.mp4
  vsa compare person.json one.jpg two.jpg
  vsa doctor yolov8n.xml --write yolo8.json
  vsa doctor yolo8.json
  vsa compare-engines yolo8.json pictures/
  vsa bench yolo8.json street.jpg --runs 200

Exit status: 0 all done; 1 some input or model run failed, or the doctor or
the comparison of engines found something; 2 wrong usage or pipeline; 130
interrupted (what was done until then is complete).
)";

void addRunOptions(CLI::App* command, vsa::RunOptions* options) {
  command->add_option("PIPELINE", options->pipeline, "JSON file that names the models")
      ->type_name("")
      ->required();
  command
      ->add_option("INPUT", options->inputs,
                   "Pictures, videos, sound (for models that take\nit), folders of them, patterns "
                   "(* ? [ ]) or\naddresses of streams")
      ->type_name("");
  command
      ->add_flag("--stdin", options->standardInput,
                 "Read the inputs from standard input, one a\nline, and answer each at once with "
                 "JSON Lines")
      ->excludes("INPUT");
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
  command
      ->add_option("--crops", options->cropsFolder,
                   "Write a picture of each object to this\nfolder")
      ->type_name("FOLDER");
  command
      ->add_option("--objects", options->objectsFile,
                   "Start each frame with the objects that were\nrecorded for it (JSON Lines of "
                   "vsa)")
      ->type_name("FILE");
  command->add_option("--only", options->only, "Tell, draw and cut out these classes only")
      ->delimiter(',')
      ->type_name("CLASS[,CLASS...]")
      ->allow_extra_args(false);
  command->add_flag("-r,--recursive", options->recursive, "Look into folders in folders");
  command
      ->add_option("--max-side", options->maxSide,
                   "Shrink frames with a longer side for the\nmodels; results are in pixels of "
                   "the original")
      ->check(CLI::Range(1, 65535).description(""))
      ->type_name("PIXELS");
  // The most that the library takes: 2^31 - 1 bytes.
  constexpr std::int64_t kMostPixels = ((std::int64_t{1} << 31) - 1) / 3;
  command
      ->add_option("--max-pixels", options->maxPixels,
                   "Refuse pictures and videos with more pixels\n(default 200000000)")
      ->check(CLI::Range(std::int64_t{1}, kMostPixels).description(""))
      ->type_name("NUMBER");
  command
      ->add_option("--max-frames", options->maxFrames,
                   "Stop each video after so many frames, sound\nafter so many blocks")
      ->check(CLI::Range(std::int64_t{1}, std::int64_t{1} << 53).description(""))
      ->type_name("NUMBER");
  command->add_flag("-q,--quiet", options->quiet, "No summary at the end");
  command->add_flag("-v,--verbose", options->verbose, "Show the log lines of the library");
  command->callback([options] {
    if (options->inputs.empty() && !options->standardInput) {
      throw CLI::RequiredError("INPUT or --stdin");
    }
  });
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

void addDoctorOptions(CLI::App* command, vsa::DoctorOptions* options) {
  command
      ->add_option("MODEL", options->files,
                   "Networks (.xml, .onnx): what they are and which\nmodels they fit; pipelines "
                   "(.json): whether they\nfit their networks")
      ->type_name("")
      ->required();
  CLI::Option* write =
      command->add_option("-w,--write", options->write, "Write a pipeline file of the networks")
          ->type_name("FILE");
  command
      ->add_option("--as", options->as,
                   "Which model is meant where several fit; once\nfor each network")
      ->type_name("NAME")
      ->expected(1)
      ->take_all()
      ->needs(write);
  command->add_flag("--strict", options->strict, "Exit with 1 for warnings too");
  command->footer(kFooter);
}

void addCompareEnginesOptions(CLI::App* command, vsa::CompareEnginesOptions* options) {
  command->add_option("PIPELINE", options->pipeline, "JSON file that names a detector")
      ->type_name("")
      ->required();
  command->add_option("INPUT", options->inputs, "Pictures, videos, folders of them, patterns")
      ->type_name("")
      ->required();
  command
      ->add_option("--other", options->other,
                   "Network for the other engine (default: the file\nbeside the first, .onnx for "
                   ".xml and back)")
      ->type_name("FILE");
  command->add_option("--pixels", options->pixels, "How far edges of boxes may be off")
      ->check(CLI::NonNegativeNumber)
      ->type_name("NUMBER")
      ->capture_default_str();
  command->add_option("--score", options->score, "How far scores may be off")
      ->check(CLI::Range(0.0, 1.0))
      ->type_name("NUMBER")
      ->capture_default_str();
  command->add_option("--max-frames", options->maxFrames, "Stop each video after so many frames")
      ->check(CLI::Range(std::int64_t{1}, std::int64_t{1} << 53))
      ->type_name("NUMBER");
  command->add_flag("-j,--json", options->json, "Print JSON Lines, one object a picture");
  command->add_flag("-v,--verbose", options->verbose, "Show the log lines of the library");
  command->footer(kFooter);
}

void addBenchOptions(CLI::App* command, vsa::BenchOptions* options) {
  command->add_option("PIPELINE", options->pipeline, "JSON file that names the models")
      ->type_name("")
      ->required();
  command->add_option("INPUT", options->input, "A picture or a video")->type_name("")->required();
  command->add_option("-n,--runs", options->runs, "Number of runs that count")
      ->check(CLI::Range(1, 1000000))
      ->type_name("NUMBER")
      ->capture_default_str();
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
  vsa::DoctorOptions doctorOptions;
  CLI::App* doctor = app.add_subcommand("doctor", "Tell what is wrong with networks and pipelines");
  addDoctorOptions(doctor, &doctorOptions);
  vsa::CompareEnginesOptions enginesOptions;
  CLI::App* engines = app.add_subcommand("compare-engines", "Tell how far the two engines differ");
  addCompareEnginesOptions(engines, &enginesOptions);
  vsa::BenchOptions benchOptions;
  CLI::App* bench = app.add_subcommand("bench", "Measure the models of a pipeline");
  addBenchOptions(bench, &benchOptions);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? vsa::kDone : vsa::kUsageError;
  }
  try {
    if (devices->parsed()) return vsa::listDevices(verbose);
    if (compare->parsed()) return vsa::comparePictures(compareOptions);
    if (doctor->parsed()) return vsa::examine(doctorOptions);
    if (engines->parsed()) return vsa::compareEngines(enginesOptions);
    if (bench->parsed()) return vsa::bench(benchOptions);
    return vsa::runPipeline(options);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "vsa: %s\n", error.what());
    return vsa::kSomeFailed;
  }
}
