#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include <vesk/capture_source.h>
#include "tests/support/recorder.h"

namespace vesk::test {

/// A frame or packet as a receiver was given it.
struct RecordedFrame {
  std::vector<uint8_t> bytes;
  int64_t timestamp = 0;
  const uint8_t* memory = nullptr;  ///< where it lay, for as long as the call took
};

/// Takes what a device delivers. As a receiver may, it leaves its own marks in the bytes: no later frame may show them.
class FrameRecorder : public Recorder<RecordedFrame> {
 public:
  capture::FrameCallback callback() {
    return [this](uint8_t* bytes, uint32_t length, int64_t timestamp) {
      add({{bytes, bytes + length}, timestamp, bytes});
      std::fill(bytes, bytes + length, uint8_t{0xEE});
    };
  }
};

/// Takes only when it was.
inline capture::FrameCallback timesInto(Recorder<int64_t>& times) {
  return [&times](uint8_t*, uint32_t, int64_t timestamp) { times.add(timestamp); };
}

}  // namespace vesk::test
