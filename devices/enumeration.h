#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include <vesk/vci.h>

namespace vesk {

/// More than any device has; a larger count from the capture library is cut to it.
constexpr uint32_t kMostRecords = 4096;

/// Runs an enumeration of the capture library: `call(records, size, count)` without an array for
/// the count, then with one, also for a count of 0. Empty when the library answers anything but 8 and then 0.
template <class Record, class Call>
std::vector<Record> enumerateRecords(const Call& call) {
  uint32_t size = 0;
  uint32_t count = 0;
  if (call(static_cast<Record*>(nullptr), &size, &count) != kVCIMoreData) return {};

  count = std::min(count, kMostRecords);
  std::vector<Record> records(std::max(count, 1U));  // no array would ask for the count again
  if (call(records.data(), &size, &count) != kVCISuccess) return {};
  records.resize(std::min<size_t>(count, records.size()));
  return records;
}

}  // namespace vesk
