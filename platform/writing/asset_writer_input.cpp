#include "platform/writing/asset_writer_input.h"

#include <utility>

#include "platform/foundation/mutex.h"
#include "platform/writing/movie_file_writer.h"

namespace vesk {

/// What requestMediaData… has asked for. Work on its way to the queue keeps it alive.
struct AVAssetWriterInput::Request {
  using Block = std::shared_ptr<const std::function<void()>>;

  Mutex mutex;
  std::shared_ptr<DispatchQueue> queue VESK_GUARDED_BY(mutex);
  Block block VESK_GUARDED_BY(mutex);
  bool isWaiting VESK_GUARDED_BY(mutex) = false;  ///< a run is on its way

  /// Puts a run of the block on its queue unless one is waiting there.
  static void schedule(const std::shared_ptr<Request>& request) {
    std::shared_ptr<DispatchQueue> target;
    {
      MutexLock lock(request->mutex);
      if (!request->block || request->isWaiting) return;
      request->isWaiting = true;
      target = request->queue;
    }
    target->async([request] { run(*request); });
  }

  static void run(Request& request) {
    Block block;
    {
      MutexLock lock(request.mutex);
      request.isWaiting = false;
      block = request.block;
    }
    if (block) (*block)();
  }
};

AVAssetWriterInput::AVAssetWriterInput(MediaType mediaType)
    : mMediaType(mediaType), mRequest(std::make_shared<Request>()) {}

AVAssetWriterInput::~AVAssetWriterInput() {
  markAsFinished();
}

std::shared_ptr<AVAssetWriterInput> AVAssetWriterInput::initWithMediaType(MediaType mediaType) {
  return std::shared_ptr<AVAssetWriterInput>(new AVAssetWriterInput(mediaType));
}

void AVAssetWriterInput::requestMediaDataWhenReadyOnQueue(std::shared_ptr<DispatchQueue> queue,
                                                          std::function<void()> block) {
  if (!queue || !block || mFinished) return;
  {
    MutexLock lock(mRequest->mutex);
    mRequest->queue = std::move(queue);
    mRequest->block = std::make_shared<const std::function<void()>>(std::move(block));
  }
  mediaDataAvailable();
}

void AVAssetWriterInput::mediaDataAvailable() {
  if (!mFinished.load(std::memory_order_relaxed)) Request::schedule(mRequest);
}

bool AVAssetWriterInput::isReadyForMoreMediaData() const {
  return mWriter && !mFinished && mWriter->status() == AVAssetWriterStatus::Writing;
}

bool AVAssetWriterInput::appendSampleBuffer(const CMSampleBufferRef& sample) {
  return mWriter && !mFinished && mWriter->append(mTrack, sample);
}

void AVAssetWriterInput::markAsFinished() {
  if (mFinished.exchange(true)) return;
  if (mWriter) mWriter->finishTrack(mTrack);
  // The queue and the block go outside the lock: what they own may come back here.
  std::shared_ptr<DispatchQueue> queue;
  Request::Block block;
  MutexLock lock(mRequest->mutex);
  queue.swap(mRequest->queue);
  block.swap(mRequest->block);
}

}  // namespace vesk
