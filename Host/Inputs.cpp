// Expands the arguments and reads pictures and videos through OpenCV.
#include "Inputs.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <filesystem>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio/registry.hpp>
#include <stdexcept>
#include <string_view>

#include "Text.h"

namespace vsa {
namespace {

namespace fs = std::filesystem;

constexpr std::array<std::string_view, 13> kPictures = {".bmp", ".dib",  ".jp2", ".jpe", ".jpeg",
                                                        ".jpg", ".pbm",  ".pgm", ".png", ".ppm",
                                                        ".tif", ".tiff", ".webp"};
constexpr std::array<std::string_view, 15> kVideos = {".3gp", ".avi", ".flv", ".gif", ".m2ts",
                                                      ".m4v", ".mkv", ".mov", ".mp4", ".mpeg",
                                                      ".mpg", ".mts", ".ogv", ".ts",  ".webm"};

constexpr std::array<std::string_view, 15> kSounds = {".aac",  ".aif",  ".aiff", ".au",  ".caf",
                                                      ".flac", ".m4a",  ".mka",  ".mp3", ".oga",
                                                      ".ogg",  ".opus", ".w64",  ".wav", ".wma"};

template <std::size_t size>
bool hasExtension(const fs::path& path, const std::array<std::string_view, size>& extensions) {
  std::string extension = path.extension().string();
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
  return std::find(extensions.begin(), extensions.end(), extension) != extensions.end();
}

bool hasWildcard(const std::string& text) {
  return text.find_first_of("*?[") != std::string::npos;
}

// Whether `letter` is in the set that begins at pattern[*position], just behind the "["; moves
// behind the "]". A "]" that comes first stands for itself. False, without moving, where no "]"
// follows.
bool matchSet(std::string_view pattern, std::size_t* position, char32_t letter, bool* closed) {
  std::size_t at = *position;
  const bool negated = at < pattern.size() && (pattern[at] == '!' || pattern[at] == '^');
  if (negated) ++at;
  bool found = false;
  for (bool first = true; at < pattern.size(); first = false) {
    if (pattern[at] == ']' && !first) {
      *position = at + 1;
      *closed = true;
      return found != negated;
    }
    const char32_t low = nextCodePoint(pattern, &at);
    char32_t high = low;
    if (at + 1 < pattern.size() && pattern[at] == '-' && pattern[at + 1] != ']') {
      ++at;
      high = nextCodePoint(pattern, &at);
    }
    found = found || (low <= letter && letter <= high);
  }
  *closed = false;
  return false;
}

// Matches a file name. When a later part fails, only the last "*" can help by taking one more
// letter, so the time is at most the product of both lengths.
bool matches(std::string_view pattern, std::string_view name) {
  std::size_t p = 0;
  std::size_t n = 0;
  std::size_t starPattern = std::string_view::npos;
  std::size_t starName = 0;
  while (n < name.size()) {
    std::size_t nextP = p;
    std::size_t nextN = n;
    bool good = false;
    if (p < pattern.size() && pattern[p] == '*') {
      starPattern = ++p;
      starName = n;
      continue;
    }
    if (p < pattern.size()) {
      const char32_t wanted = nextCodePoint(pattern, &nextP);
      const char32_t letter = nextCodePoint(name, &nextN);
      bool closed = false;
      if (wanted == '[') good = matchSet(pattern, &nextP, letter, &closed);
      if (!closed) good = wanted == '?' || wanted == letter;
    }
    if (good) {
      p = nextP;
      n = nextN;
    } else if (starPattern != std::string_view::npos) {
      nextCodePoint(name, &starName);
      p = starPattern;
      n = starName;
    } else {
      return false;
    }
  }
  return pattern.find_first_not_of('*', p) == std::string_view::npos;
}

// Files that match the parts of a pattern from `part` on, below `base`. As in a shell, a name with
// a dot in front is matched only by a pattern with one.
void expandPattern(const fs::path& base, fs::path::const_iterator part,
                   const fs::path::const_iterator& end, std::vector<fs::path>* found) {
  if (part == end) {
    found->push_back(base);
    return;
  }
  const std::string pattern = part->string();
  const auto rest = std::next(part);
  std::error_code error;
  if (!hasWildcard(pattern)) {
    const fs::path next = base / *part;
    if (fs::exists(next, error)) expandPattern(next, rest, end, found);
    return;
  }
  const fs::path folder = base.empty() ? fs::path(".") : base;
  for (fs::directory_iterator entry(folder, error), none; !error && entry != none;
       entry.increment(error)) {
    const std::string name = entry->path().filename().string();
    if ((name[0] == '.' && pattern[0] != '.') || !matches(pattern, name)) continue;
    std::error_code unused;
    if (rest == end || fs::is_directory(entry->path(), unused)) {
      expandPattern(base / name, rest, end, found);
    }
  }
}

template <typename Iterator>
std::vector<fs::path> mediaIn(const fs::path& folder, Media media) {
  std::vector<fs::path> files;
  for (const fs::directory_entry& entry : Iterator(folder)) {
    const fs::path& path = entry.path();
    std::error_code unused;
    const bool still =
        media == Media::kSound ? hasExtension(path, kSounds) : hasExtension(path, kPictures);
    if ((still || hasExtension(path, kVideos)) && !fs::is_directory(path, unused)) {
      files.push_back(path);
    }
  }
  std::sort(files.begin(), files.end());
  return files;
}

// Adds a file or what is in a folder.
void addPath(const fs::path& path, bool recursive, Media media, InputList* list) {
  std::error_code unused;
  if (!fs::is_directory(path, unused)) {
    list->inputs.push_back(path.string());
    return;
  }
  try {
    const std::vector<fs::path> files = recursive
                                            ? mediaIn<fs::recursive_directory_iterator>(path, media)
                                            : mediaIn<fs::directory_iterator>(path, media);
    for (const fs::path& file : files) list->inputs.push_back(file.string());
    if (files.empty()) {
      list->problems.push_back(path.string() + ": no " +
                               (media == Media::kSound ? "sound" : "picture") +
                               " or video in this folder");
    }
  } catch (const fs::filesystem_error& error) {
    list->problems.push_back(path.string() + ": " + error.code().message());
  }
}

// Lays a picture with transparency on white, as its makers saw it; brings 16 bits and floating
// point down to 8 bits.
cv::Mat toBgr8(const cv::Mat& source) {
  cv::Mat picture;
  const double scale = source.depth() == CV_16U                               ? 1.0 / 257.0
                       : source.depth() == CV_32F || source.depth() == CV_64F ? 255.0
                                                                              : 1.0;
  if (source.depth() == CV_8U) {
    picture = source;
  } else {
    source.convertTo(picture, CV_8U, scale);
  }
  if (picture.channels() == 1) {
    cv::cvtColor(picture, picture, cv::COLOR_GRAY2BGR);
  } else if (picture.channels() == 4) {
    cv::Mat opaque(picture.size(), CV_8UC3);
    picture.forEach<cv::Vec4b>([&opaque](const cv::Vec4b& pixel, const int* position) {
      cv::Vec3b& target = opaque.at<cv::Vec3b>(position[0], position[1]);
      const int alpha = pixel[3];
      for (int i = 0; i < 3; ++i) {
        target[i] = static_cast<std::uint8_t>((pixel[i] * alpha + 255 * (255 - alpha) + 127) / 255);
      }
    });
    picture = opaque;
  }
  if (picture.type() != CV_8UC3) throw std::runtime_error("its kind of pixels is not supported");
  return picture;
}

void checkSize(std::int64_t width, std::int64_t height, std::int64_t maxPixels) {
  if (width <= 0 || height <= 0 || height <= maxPixels / width) return;
  throw std::runtime_error("its " + std::to_string(width) + " x " + std::to_string(height) +
                           " pixels are more than the limit of " + std::to_string(maxPixels));
}

// While it lives, OpenCV gets no memory for more than so many pixels at once. A decoder reads the
// header, asks for the memory and decodes only then, so this is one check for all kinds of files.
class PixelLimit : public cv::MatAllocator {
 public:
  explicit PixelLimit(std::int64_t maxPixels) : maxPixels_(maxPixels) {
    cv::Mat::setDefaultAllocator(this);
  }
  ~PixelLimit() override { cv::Mat::setDefaultAllocator(&inner_); }
  PixelLimit(const PixelLimit&) = delete;
  PixelLimit& operator=(const PixelLimit&) = delete;

