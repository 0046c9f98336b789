// OpenCV does not report errors of cv::VideoWriter, so the finished file is checked.
#include "VideoFile.h"

#include <exception>
#include <fstream>
#include <opencv2/imgproc.hpp>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

#include "Inputs.h"

namespace vsa {
namespace {

namespace fs = std::filesystem;

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

// Whether the video can be opened and has at least this many frames: some of them may not have been
// encoded.
bool hasFrames(const fs::path& path, std::int64_t count) {
  const cv::VideoCapture video(pathForDecoder(path.string()));
  return video.isOpened() && video.get(cv::CAP_PROP_FRAME_COUNT) >= static_cast<double>(count);
}

}  // namespace

VideoFile::VideoFile(const fs::path& path, double frameRate, const cv::Size& size,
                     const Painter& painter)
    : path_(path), size_(size), painter_(painter) {
  // H.264, which every player supports, if there is an encoder; else MPEG-4 part 2, which is nearly
  // always there.
  const std::string file = pathForDecoder(path.string());
  for (const char* codec : {"avc1", "mp4v"}) {
    if (video_.open(file, cv::VideoWriter::fourcc(codec[0], codec[1], codec[2], codec[3]),
                    frameRate, size)) {
      break;
    }
  }
  if (!video_.isOpened()) discard(path_, "video");
  try {
    thread_ = std::thread(&VideoFile::writeAll, this);
  } catch (const std::system_error& error) {
    discard(path_, "video", error.what());
  }
}

VideoFile::~VideoFile() {
  stop();
}

void VideoFile::write(cv::Mat image, std::vector<VsaObject> objects) {
  const std::size_t bytes = image.total() * image.elemSize();
  queue_.push({std::move(image), std::move(objects)}, bytes);
}

void VideoFile::finish() {
  stop();
  video_.release();
  if (!failure_.empty() || !hasIndex(path_) || !hasFrames(path_, frames_)) {
    discard(path_, "video", failure_);
  }
}

void VideoFile::writeAll() {
  try {
    Frame frame;
    while (queue_.pop(&frame)) {
      if (!frame.objects.empty()) painter_.paint(&frame.image, frame.objects);
      // The frame size of a stream may change, that of a file cannot.
      if (frame.image.size() != size_) cv::resize(frame.image, frame.image, size_);
      video_.write(frame.image);
      ++frames_;
    }
  } catch (const std::exception& error) {
    failure_ = error.what();
    queue_.close();
  }
}

void VideoFile::stop() {
  queue_.close();
  if (thread_.joinable()) thread_.join();
}

void discard(const fs::path& file, const std::string& kind, const std::string& reason) {
  std::error_code unused;
  fs::remove(file, unused);
  throw std::runtime_error(file.string() + ": the " + kind +
                           " could not be written completely and was removed" +
                           (reason.empty() ? "" : " (" + reason + ")"));
}

}  // namespace vsa
