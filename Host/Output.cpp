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
#include <string_view>

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

// Removes the file and throws.
[[noreturn]] void discard(const fs::path& file, const std::string& kind) {
  std::error_code unused;
  fs::remove(file, unused);
  throw std::runtime_error(file.string() + ": the " + kind +
                           " could not be written completely and was removed");
}

// Whether a file of boxes (MP4) consists of whole boxes only and its index ("moov") is among them.
// The index is written last, so this is false if the disk was full at any time.
bool hasIndex(const fs::path& path) {
  constexpr std::uint64_t kHeader = 8;
  std::ifstream file(path, std::ios::binary);
  std::error_code error;
  const std::uint64_t size = fs::file_size(path, error);
  if (error) return false;
  bool found = false;
  std::uint64_t position = 0;
  const auto bigEndian = [&file](int bytes) {
    std::uint64_t value = 0;
    for (int i = 0; i < bytes; ++i) value = value << 8 | static_cast<std::uint8_t>(file.get());
    return value;
  };
  while (size - position >= kHeader) {
    file.seekg(static_cast<std::streamoff>(position));
    std::uint64_t length = bigEndian(4);
    char type[4] = {};
    file.read(type, sizeof type);
    if (length == 1) length = bigEndian(8);
    if (!file || length < kHeader || length > size - position) return false;
    found = found || std::string_view(type, sizeof type) == "moov";
    position += length;
  }
  return found && position == size;
}

// Whether the video can be opened and has at least this many frames. OpenCV does not report frames
// that it failed to encode.
bool hasFrames(const fs::path& path, std::int64_t count) {
  cv::VideoCapture video(path.string());
  return video.isOpened() && video.get(cv::CAP_PROP_FRAME_COUNT) >= static_cast<double>(count);
}

// Encodes the image in the format of the extension. The file is not written by OpenCV because it
// does not report all errors.
void writeImage(const fs::path& path, const cv::Mat& image) {
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

void AnnotatedOutput::write(const std::string& input, double frameRate, cv::Mat* frame,
                            const std::vector<VsaObject>& objects) {
  if (frameRate > 0.0 && !video_.isOpened()) openVideo(input, frameRate, frame->size());
  painter_.paint(frame, objects);
  if (frameRate > 0.0) {
    // The frame size of a stream may change, that of a file cannot.
    if (frame->size() != videoSize_) cv::resize(*frame, *frame, videoSize_);
    video_.write(*frame);
    ++videoFrames_;
    return;
  }
  std::string extension = fs::path(input).extension().string();
  // The formats of grey images cannot hold coloured annotations.
  const bool isGrey = extension == ".pgm" || extension == ".pbm";
  if (extension.empty() || isGrey || !cv::haveImageWriter("name" + extension)) extension = ".png";
  writeImage(folder_.newFile(input, "", extension), *frame);
}

void AnnotatedOutput::openVideo(const std::string& input, double frameRate, const cv::Size& size) {
  videoFile_ = folder_.newFile(input, "", ".mp4");
  videoSize_ = size;
  videoFrames_ = 0;
  // H.264, which every player supports, if there is an encoder; else MPEG-4 part 2, which is nearly
  // always there.
  for (const char* codec : {"avc1", "mp4v"}) {
    if (video_.open(videoFile_.string(),
                    cv::VideoWriter::fourcc(codec[0], codec[1], codec[2], codec[3]), frameRate,
                    size)) {
      return;
    }
  }
  discard(videoFile_, "video");
}

void AnnotatedOutput::finish() {
  if (!video_.isOpened()) return;
  video_.release();
  if (!hasIndex(videoFile_) || !hasFrames(videoFile_, videoFrames_)) discard(videoFile_, "video");
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
      suffix += std::to_string(i + 1);
      const fs::path file = folder->newFile(info.input, suffix, ".png");
      writeImage(file, frame(area));
      crops.files[i] = file.string();
    }
  } catch (const std::exception& error) {
    crops.failure = error.what();
  }
  return crops;
}

}  // namespace vsa
