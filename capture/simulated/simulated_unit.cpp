#include "capture/simulated/simulated_unit.h"

#include <algorithm>

namespace vesk::capture {
namespace {

std::span<uint8_t> damaged(std::span<uint8_t> bytes, SimulatedFaults::Damage damage) {
  switch (damage) {
    case SimulatedFaults::Damage::kTruncated:
      return bytes.first(bytes.size() / 2);
    case SimulatedFaults::Damage::kGarbled:
      for (size_t i = 7; i < bytes.size(); i += 8) bytes[i] ^= 0x5A;
      return bytes;
    case SimulatedFaults::Damage::kEmpty:
      return bytes.first(0);
  }
  return bytes;
}

bool countDown(uint32_t& count) {
  if (count == 0) return false;
  --count;
  return true;
}

}  // namespace

bool SimulatedUnit::occupy() {
  if (mDescription.kind == DeviceKind::kAudio) return true;
  MutexLock lock(mMutex);
  return !std::exchange(mIsOccupied, true);
}

void SimulatedUnit::vacate() {
  MutexLock lock(mMutex);
  mIsOccupied = false;
}

void SimulatedUnit::deliver(const FrameCallback& callback, std::span<uint8_t> bytes, int64_t timestamp) {
  {
    MutexLock lock(mMutex);
    if (countDown(mFaults.droppedPackets)) return;
    if (countDown(mFaults.shiftedPackets)) timestamp = std::max<int64_t>(1, timestamp + mFaults.timestampShift);
    if (countDown(mFaults.damagedPackets)) bytes = damaged(bytes, mFaults.damage);
  }
  callback(bytes.data(), static_cast<uint32_t>(bytes.size()), timestamp);
}

}  // namespace vesk::capture
