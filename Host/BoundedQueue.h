// A short queue from one thread to another.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <utility>

namespace vsa {

/// Limits of the queues of frames: 4 of 1920 x 1080 pixels, 1 of 3840 x 2160.
inline constexpr std::size_t kMaxQueuedFrames = 4;
inline constexpr std::size_t kMaxQueuedBytes = std::size_t{32} << 20;

/// Values in the order in which they were pushed. All functions may be called from any thread.
template <typename Value>
class BoundedQueue {
 public:
  /// Waits until the queue is empty or has room for the value, which takes `bytes` of memory.
  /// Returns false if the queue is closed.
  bool push(Value value, std::size_t bytes) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] {
      return isClosed_ || values_.empty() ||
             (values_.size() < kMaxQueuedFrames && bytes_ + bytes <= kMaxQueuedBytes);
    });
    if (isClosed_) return false;
    values_.emplace_back(std::move(value), bytes);
    bytes_ += bytes;
    changed_.notify_all();
    return true;
  }

  /// Waits for the next value and stores it in `*value`. Returns false if the queue is closed and
  /// empty.
  bool pop(Value* value) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return isClosed_ || !values_.empty(); });
    if (values_.empty()) return false;
    *value = std::move(values_.front().first);
    bytes_ -= values_.front().second;
    values_.pop_front();
    changed_.notify_all();
    return true;
  }

  /// From now on push() returns false. The values in the queue can still be popped.
  void close() {
    const std::lock_guard lock(mutex_);
    isClosed_ = true;
    changed_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::pair<Value, std::size_t>> values_;
  std::size_t bytes_ = 0;
  bool isClosed_ = false;
};

}  // namespace vsa
