#pragma once

#include <algorithm>
#include <vector>

namespace vesk::capture {

/// Calls `announce(list, arrived)` for each device that went or came between two lists, with the list as it is
/// after that change alone. A subscriber compares its own list with the present one and finds one
/// change, so changes must come into the list one by one.
template <class Record, class IsSame, class Announce>
void announceOneByOne(const std::vector<Record>& before, const std::vector<Record>& now, const IsSame& isSame,
                      const Announce& announce) {
  const auto isAmong = [&](const std::vector<Record>& records, const Record& record) {
    return std::any_of(records.begin(), records.end(), [&](const Record& other) { return isSame(other, record); });
  };
  std::vector<Record> list = before;
  for (const Record& record : before) {
    if (isAmong(now, record)) continue;
    std::erase_if(list, [&](const Record& other) { return isSame(other, record); });
    announce(list, false);
  }
  for (const Record& record : now) {
    if (isAmong(before, record)) continue;
    list.push_back(record);
    std::vector<Record> inOrder = now;
    std::erase_if(inOrder, [&](const Record& other) { return !isAmong(list, other); });
    list = std::move(inOrder);
    announce(list, true);
  }
}

}  // namespace vesk::capture
