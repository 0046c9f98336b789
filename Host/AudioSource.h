// Audio in blocks: audio files through libsndfile, the audio track of a video through the program
// ffmpeg.
#pragma once

#include <TolCompatible/TolCompatible.h>

#include <cstdint>
#include <memory>
#include <string>

namespace vsa {

/// An open audio file, video or stream. The constructor and next() throw std::exception with a
/// message for the user.
class AudioSource {
 public:
  AudioSource(const std::string& input, double blockSeconds);
  ~AudioSource();
  AudioSource(const AudioSource&) = delete;
  AudioSource& operator=(const AudioSource&) = delete;

  /// Fills `*block` with the next block, whose samples stay valid until the next call. Returns
  /// false at the end. All blocks have the same length; the last one is padded with silence.
  /// Samples are interleaved: 16-bit integers if the file has at most 16 bits, otherwise floats
  /// with full scale 1. `pts` is the start of the block in milliseconds.
  bool next(VsaFrame* block);

  /// Seconds from the beginning to the block that next() read last.
  double time() const;
  /// Seconds of audio in that block, without the padding.
  double duration() const;
  /// Number of blocks; 0 if it is not known.
  std::int64_t blockCount() const;

 private:
  class Reader;
  std::unique_ptr<Reader> reader_;
};

}  // namespace vsa
