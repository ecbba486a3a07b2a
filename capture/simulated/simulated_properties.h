#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include <vesk/property_sets.h>
#include "capture/simulated/simulated_model.h"
#include "capture/simulated/simulated_pattern.h"
#include "platform/foundation/mutex.h"

namespace vesk::capture {

struct SimulatedPropertyRow;

/// The controls of a simulated camera: what it has, what it accepts, and how they change
/// its image. An automatic mode that is on makes its control read-only. Values out of range are refused
/// and change nothing, but a head that is sent too far goes as far as it can.
///
/// Statuses: 14 the camera does not have the property; 2 a value of the wrong size or out of range; 1
/// a property that cannot be set (now), or a request that it does not answer.
///
/// Threads: every operation from any thread.
class SimulatedProperties {
 public:
  explicit SimulatedProperties(const SimulatedModel& model);

  /// Makes it another model, as it leaves the factory.
  void setModel(const SimulatedModel& model) VESK_EXCLUDES(mMutex);

  int32_t get(uint32_t request, const PropertySetIdentifier& set, uint32_t number, std::span<uint8_t> value,
              uint32_t& valueSize) VESK_EXCLUDES(mMutex);
  int32_t set(const PropertySetIdentifier& set, uint32_t number, std::span<const uint8_t> value) VESK_EXCLUDES(mMutex);
  std::vector<PropertySetIdentifier> sets() VESK_EXCLUDES(mMutex);
  std::vector<uint32_t> items(const PropertySetIdentifier& set) VESK_EXCLUDES(mMutex);

  ImageSettings imageSettings() VESK_EXCLUDES(mMutex);
  /// The last moves of the head, the newest at the end.
  std::vector<HeadMove> moves() VESK_EXCLUDES(mMutex);

  /// All settings as text, a line each, and back; lines that do not fit the camera are skipped.
  std::string settings() VESK_EXCLUDES(mMutex);
  void applySettings(const std::string& text) VESK_EXCLUDES(mMutex);
  /// Called after each setting that was taken, on the thread that made it; set it before it is used.
  void setChangeHandler(std::function<void()> handler) { mChanged = std::move(handler); }

 private:
  using Numbers = std::array<int32_t, 4>;

  bool has(const SimulatedPropertyRow& row) const VESK_REQUIRES(mMutex);
  const SimulatedPropertyRow* find(const PropertySetIdentifier& set, uint32_t number) const VESK_REQUIRES(mMutex);
  Numbers& valueOf(const SimulatedPropertyRow& row) VESK_REQUIRES(mMutex);
  int32_t numberIn(const PropertySetIdentifier& set, uint32_t number) VESK_REQUIRES(mMutex);
  bool isOn(const PropertySetIdentifier& set, uint32_t number) VESK_REQUIRES(mMutex);
  void reset() VESK_REQUIRES(mMutex);
  int32_t store(const SimulatedPropertyRow& row, std::span<const uint8_t> value) VESK_REQUIRES(mMutex);
  void act(const SimulatedPropertyRow& row, const Numbers& numbers) VESK_REQUIRES(mMutex);
  void moveHead(HeadMove::Kind kind, int32_t pan, int32_t tilt) VESK_REQUIRES(mMutex);

  std::function<void()> mChanged;
  Mutex mMutex;
  SimulatedModel mModel VESK_GUARDED_BY(mMutex);
  std::vector<Numbers> mValues VESK_GUARDED_BY(mMutex);  // by row
  int32_t mPan VESK_GUARDED_BY(mMutex) = 0;              // where the head points, arc seconds
  int32_t mTilt VESK_GUARDED_BY(mMutex) = 0;
  std::vector<HeadMove> mMoves VESK_GUARDED_BY(mMutex);
};

}  // namespace vesk::capture
