#include "capture/linux/sound/pulse_stream.h"

#include <algorithm>

#include <vesk/vci.h>
#include "capture/interface/monotonic_clock.h"

namespace vesk::capture {
namespace {

constexpr uint32_t kFragmentsPerSecond = 100;

/// Why a server that answers does not record.
Error refusal(int code) {
  switch (code) {
    case PA_ERR_BUSY:
      return {Cause::kBusy, "another program records from it", "Close that program."};
    case PA_ERR_NOENTITY:
    case PA_ERR_KILLED:
      return {Cause::kUnplugged, "it was unplugged", "Plug it in again."};
    case PA_ERR_ACCESS:
      return {Cause::kNoPermission, "the sound server does not permit it", "Allow it in the system's settings."};
    default:
      return {Cause::kRefused, std::string("the sound server refuses to record: ") + pa_strerror(code),
              "Restart the sound server."};
  }
}

}  // namespace

PulseStream::~PulseStream() {
  const PulseConnection::Lock lock(*mConnection);
  if (!mStream) return;
  pa_stream_set_state_callback(mStream, nullptr, nullptr);
  pa_stream_set_read_callback(mStream, nullptr, nullptr);
  pa_stream_disconnect(mStream);
  pa_stream_unref(mStream);
}

int32_t PulseStream::begin(const std::string& source, Error& error) {
  PulseConnection::Lock lock(*mConnection);
  const PulseContext context = mConnection->context(lock);
  if (!context) {
    error = mConnection->trouble();
    return kVCIFailed;
  }
  const pa_sample_spec spec{PA_SAMPLE_S16LE, mFormat.samplesPerSecond, static_cast<uint8_t>(mFormat.channels)};
  mStream = pa_stream_new(context.get(), "vesk capture", &spec, nullptr);
  if (mStream) {
    pa_stream_set_state_callback(mStream, stateChanged, this);
    pa_buffer_attr attributes;
    attributes.maxlength = static_cast<uint32_t>(-1);
    attributes.tlength = attributes.prebuf = attributes.minreq = static_cast<uint32_t>(-1);
    attributes.fragsize = static_cast<uint32_t>(pa_frame_size(&spec)) * (spec.rate / kFragmentsPerSecond);
    // A server that moves the stream to another microphone would record what nobody chose.
    const auto flags = static_cast<pa_stream_flags_t>(PA_STREAM_ADJUST_LATENCY | PA_STREAM_AUTO_TIMING_UPDATE |
                                                      PA_STREAM_INTERPOLATE_TIMING | PA_STREAM_DONT_MOVE);
    if (pa_stream_connect_record(mStream, source.c_str(), &attributes, flags) >= 0) {
      mConnection->waitUntil(lock, [this] { return pa_stream_get_state(mStream) != PA_STREAM_CREATING; });
      if (pa_stream_get_state(mStream) == PA_STREAM_READY) {
        // Before the first timing the age of the sound is not known: what waits is read after it.
        mConnection->finish(lock, pa_stream_update_timing_info(mStream, timingKnown, this));
        if (!mConnection->isLeftAlone() && pa_stream_get_state(mStream) == PA_STREAM_READY) {
          pa_stream_set_read_callback(mStream, readable, this);
          mHasBegun = true;
          read();
          return kVCISuccess;
        }
      }
    }
  }
  if (error = mConnection->trouble(); error) return kVCIFailed;
  const int code = pa_context_errno(context.get());
  error = refusal(code);
  return code == PA_ERR_BUSY ? kVCIBusy : kVCIFailed;
}

void PulseStream::stateChanged(pa_stream* stream, void* self) {
  auto* own = static_cast<PulseStream*>(self);
  own->mConnection->signal();
  if (own->mHasBegun && !PA_STREAM_IS_GOOD(pa_stream_get_state(stream))) own->mSink->ended();
}

void PulseStream::timingKnown(pa_stream*, int, void* self) {
  static_cast<PulseStream*>(self)->mConnection->signal();
}

void PulseStream::readable(pa_stream*, size_t, void* self) {
  static_cast<PulseStream*>(self)->read();
}

void PulseStream::read() {
  const size_t frameBytes = std::max<size_t>(size_t{mFormat.channels} * 2, 1);
  while (pa_stream_readable_size(mStream) > 0) {
    const void* data = nullptr;
    size_t length = 0;
    if (pa_stream_peek(mStream, &data, &length) < 0 || length == 0) return;
    if (data) {
      mSink->sound({static_cast<const uint8_t*>(data), length}, firstSampleTime());
    } else {
      mSink->lost(length / frameBytes);
    }
    pa_stream_drop(mStream);
  }
}

/// When the frame at the read position was recorded: as long ago as the server reports, or, before its
/// first report, as what waits to be read lasts.
int64_t PulseStream::firstSampleTime() const {
  const int64_t now = monotonicMicroseconds();
  pa_usec_t latency = 0;
  int isNegative = 0;
  if (pa_stream_get_latency(mStream, &latency, &isNegative) >= 0) {
    return isNegative ? now + static_cast<int64_t>(latency) : now - static_cast<int64_t>(latency);
  }
  const size_t waiting = pa_stream_readable_size(mStream);
  return now - static_cast<int64_t>(pa_bytes_to_usec(waiting, pa_stream_get_sample_spec(mStream)));
}

}  // namespace vesk::capture
