#include "movie/waiting_samples.h"

#include <utility>

namespace vesk {

void WaitingSamples::add(std::span<const uint8_t> bytes, uint64_t timestamp, VeskMovieCreator::VeskMediaType type) {
  if (!mBegin) mBegin = timestamp;
  mSamples.push_back({{bytes.begin(), bytes.end()}, timestamp, type});
  mBytes += bytes.size();
  if (type == VeskMovieCreator::VeskMediaTypeVideo) ++mPictures;
}

std::vector<WaitingSamples::Sample> WaitingSamples::take(size_t most) {
  std::vector<Sample> taken;
  while (!mSamples.empty() && taken.size() < most) {
    Sample& first = mSamples.front();
    mBytes -= first.bytes.size();
    if (first.type == VeskMovieCreator::VeskMediaTypeVideo) --mPictures;
    taken.push_back(std::move(first));
    mSamples.pop_front();
  }
  return taken;
}

std::vector<WaitingSamples::Sample> WaitingSamples::giveUp() {
  mBegin.reset();
  return take(mSamples.size());
}

}  // namespace vesk
