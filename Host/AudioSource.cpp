// If libsndfile cannot open a file, ffmpeg decodes it into a pipe, from which libsndfile reads.
// ffmpeg is started without a shell, so file names need no quoting.
#include "AudioSource.h"

#include <stdexcept>

#if VSA_HAS_SNDFILE
#include <sndfile.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <opencv2/videoio.hpp>
#include <system_error>
#include <vector>

#include "Inputs.h"
#include "Messages.h"

#if !defined(_WIN32)
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#endif

namespace vsa {
namespace {

constexpr int kSigned16 = 1;  // codes of sample formats, as in FFmpeg's AVSampleFormat
constexpr int kFloat = 3;

using AudioFile = std::unique_ptr<SNDFILE, int (*)(SNDFILE*)>;

#if !defined(_WIN32)
// A run of ffmpeg that decodes the first audio track of an input into a pipe, as 16-bit samples in
// the .au format, whose header needs no length.
class Ffmpeg {
 public:
  explicit Ffmpeg(const std::string& input) : messages_(std::tmpfile(), std::fclose) {
    int ends[2];
    if (!messages_ || pipe(ends) != 0) throw std::system_error(errno, std::generic_category());
    output_ = ends[0];
    for (const int end : ends) fcntl(end, F_SETFD, FD_CLOEXEC);
    // "file:" prevents ffmpeg from interpreting a part of the name as a protocol.
    const std::string source = isAddress(input) ? input : "file:" + input;
    const char* arguments[] = {"ffmpeg",       "-nostdin", "-v",     "error", "-i",
                               source.c_str(), "-map",     "0:a:0",  "-c:a",  "pcm_s16be",
                               "-f",           "au",       "pipe:1", nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, fileno(messages_.get()), STDERR_FILENO);
    const int error = posix_spawnp(&process_, arguments[0], &actions, nullptr,
                                   const_cast<char* const*>(arguments), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    if (error == 0) return;
    close(output_);
    if (error != ENOENT) throw std::system_error(error, std::generic_category(), "ffmpeg");
    throw std::runtime_error(
        "libsndfile does not support this file format, and the program ffmpeg, which reads the "
        "audio "
        "of videos, is not on the PATH");
  }
  ~Ffmpeg() {
    close(output_);
    if (process_ > 0) {
      kill(process_, SIGKILL);
      waitpid(process_, nullptr, 0);
    }
  }
  Ffmpeg(const Ffmpeg&) = delete;
  Ffmpeg& operator=(const Ffmpeg&) = delete;

  int output() const { return output_; }

  // Must be called when the pipe has ended. If ffmpeg failed, throws std::runtime_error with its
  // message.
  void finish() {
    if (process_ <= 0) return;
    int status = 0;
    waitpid(process_, &status, 0);
    process_ = 0;
    // The status is 255 after Ctrl-C, which also ends the host.
    if (WIFEXITED(status) && (WEXITSTATUS(status) == 0 || WEXITSTATUS(status) == 255)) return;
    std::string message(4096, '\0');
    std::rewind(messages_.get());
    message.resize(std::fread(message.data(), 1, message.size(), messages_.get()));
    if (message.find("matches no streams") != std::string::npos) {
      throw std::runtime_error("there is no audio in this file");
    }
    throw std::runtime_error("ffmpeg cannot read the audio: " + oneLine(message));
  }

 private:
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> messages_;
  int output_ = -1;
  pid_t process_ = 0;
};
#endif

}  // namespace

class AudioSource::Reader {
 public:
  Reader(const std::string& input, double blockSeconds) {
    std::error_code unused;
    if (!isAddress(input)) {
      if (!std::filesystem::exists(input, unused)) throw std::runtime_error("no such file");
      // libsndfile takes the name "-" for standard input.
      file_.reset(sf_open(pathForDecoder(input).c_str(), SFM_READ, &info_));
    }
    if (!file_) openVideo(input);
    const int subtype = info_.format & SF_FORMAT_SUBMASK;
    const bool fits16Bits = subtype == SF_FORMAT_PCM_16 || subtype == SF_FORMAT_PCM_S8 ||
                            subtype == SF_FORMAT_PCM_U8 || subtype == SF_FORMAT_ULAW ||
                            subtype == SF_FORMAT_ALAW;
    sampleBytes_ = fits16Bits ? sizeof(std::int16_t) : sizeof(float);
    samples_ = std::max<sf_count_t>(1, std::llround(info_.samplerate * blockSeconds));
    const sf_count_t bytes = samples_ * info_.channels * sampleBytes_;
    constexpr sf_count_t kMaxBytes = 1 << 28;  // far above real audio; a header may be wrong
    if (info_.samplerate <= 0 || info_.channels <= 0 || bytes > kMaxBytes) {
      throw std::runtime_error("a block of this audio would take " + std::to_string(bytes >> 20) +
                               " MB; the limit is 256 MB");
    }
    block_.resize(static_cast<std::size_t>(bytes));
  }