  cv::UMatData* allocate(int dimensions, const int* sizes, int type, void* data, std::size_t* step,
                         cv::AccessFlag flags, cv::UMatUsageFlags usage) const override {
    if (dimensions == 2) checkSize(sizes[1], sizes[0], maxPixels_);
    return inner_.allocate(dimensions, sizes, type, data, step, flags, usage);
  }
  bool allocate(cv::UMatData* data, cv::AccessFlag flags, cv::UMatUsageFlags usage) const override {
    return inner_.allocate(data, flags, usage);
  }
  void deallocate(cv::UMatData* data) const override { inner_.deallocate(data); }

 private:
  cv::MatAllocator& inner_ = *cv::Mat::getDefaultAllocator();
  std::int64_t maxPixels_;
};

cv::Mat readPicture(const std::string& path, std::int64_t maxPixels) {
  // Reading in colour turns a photograph upright, reading unchanged keeps transparency; each kind
  // of file has one of the two.
  constexpr std::array<std::string_view, 4> kTransparent = {".png", ".tif", ".tiff", ".webp"};
  const bool transparent = hasExtension(path, kTransparent);
  cv::Mat picture;
  try {
    const PixelLimit limit(maxPixels);
    picture = cv::imread(path, transparent ? cv::IMREAD_UNCHANGED : cv::IMREAD_COLOR);
  } catch (const cv::Exception& error) {
    if (error.func != "validateInputImageSize") throw;
    throw std::runtime_error("its header claims more pixels than OpenCV reads");
  }
  if (picture.empty()) throw std::runtime_error("the picture is damaged");
  return toBgr8(picture);
}

// FFmpeg alone where OpenCV has it: others of its backends take names for those of cameras, or for
// the first of a row of numbered pictures.
int videoBackend() {
  for (const cv::VideoCaptureAPIs backend : cv::videoio_registry::getStreamBackends()) {
    if (backend == cv::CAP_FFMPEG) return backend;
  }
  return cv::CAP_ANY;
}

}  // namespace

InputList expandInputs(const std::vector<std::string>& arguments, bool recursive, Media media) {
  InputList list;
  for (const std::string& argument : arguments) {
    std::error_code unused;
    if (isAddress(argument) || fs::exists(argument, unused) || !hasWildcard(argument)) {
      addPath(argument, recursive, media, &list);
      continue;
    }
    std::vector<fs::path> found;
    const fs::path pattern(argument);
    const fs::path parts = pattern.relative_path();
    expandPattern(pattern.root_path(), parts.begin(), parts.end(), &found);
    std::sort(found.begin(), found.end());
    if (found.empty()) list.problems.push_back(argument + ": no file matches this pattern");
    for (const fs::path& path : found) addPath(path, recursive, media, &list);
  }
  return list;
}

Line readLine(std::istream* stream, std::size_t most, std::string* line) {
  constexpr int kEnd = std::char_traits<char>::eof();
  line->clear();
  std::streambuf* bytes = stream->rdbuf();
  bool tooLong = false;
  int byte = bytes->sbumpc();
  if (byte == kEnd) return Line::kEnd;
  for (; byte != kEnd && byte != '\n'; byte = bytes->sbumpc()) {
    tooLong = tooLong || line->size() == most;
    if (!tooLong) line->push_back(static_cast<char>(byte));
  }
  if (line->ends_with('\r')) line->pop_back();
  return tooLong ? Line::kTooLong : Line::kRead;
}

bool isAddress(const std::string& input) {
  return input.find("://") != std::string::npos;
}

VsaFrame frameOf(const cv::Mat& picture) {
  VsaFrame frame;
  frame.kind = kVsaImageFrame;
  frame.data = picture.data;
  frame.width = static_cast<std::uint32_t>(picture.cols);
  frame.height = static_cast<std::uint32_t>(picture.rows);
  return frame;
}

Source::Source(const std::string& input, std::int64_t maxPixels) : maxPixels_(maxPixels) {
  if (!isAddress(input)) {
    std::error_code unused;
    if (!fs::exists(input, unused)) throw std::runtime_error("no such file");
    // A pipe or device may have no end, and OpenCV opens its inputs more than once.
    if (!fs::is_regular_file(input, unused)) throw std::runtime_error("this is no regular file");
    if (cv::haveImageReader(input)) {
      picture_ = readPicture(input, maxPixels);
      return;
    }
    if (hasExtension(input, kPictures)) {
      throw std::runtime_error("this is no picture that OpenCV can read");
    }
  }
  if (!video_.open(input, videoBackend())) {
    throw std::runtime_error(isAddress(input)
                                 ? "the stream cannot be opened"
                                 : "this is neither a picture nor a video that OpenCV can read");
  }
  checkSize(static_cast<std::int64_t>(video_.get(cv::CAP_PROP_FRAME_WIDTH)),
            static_cast<std::int64_t>(video_.get(cv::CAP_PROP_FRAME_HEIGHT)), maxPixels);
}

bool Source::next(cv::Mat* frame) {
  if (isVideo()) {
    cv::Mat decoded;
    if (!video_.read(decoded) || decoded.empty()) return false;
    checkSize(decoded.cols, decoded.rows, maxPixels_);  // a stream may change its size on the way
    *frame = toBgr8(decoded);
  } else if (framesRead_ == 0) {
    *frame = picture_;
  } else {
    return false;
  }
  if (!frame->isContinuous()) *frame = frame->clone();
  ++framesRead_;
  return true;
}

double Source::frameRate() const {
  const double rate = video_.get(cv::CAP_PROP_FPS);
  return std::isfinite(rate) && rate > 0.0 && rate <= 1000.0 ? rate : 25.0;
}

std::int64_t Source::frameCount() const {
  const double count = isVideo() ? video_.get(cv::CAP_PROP_FRAME_COUNT) : 1.0;
  return count >= 1.0 && count < 1e12 ? static_cast<std::int64_t>(count) : 0;
}

double Source::time() const {
  const double milliseconds = video_.get(cv::CAP_PROP_POS_MSEC);
  if (std::isfinite(milliseconds) && milliseconds > 0.0) return milliseconds / 1000.0;
  return static_cast<double>(framesRead_ - 1) / frameRate();
}

}  // namespace vsa
