#include "platform/metering/audio_tap.h"

#include <utility>

#include "platform/foundation/mutex.h"

namespace vesk {
namespace {

struct SharedTapProvider {
  Mutex mutex;
  std::shared_ptr<AudioTapProvider> provider VESK_GUARDED_BY(mutex);
};

// Never destroyed: a meter may be stopping on a thread of its own when static objects go.
SharedTapProvider& sharedProvider() {
  static auto& shared = *new SharedTapProvider;
  return shared;
}

}  // namespace

std::shared_ptr<AudioTapProvider> AudioTapProvider::shared() {
  SharedTapProvider& shared = sharedProvider();
  const MutexLock lock(shared.mutex);
  return shared.provider;
}

void AudioTapProvider::setShared(std::shared_ptr<AudioTapProvider> provider) {
  SharedTapProvider& shared = sharedProvider();
  const MutexLock lock(shared.mutex);
  shared.provider.swap(provider);
}

}  // namespace vesk
