// Reads the frames of a video while the models work on earlier ones.
#pragma once

#include <exception>
#include <opencv2/core.hpp>
#include <thread>

#include "BoundedQueue.h"
#include "FrameSource.h"

namespace vsa {

/// A frame and its time as FrameSource::time() returns it.
struct TimedFrame {
  cv::Mat image;
  double time = 0.0;
};

/// The frames of a source. Those of a video or stream are read by a thread of its own, a few frames
/// ahead; images are read by next().
class ReadAhead {
 public:
  /// `source` must outlive this object, which alone calls its next() and time().
  explicit ReadAhead(FrameSource* source);
  /// Waits until the thread has read its current frame.
  ~ReadAhead();
  ReadAhead(const ReadAhead&) = delete;
  ReadAhead& operator=(const ReadAhead&) = delete;

  /// Stores the next frame in `*frame`. Returns false at the end. Throws what FrameSource::next()
  /// threw, after the frames before.
  bool next(TimedFrame* frame);

 private:
  bool read(TimedFrame* frame);
  void readAll();

  FrameSource& source_;
  BoundedQueue<TimedFrame> queue_;
  std::exception_ptr failure_;  // set by the thread before it closes the queue
  std::thread thread_;
};

}  // namespace vsa
