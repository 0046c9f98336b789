// Inputs are never overwritten: an output folder that contains an input is rejected, and a link
// with the name of an output is removed before the output is written.
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

// A file name for an address: the part after the last slash, with "_" for special characters.
std::string nameOfAddress(const std::string& address) {
  std::string name = address.substr(0, address.find_first_of("?#"));
  name = name.substr(name.rfind('/') + 1);
  for (char& c : name) {
    if (std::isalnum(static_cast<unsigned char>(c)) == 0 && c != '.') c = '_';
  }
  return name.empty() ? "stream" : name;
}

std::string lowerCase(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

}  // namespace

OutputFolder::OutputFolder(const std::string& path) : path_(path) {
  std::error_code error;
  fs::create_directories(path_, error);
  if (!fs::is_directory(path_)) {
    throw std::runtime_error(path + ": the folder cannot be created" +
                             (error ? " (" + error.message() + ")" : ""));
  }
}

void OutputFolder::refuse(const std::string& input) const {
  if (isAddress(input)) return;
  std::error_code unused;
  if (fs::equivalent(fs::absolute(input).parent_path(), path_, unused)) {
    throw std::runtime_error(path_.string() + ": the input " + input +
                             " is in the output folder; choose another folder");
  }
}

fs::path OutputFolder::newFile(const std::string& input, const std::string& suffix,
                               const std::string& extension) {
  const fs::path name = isAddress(input) ? fs::path(nameOfAddress(input)) : fs::path(input);
  const std::string stem = name.stem().string() + suffix;
  std::string chosen = stem + extension;
  // Two inputs of the same name get different outputs, even if file names ignore case.
  for (int number = 2; !used_.insert(lowerCase(chosen)).second; ++number) {
    chosen = stem + '-';
    chosen += std::to_string(number);
    chosen += extension;
  }
  fs::path file = path_ / chosen;
  fs::remove(file);
  return file;
}

void AnnotatedOutput::write(const std::string& input, double frameRate, cv::Mat* frame,
                            const std::vector<VsaObject>& objects) {
  if (frameRate > 0.0 && !video_.isOpened()) openVideo(input, frameRate, frame->size());
  // All frames of a video have the same size.
  painter_.paint(frame, objects, frameRate > 0.0 ? TextPlace::kLabels : TextPlace::kPanelIfFull);
  if (frameRate > 0.0) {
    // The frame size of a stream may change, that of a file cannot.
    if (frame->size() != videoSize_) cv::resize(*frame, *frame, videoSize_);
    video_.write(*frame);
    return;
  }
  std::string extension = fs::path(input).extension().string();
  if (extension.empty() || !cv::haveImageWriter("name" + extension)) extension = ".png";
  const std::string file = folder_.newFile(input, "", extension).string();
  if (!cv::imwrite(file, *frame)) throw std::runtime_error(file + " cannot be written");
}

void AnnotatedOutput::openVideo(const std::string& input, double frameRate, const cv::Size& size) {
  const std::string file = folder_.newFile(input, "", ".mp4").string();
  videoSize_ = size;
  // H.264, which every player supports, if there is an encoder; else MPEG-4 part 2, which is nearly
  // always there.
  for (const char* codec : {"avc1", "mp4v"}) {
    if (video_.open(file, cv::VideoWriter::fourcc(codec[0], codec[1], codec[2], codec[3]),
                    frameRate, size)) {
      return;
    }
  }
  throw std::runtime_error(file + " cannot be written");
}

void AnnotatedOutput::finish() {
  video_.release();
}

std::vector<std::string> writeCrops(const FrameInfo& info, const cv::Mat& frame,
                                    const std::vector<VsaObject>& objects, OutputFolder* folder) {
  std::vector<std::string> files;
  for (const VsaObject& object : objects) {
    std::string& file = files.emplace_back();
    cv::Rect area = cv::boundingRect(cornersOf(object));
    --area.width;  // corners lie between pixels
    --area.height;
    area &= cv::Rect(cv::Point(0, 0), frame.size());
    if (area.empty()) continue;
    std::string suffix = "-";
    if (info.time) suffix.append(std::to_string(info.index)).append("-");
    suffix += std::to_string(files.size());
    file = folder->newFile(info.input, suffix, ".png").string();
    if (!cv::imwrite(file, frame(area))) throw std::runtime_error(file + " cannot be written");
  }
  return files;
}

}  // namespace vsa
