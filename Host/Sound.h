// Sound in blocks: sound files through libsndfile, the sound track of a video through the program
// ffmpeg.
#pragma once

#include <TolCompatible/TolCompatible.h>

#include <cstdint>
#include <memory>
#include <string>

namespace vsa {

/// One opened input. The constructor and next() throw std::exception with a reason for people.
class Sound {
 public:
  Sound(const std::string& input, double blockSeconds);
  ~Sound();
  Sound(const Sound&) = delete;
  Sound& operator=(const Sound&) = delete;

  /// Makes `block` the record of the next block, whose samples stay until the next call; false at
  /// the end. All blocks have one length: the last one is filled up with silence. Samples are
  /// interleaved: 16-bit where the file has no more, else float with full scale at 1. `pts` is the
  /// start of the block in milliseconds.
  bool next(VsaFrame* block);

  /// Seconds from the beginning to the block that next() gave last.
  double time() const;
  /// Seconds of sound in that block, the silence that fills it up not counted.
  double duration() const;
  /// Number of blocks; 0 where it is not known.
  std::int64_t blockCount() const;

 private:
  class Reader;
  std::unique_ptr<Reader> reader_;
};

}  // namespace vsa
