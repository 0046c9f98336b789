// Inputs are never overwritten: an output folder that contains an input is rejected, and a link
// with the name of an output is removed before the output is written. Every file is checked when it
// is closed; one that could not be completed is removed.
#include "Output.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <fstream>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <stdexcept>
#include <utility>

#include "Inputs.h"

namespace vsa {
namespace {

namespace fs = std::filesystem;

// A file name for an address: the part after the last slash, without user and password, with "_"
// for special characters.
std::string nameOfAddress(const std::string& address) {
  std::string name = address.substr(0, address.find_first_of("?#"));
  name = name.substr(name.rfind('/') + 1);
  if (address.find("://" + name) != std::string::npos) name = name.substr(name.rfind('@') + 1);
  for (char& c : name) {
    if (std::isalnum(static_cast<unsigned char>(c)) == 0 && c != '.') c = '_';
  }
  return name.empty() ? "stream" : name;
}

// Encodes the image in the format of the extension. The file is not written by OpenCV because it
// does not report all errors.
void encode(const cv::Mat& image, const fs::path& path) {
  std::vector<std::uint8_t> bytes;
  if (!cv::imencode(path.extension().string(), image, bytes)) {
    throw std::runtime_error(path.string() + ": the image cannot be encoded");
  }
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  if (!file) throw std::runtime_error(path.string() + " cannot be written");
  file.write(reinterpret_cast<const char*>(bytes.data()), std::ssize(bytes));
  file.close();
  if (!file) discard(path, "image");
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

void AnnotatedOutput::writeVideo(const FrameInfo& info, double frameRate, cv::Mat image,
                                 std::vector<VsaObject> objects) {
  if (!video_) {
    video_ = std::make_unique<VideoFile>(folder_.newFile(info.input, "", ".mp4"), frameRate,
                                         image.size(), painter_);
  }
  video_->write(std::move(image), std::move(objects));
}

void AnnotatedOutput::writeImage(const FrameInfo& info, cv::Mat* image,
                                 const std::vector<VsaObject>& objects) {
  painter_.paint(image, objects, TextPlace::kPanelIfFull);
  std::string extension = fs::path(info.input).extension().string();
  // The formats of grey images cannot hold coloured annotations.
  const bool isGrey = extension == ".pgm" || extension == ".pbm";
  if (extension.empty() || isGrey || !cv::haveImageWriter("name" + extension)) extension = ".png";
  std::string suffix;
  if (info.pages > 1) suffix.append("-").append(std::to_string(info.page()));
  encode(*image, folder_.newFile(info.input, suffix, extension));
}

void AnnotatedOutput::finish() {
  if (const std::unique_ptr<VideoFile> video = std::move(video_)) video->finish();
}

Crops writeCrops(const FrameInfo& info, const cv::Mat& frame, const std::vector<VsaObject>& objects,
                 OutputFolder* folder) {
  Crops crops;
  crops.files.resize(objects.size());
  try {
    for (std::size_t i = 0; i < objects.size(); ++i) {
      cv::Rect area = cv::boundingRect(cornersOf(objects[i]));
      --area.width;  // corners lie between pixels
      --area.height;
      area &= cv::Rect(cv::Point(0, 0), frame.size());
      if (area.empty()) continue;
      std::string suffix = "-";
      if (info.time) suffix.append(std::to_string(info.index)).append("-");
      if (info.pages > 1) suffix.append(std::to_string(info.page())).append("-");
      suffix += std::to_string(i + 1);
      const fs::path file = folder->newFile(info.input, suffix, ".png");
      encode(frame(area), file);
      crops.files[i] = file.string();
    }
  } catch (const std::exception& error) {
    crops.failure = error.what();
  }
  return crops;
}

}  // namespace vsa
