#include "platform/metering/av_capture_audio_preview_output.h"

#include <utility>

namespace vesk {

std::vector<AVCaptureAudioChannel> AVCaptureConnection::audioChannels() const {
  std::vector<AVCaptureAudioChannel> channels;
  for (uint32_t channel = 0; channel < mMeter->channels(); ++channel) channels.emplace_back(mMeter, channel);
  return channels;
}

std::vector<std::shared_ptr<AVCaptureConnection>> AVCaptureAudioPreviewOutput::connections() const {
  const MutexLock lock(mMutex);
  if (!mConnection) return {};
  return {mConnection};
}

void AVCaptureAudioPreviewOutput::setConnection(std::shared_ptr<AVCaptureConnection> connection) {
  const MutexLock lock(mMutex);
  mConnection.swap(connection);
}

}  // namespace vesk
