// Names the annotated files and writes them. Inputs are never written to: their folder is refused,
// and a link that bears an output's name is removed before the output is made.
#include "Output.h"

#include <algorithm>
#include <cctype>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <stdexcept>

#include "Inputs.h"

namespace vsa {
namespace {

namespace fs = std::filesystem;

// A file name for an address: what stands behind its last slash, in harmless letters.
std::string nameOfAddress(const std::string& address) {
  std::string name = address.substr(0, address.find_first_of("?#"));
  name = name.substr(name.rfind('/') + 1);
  for (char& letter : name) {
    if (std::isalnum(static_cast<unsigned char>(letter)) == 0 && letter != '.') letter = '_';
  }
  return name.empty() ? "stream" : name;
}

std::string lowerCase(std::string text) {
  for (char& letter : text) {
    letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
  }
  return text;
}

}  // namespace

Output::Output(const std::string& folder, const std::string& fontFile,
               const std::vector<std::string>& inputs)
    : folder_(folder), painter_(fontFile) {
  std::error_code error;
  fs::create_directories(folder_, error);
  if (!fs::is_directory(folder_)) {
    throw std::runtime_error(folder + ": the folder cannot be made" +
                             (error ? " (" + error.message() + ")" : ""));
  }
  for (const std::string& input : inputs) {
    if (isAddress(input)) continue;
    const fs::path parent = fs::absolute(input).parent_path();
    std::error_code unused;
    if (fs::equivalent(parent, folder_, unused)) {
      std::string sentence = folder;
      sentence += ": the input " + input + " lies in the output folder; choose another folder";
      throw std::runtime_error(sentence);
    }
  }
}

fs::path Output::newFile(const std::string& input, const std::string& extension) {
  const fs::path name = isAddress(input) ? fs::path(nameOfAddress(input)) : fs::path(input);
  const std::string stem = name.stem().string();
  std::string chosen = stem + extension;
  // Two inputs of one name get different outputs, also where case makes no difference to files.
  for (int number = 2; !used_.insert(lowerCase(chosen)).second; ++number) {
    chosen = stem + '-';
    chosen += std::to_string(number);
    chosen += extension;
  }
  fs::path file = folder_ / chosen;
  fs::remove(file);
  return file;
}

void Output::write(const std::string& input, double frameRate, cv::Mat* frame,
                   const std::vector<VsaObject>& objects) {
  if (frameRate > 0.0 && !video_.isOpened()) openVideo(input, frameRate, frame->size());
  painter_.paint(frame, objects);
  if (frameRate > 0.0) {
    // A stream may change its size on the way, a file cannot.
    if (frame->size() != videoSize_) cv::resize(*frame, *frame, videoSize_);
    video_.write(*frame);
    return;
  }
  std::string extension = fs::path(input).extension().string();
  if (extension.empty() || !cv::haveImageWriter("name" + extension)) extension = ".png";
  const std::string file = newFile(input, extension).string();
  if (!cv::imwrite(file, *frame)) throw std::runtime_error(file + " cannot be written");
}

void Output::openVideo(const std::string& input, double frameRate, const cv::Size& size) {
  const std::string file = newFile(input, ".mp4").string();
  videoSize_ = size;
  // H.264, which every player knows, where there is an encoder; MPEG-4 part 2 is nearly always
  // there.
  for (const char* codec : {"avc1", "mp4v"}) {
    if (video_.open(file, cv::VideoWriter::fourcc(codec[0], codec[1], codec[2], codec[3]),
                    frameRate, size)) {
      return;
    }
  }
  throw std::runtime_error(file + " cannot be written");
}

void Output::finish() {
  video_.release();
}

}  // namespace vsa