  bool next(VsaFrame* block) {
    // Silence is 0 in both formats.
    std::fill(block_.begin(), block_.end(), std::uint8_t{0});
    void* samples = block_.data();
    read_ = sampleBytes_ == sizeof(float)
                ? sf_readf_float(file_.get(), static_cast<float*>(samples), samples_)
                : sf_readf_short(file_.get(), static_cast<std::int16_t*>(samples), samples_);
    if (read_ <= 0) {
      if (sf_error(file_.get()) != SF_ERR_NO_ERROR) {
        throw std::runtime_error(oneLine(sf_strerror(file_.get())));
      }
#if !defined(_WIN32)
      if (ffmpeg_) ffmpeg_->finish();
#endif
      return false;
    }
    ++index_;
    const auto bytes = static_cast<std::int32_t>(block_.size());
    *block = VsaFrame();
    block->kind = kVsaAudioFrame;
    block->width = width_;
    block->height = height_;
    block->audioData = block_.data();
    block->audioFrameSize = bytes;
    block->audioFrameMaxSize = bytes;
    block->audioSampleRate = info_.samplerate;
    block->audioNbSamples = static_cast<std::int32_t>(samples_);
    block->audioSampleFmt = sampleBytes_ == sizeof(float) ? kFloat : kSigned16;
    block->audioSampleFmtByteNum = static_cast<std::int32_t>(sampleBytes_);
    block->pts = std::llround(time() * 1000.0);
    block->audioFrameCount = index_;
    return true;
  }

  double time() const { return seconds(index_ * samples_); }
  double duration() const { return seconds(read_); }
  std::int64_t blockCount() const {
    return isLengthKnown_ ? (info_.frames + samples_ - 1) / samples_ : 0;
  }

 private:
  double seconds(sf_count_t samples) const {
    return static_cast<double>(samples) / info_.samplerate;
  }

  void openVideo(const std::string& input) {
#if defined(_WIN32)
    throw std::runtime_error(
        "libsndfile does not support this file format; on Windows vsa cannot read the audio "
        "of " +
        std::string(isAddress(input) ? "streams" : "videos"));
#else
    ffmpeg_ = std::make_unique<Ffmpeg>(input);
    info_ = {};
    file_.reset(sf_open_fd(ffmpeg_->output(), SFM_READ, &info_, SF_FALSE));
    if (!file_) {
      const std::string reason = sf_strerror(nullptr);
      ffmpeg_->finish();
      throw std::runtime_error(reason);
    }
    isLengthKnown_ = false;
    // Streams are not opened a second time to read the size of their frames.
    cv::VideoCapture video;
    if (!isAddress(input) && video.open(pathForDecoder(input), cv::CAP_FFMPEG)) {
      width_ = std::max(1U, static_cast<unsigned>(video.get(cv::CAP_PROP_FRAME_WIDTH)));
      height_ = std::max(1U, static_cast<unsigned>(video.get(cv::CAP_PROP_FRAME_HEIGHT)));
    }
#endif
  }

#if !defined(_WIN32)
  std::unique_ptr<Ffmpeg> ffmpeg_;  // before the file, which reads from it and is closed first
#endif
  SF_INFO info_ = {};
  AudioFile file_{nullptr, sf_close};
  bool isLengthKnown_ = true;  // info_.frames is the number of samples per channel
  // Size of the video frames that the audio belongs to. The library reports the recognised classes
  // as objects only if the size is not 0, so audio without video gets a size of one pixel.
  std::uint32_t width_ = 1;
  std::uint32_t height_ = 1;
  sf_count_t sampleBytes_ = 0;
  sf_count_t samples_ = 0;  // per block and channel
  sf_count_t read_ = 0;
  std::int64_t index_ = -1;
  std::vector<std::uint8_t> block_;
};

}  // namespace vsa
#else
namespace vsa {

class AudioSource::Reader {
 public:
  Reader(const std::string& /*input*/, double /*blockSeconds*/) {
    throw std::runtime_error("this build of vsa cannot read audio because it has no libsndfile");
  }
  bool next(VsaFrame* /*block*/) { return false; }
  double time() const { return 0.0; }
  double duration() const { return 0.0; }
  std::int64_t blockCount() const { return 0; }
};

}  // namespace vsa
#endif

namespace vsa {

AudioSource::AudioSource(const std::string& input, double blockSeconds)
    : reader_(std::make_unique<Reader>(input, blockSeconds)) {}
AudioSource::~AudioSource() = default;

bool AudioSource::next(VsaFrame* block) {
  return reader_->next(block);
}

double AudioSource::time() const {
  return reader_->time();
}

double AudioSource::duration() const {
  return reader_->duration();
}

std::int64_t AudioSource::blockCount() const {
  return reader_->blockCount();
}

}  // namespace vsa
