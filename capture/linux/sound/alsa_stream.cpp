#include "capture/linux/sound/alsa_stream.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include <vesk/vci.h>
#include "capture/interface/monotonic_clock.h"

namespace vesk::capture {
namespace {

constexpr uint32_t kPeriodsPerSecond = 100;
constexpr snd_pcm_uframes_t kPeriods = 20;  // 200 ms may pass before the driver loses sound
constexpr int kMostErrors = 5;              // in a row, before the microphone is given up

template <class Parameters>
struct Freed {
  Parameters* parameters = nullptr;
  void (*release)(Parameters*);
  ~Freed() {
    if (parameters) release(parameters);
  }
};

/// Why a microphone cannot be recorded from.
Error recordingError(int code) {
  switch (code) {
    case -EBUSY:
      return {Cause::kBusy, "another program records from it", "Close that program."};
    case -EACCES:
    case -EPERM:
      return {Cause::kNoPermission, "no permission", "Add the user to the group \"audio\" and log in again."};
    case -ENODEV:
    case -ENOENT:
    case -ENXIO:
      return {Cause::kUnplugged, "it was unplugged", "Plug it in again."};
    case -EINVAL:
      return {Cause::kRefused, "its driver refuses the format", "Choose another format."};
    case -EIO:
    case -ETIMEDOUT:
      return {Cause::kNotAnswering, "it does not answer as it should", "Plug it in again."};
    default:
      return {Cause::kOther, snd_strerror(code), "Plug it in again."};
  }
}

}  // namespace

AlsaPcm openAlsaPcm(const std::string& name, int& code) {
  snd_pcm_t* pcm = nullptr;
  code = snd_pcm_open(&pcm, name.c_str(), SND_PCM_STREAM_CAPTURE, SND_PCM_NONBLOCK);
  return AlsaPcm(code < 0 ? nullptr : pcm);
}

AlsaStream::~AlsaStream() {
  if (mThread.joinable()) {
    const uint64_t one = 1;
    const auto written = write(mStop, &one, sizeof one);
    static_cast<void>(written);  // an eventfd takes the first one always
    mThread.join();
  }
  if (mStop >= 0) close(mStop);
}

int32_t AlsaStream::begin(const std::string& pcm, Error& error) {
  int code = 0;
  AlsaPcm opened = openAlsaPcm(pcm, code);
  return opened ? begin(std::move(opened), error) : refuse(code, error);
}

int32_t AlsaStream::refuse(int code, Error& error) const {
  error = recordingError(code);
  return code == -EBUSY ? kVCIBusy : kVCIFailed;
}

int32_t AlsaStream::begin(AlsaPcm pcm, Error& error) {
  mPcm = std::move(pcm);
  int code = configure();
  if (code >= 0) code = snd_pcm_start(mPcm.get());
  if (code < 0) return refuse(code, error);
  mStop = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (mStop < 0) {
    error = {Cause::kOther, "no file descriptor is left", "Close other programs."};
    return kVCIFailed;
  }
  mThread = std::thread([this] {
    pthread_setname_np(pthread_self(), "vesk-alsa");
    run();
  });
  return kVCISuccess;
}

int AlsaStream::configure() {
  Freed<snd_pcm_hw_params_t> hardware{nullptr, snd_pcm_hw_params_free};
  Freed<snd_pcm_sw_params_t> software{nullptr, snd_pcm_sw_params_free};
  if (snd_pcm_hw_params_malloc(&hardware.parameters) < 0 || snd_pcm_sw_params_malloc(&software.parameters) < 0)
    return -ENOMEM;
  snd_pcm_t* pcm = mPcm.get();
  auto* hw = hardware.parameters;
  auto* sw = software.parameters;
  mPeriod = std::max(mFormat.samplesPerSecond / kPeriodsPerSecond, 1U);
  snd_pcm_uframes_t buffer = mPeriod * kPeriods;
  int code = snd_pcm_hw_params_any(pcm, hw);
  if (code >= 0) code = snd_pcm_hw_params_set_access(pcm, hw, SND_PCM_ACCESS_RW_INTERLEAVED);
  if (code >= 0) code = snd_pcm_hw_params_set_format(pcm, hw, SND_PCM_FORMAT_S16_LE);
  if (code >= 0) code = snd_pcm_hw_params_set_channels(pcm, hw, mFormat.channels);
  if (code >= 0) code = snd_pcm_hw_params_set_rate(pcm, hw, mFormat.samplesPerSecond, 0);
  if (code >= 0) code = snd_pcm_hw_params_set_period_size_near(pcm, hw, &mPeriod, nullptr);
  if (code >= 0) code = snd_pcm_hw_params_set_buffer_size_near(pcm, hw, &buffer);
  if (code >= 0) code = snd_pcm_hw_params(pcm, hw);
  if (code < 0) return code;
  mBuffer.resize(std::max<size_t>(mPeriod, 1) * mFormat.channels * 2);
  code = snd_pcm_sw_params_current(pcm, sw);
  if (code >= 0) code = snd_pcm_sw_params_set_avail_min(pcm, sw, mPeriod);
  // Drivers without these are stamped on arrival.
  snd_pcm_sw_params_set_tstamp_mode(pcm, sw, SND_PCM_TSTAMP_ENABLE);
  snd_pcm_sw_params_set_tstamp_type(pcm, sw, SND_PCM_TSTAMP_TYPE_MONOTONIC);
  return code >= 0 ? snd_pcm_sw_params(pcm, sw) : code;
}

void AlsaStream::run() {
  while (waitForSound()) {
    if (!readSome()) {
      mSink->ended();
      return;
    }
  }
}

/// Waits for sound or an error; false when the stream is to end.
bool AlsaStream::waitForSound() {
  const int count = snd_pcm_poll_descriptors_count(mPcm.get());
  std::vector<pollfd> descriptors(static_cast<size_t>(std::max(count, 0)) + 1);
  descriptors.front() = {mStop, POLLIN, 0};
  if (count > 0) snd_pcm_poll_descriptors(mPcm.get(), descriptors.data() + 1, static_cast<unsigned>(count));
  // Some plugins have nothing to wait on: they are asked period by period.
  const int wait = count > 0 ? 1000 : static_cast<int>(1000 / kPeriodsPerSecond);
  while (poll(descriptors.data(), descriptors.size(), wait) < 0 && errno == EINTR) {
  }
  unsigned short events = 0;
  const bool isAnswered = count <= 0 || snd_pcm_poll_descriptors_revents(mPcm.get(), descriptors.data() + 1,
                                                                         static_cast<unsigned>(count), &events) >= 0;
  mHasError = !isAnswered || (events & (POLLERR | POLLHUP | POLLNVAL)) != 0;
  return descriptors.front().revents == 0;
}

/// One period, or what there is; false when the microphone has gone.
bool AlsaStream::readSome() {
  const int64_t time = firstSampleTime();
  const snd_pcm_sframes_t frames = snd_pcm_readi(mPcm.get(), mBuffer.data(), mPeriod);
  if (frames == -EAGAIN || frames == 0) {
    const snd_pcm_state_t state = snd_pcm_state(mPcm.get());
    if (state == SND_PCM_STATE_DISCONNECTED) return false;
    return !mHasError || recover(state == SND_PCM_STATE_SUSPENDED ? -ESTRPIPE : -EPIPE);
  }
  if (frames < 0) return recover(static_cast<int>(frames));
  mErrors = 0;
  mSink->sound({mBuffer.data(), static_cast<size_t>(frames) * mFormat.channels * 2}, time);
  return true;
}

/// After an overrun or the machine's sleep recording begins anew. A descriptor that stays in error would
/// be ready for ever without giving sound: the microphone is then taken to be gone.
bool AlsaStream::recover(int code) {
  if (code != -EPIPE && code != -ESTRPIPE && code != -EINTR) return false;
  if (code == -EINTR) return true;
  if (++mErrors > kMostErrors) return false;
  mSink->lost(0);
  if (code == -ESTRPIPE && snd_pcm_resume(mPcm.get()) == 0) return true;
  return snd_pcm_prepare(mPcm.get()) >= 0 && snd_pcm_start(mPcm.get()) >= 0;
}

/// When the frame at the read position was recorded: the driver's last stamp less what it had by then.
int64_t AlsaStream::firstSampleTime() const {
  const int64_t now = monotonicMicroseconds();
  snd_pcm_uframes_t available = 0;
  snd_htimestamp_t stamp{};
  const auto duration = [&](snd_pcm_sframes_t frames) {
    return std::max<int64_t>(frames, 0) * 1'000'000 / mFormat.samplesPerSecond;
  };
  if (snd_pcm_htimestamp(mPcm.get(), &available, &stamp) >= 0) {
    const int64_t stamped = int64_t{stamp.tv_sec} * 1'000'000 + stamp.tv_nsec / 1000;
    // Another clock's stamp, or none, is far from now.
    if (stamped <= now && now - stamped < 1'000'000)
      return stamped - duration(static_cast<snd_pcm_sframes_t>(available));
  }
  snd_pcm_sframes_t delay = 0;
  return snd_pcm_delay(mPcm.get(), &delay) >= 0 ? now - duration(delay) : now;
}

}  // namespace vesk::capture
