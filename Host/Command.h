// What the commands of vsa share: exit statuses, common options, the console and the log. Each
// command is one file that includes none of the others.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "Console.h"
#include "Log.h"

namespace CLI {
class App;
}

namespace vsa {

/// Exit statuses of the program. A run that a signal ended has 128 and the number of the signal.
inline constexpr int kDone = 0;
inline constexpr int kSomeFailed = 1;
inline constexpr int kUsageError = 2;

/// One command of the program: its options and its implementation.
class Command {
 public:
  virtual ~Command() = default;
  Command(const Command&) = delete;
  Command& operator=(const Command&) = delete;

  /// Adds the command and its options to the program, which then refers to this object.
  void addTo(CLI::App* program);

  /// Whether the command line selects this command. Must be called after parsing.
  bool isChosen() const;

  /// Runs the command with its own console and log. Returns the exit status.
  int execute() const;

 protected:
  Command(std::string name, std::string description);

  virtual void addOptions(CLI::App* command) = 0;
  /// Returns the exit status. An exception is reported as an error and leads to kSomeFailed.
  virtual int run(Console* console, const LogToConsole* log) const = 0;

  // Options that several commands have. Their values are stored in the members below.
  void addPipeline(CLI::App* command, const std::string& description);
  void addJson(CLI::App* command, const std::string& description);
  void addMaxFrames(CLI::App* command, const std::string& description);
  void addVerbose(CLI::App* command);

  std::string pipeline_;        ///< Path of the pipeline file.
  bool json_ = false;           ///< JSON instead of text.
  std::int64_t maxFrames_ = 0;  ///< Of each input; 0 means all.
  bool verbose_ = false;        ///< Show all log lines of the library.

 private:
  std::string name_;
  std::string description_;
  CLI::App* command_ = nullptr;
};

// The commands, each in the file of its name.
std::unique_ptr<Command> makeBench();
std::unique_ptr<Command> makeCompare();
std::unique_ptr<Command> makeCompareEngines();
std::unique_ptr<Command> makeDevices();
std::unique_ptr<Command> makeDoctor();
std::unique_ptr<Command> makeRun();

}  // namespace vsa
