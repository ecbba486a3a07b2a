#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

namespace vesk::capture {

/// One frame or packet as the capture interface delivers it.
struct MediaUnit {
  std::span<uint8_t> bytes;  ///< the reader's own, writable, valid until its next call
  int64_t time = 0;          ///< microseconds of the footage, never below 0
};

/// The part of the footage that is played again and again: from `begin`, which may be later than the footage's
/// own, to `end`. Microseconds of the footage.
struct Loop {
  int64_t begin = 0;
  int64_t end = 0;
  int64_t length() const { return end - begin; }
};

/// Gives a track's footage in the format that a device delivers.
class UnitReader {
 public:
  virtual ~UnitReader() = default;

  /// Goes to `time` of the footage: the next unit is the first at or after it that can stand at the
  /// beginning of a recording. `again` says that the footage follows on itself, in a loop, and the last unit was its
  /// end's.
  virtual bool start(int64_t time, bool again) = 0;
  /// The next unit; none at the end.
  virtual std::optional<MediaUnit> next() = 0;
  /// Why footage was left out, one line; empty when none was.
  virtual const std::string& damage() const = 0;
};

}  // namespace vesk::capture
