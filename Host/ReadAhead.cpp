#include "ReadAhead.h"

#include <utility>

namespace vsa {

ReadAhead::ReadAhead(FrameSource* source) : source_(*source) {
  if (source_.isVideo()) thread_ = std::thread(&ReadAhead::readAll, this);
}

ReadAhead::~ReadAhead() {
  queue_.close();
  if (thread_.joinable()) thread_.join();
}

bool ReadAhead::next(TimedFrame* frame) {
  if (!thread_.joinable()) return read(frame);
  if (queue_.pop(frame)) return true;
  if (failure_) std::rethrow_exception(std::exchange(failure_, nullptr));
  return false;
}

bool ReadAhead::read(TimedFrame* frame) {
  if (!source_.next(&frame->image)) return false;
  frame->time = source_.time();
  return true;
}

void ReadAhead::readAll() {
  try {
    TimedFrame frame;
    while (read(&frame)) {
      const std::size_t bytes = frame.image.total() * frame.image.elemSize();
      if (!queue_.push(std::exchange(frame, {}), bytes)) return;
    }
  } catch (...) {
    failure_ = std::current_exception();
  }
  queue_.close();
}

}  // namespace vsa
