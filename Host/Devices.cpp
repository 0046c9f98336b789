// The command "devices": lists the engines with their devices.
#include <exception>

#include "Command.h"
#include "DeviceNames.h"
#include "Messages.h"
#include "Text.h"

namespace vsa {
namespace {

class Devices : public Command {
 public:
  Devices() : Command("devices", "List the devices that models can run on") {}

 protected:
  void addOptions(CLI::App* command) override { addVerbose(command); }

  int run(Console* console, const LogToConsole* /*log*/) const override {
    const VsaDeviceSet* devices = nullptr;
    try {
      devices = &deviceNames();
    } catch (const std::exception& error) {
      console->note("the devices cannot be listed: " + oneLine(error.what()));
      return kSomeFailed;
    }
    bool written = true;
    for (const std::string& device : *devices) written = console->write(printable(device) + "\n");
    return written ? kDone : kSomeFailed;
  }
};

}  // namespace

std::unique_ptr<Command> makeDevices() {
  return std::make_unique<Devices>();
}

}  // namespace vsa
