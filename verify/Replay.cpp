// Runs the fuzz targets on stored inputs, one folder per target, without libFuzzer.

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "verify/Fuzz.h"

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  prepareTargets();
  int count = 0;
  for (const auto& folder : std::filesystem::directory_iterator(argv[1])) {
    if (!chooseTarget(folder.path().filename().string())) return 1;
    for (const auto& file : std::filesystem::directory_iterator(folder)) {
      // If the program crashes, the last line printed names the input.
      std::printf("%s\n", file.path().c_str());
      std::fflush(stdout);
      std::ifstream stream(file.path(), std::ios::binary);
      const std::vector<char> bytes((std::istreambuf_iterator<char>(stream)), {});
      LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
      ++count;
    }
  }
  return count > 0 ? 0 : 1;
}
