// What the host works on: files, folders of them, patterns and addresses of streams; reads pictures
// and videos.
#pragma once

#include <TolCompatible/TolCompatible.h>

#include <cstdint>
#include <istream>
#include <opencv2/core.hpp>
#include <opencv2/videoio.hpp>
#include <string>
#include <vector>

namespace vsa {

struct InputList {
  std::vector<std::string> inputs;    ///< Files and addresses, folders and patterns expanded.
  std::vector<std::string> problems;  ///< One sentence for each argument that led to nothing.
};

/// What a folder is searched for.
enum class Media { kPictures, kSound };  // videos are both

/// Replaces folders by the files of that kind in them and patterns (* ? [ ]) by what they match,
/// sorted. An argument that names an existing file is never taken for a pattern.
InputList expandInputs(const std::vector<std::string>& arguments, bool recursive,
                       Media media = Media::kPictures);

/// What readLine() met.
enum class Line { kRead, kTooLong, kEnd };

/// Reads a line without its line break ("\n" or "\r\n"). Of one that is longer than `most` bytes
/// the beginning is kept and the rest passed over.
Line readLine(std::istream* stream, std::size_t most, std::string* line);

/// Whether the input is an address such as "rtsp://camera/1" and no file.
bool isAddress(const std::string& input);

/// The record of a picture in 8-bit BGR without gaps, whose pixels it refers to.
VsaFrame frameOf(const cv::Mat& picture);

/// Most pixels of a picture or frame unless told otherwise: room for every camera there is, and 600
/// MB as the library wants them.
inline constexpr std::int64_t kMaxPixels = 200'000'000;

/// One opened input. The constructor and next() throw std::exception with a reason for people.
class Source {
 public:
  /// Pictures and frames of more than `maxPixels` pixels are refused, pictures before their pixels
  /// are decoded.
  explicit Source(const std::string& input, std::int64_t maxPixels = kMaxPixels);

  /// Gives the next frame as 8-bit BGR in rows without gaps; false at the end.
  bool next(cv::Mat* frame);

  bool isVideo() const { return video_.isOpened(); }
  /// Frames a second of a video; 25 where the file does not say.
  double frameRate() const;
  /// Frames that the container announces; 0 where it does not know.
  std::int64_t frameCount() const;
  /// Seconds from the beginning of the video to the frame that next() gave last.
  double time() const;

 private:
  std::int64_t maxPixels_;
  cv::Mat picture_;
  cv::VideoCapture video_;
  std::int64_t framesRead_ = 0;
};

}  // namespace vsa
