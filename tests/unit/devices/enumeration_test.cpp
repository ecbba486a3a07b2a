#include "devices/enumeration.h"

#include <gtest/gtest.h>

namespace vesk {
namespace {

struct Answer {
  int32_t status;
  uint32_t count;
};

/// Enumerates numbers from a library that answers the two calls so.
std::vector<uint32_t> enumerate(Answer first, Answer second, std::vector<uint32_t>& counts) {
  counts.clear();
  return enumerateRecords<uint32_t>([&](uint32_t* records, uint32_t* size, uint32_t* count) {
    EXPECT_EQ(*size, 0U);
    EXPECT_EQ(records != nullptr, counts.size() == 1) << "an array in the second call only";
    counts.push_back(*count);
    const Answer& answer = records ? second : first;
    if (records)
      for (uint32_t i = 0; i < *count && i < answer.count; ++i) records[i] = i + 1;
    *count = answer.count;
    return answer.status;
  });
}

TEST(Enumeration, AsksForTheCountAndThenForTheRecords) {
  struct Row {
    const char* label;
    Answer first, second;
    std::vector<uint32_t> counts;  // as given to each call
    size_t found;
  };
  const Row rows[] = {
      {"three", {8, 3}, {0, 3}, {0, 3}, 3},
      {"fewer than there were", {8, 3}, {0, 1}, {0, 3}, 1},
      {"more than were asked for", {8, 3}, {0, 9}, {0, 3}, 3},
      {"none, but more data", {8, 0}, {0, 0}, {0, 0}, 0},
      {"none", {0, 0}, {0, 0}, {0}, 0},
      {"success with a count", {0, 3}, {0, 3}, {0}, 0},
      {"a failure", {1, 3}, {0, 3}, {0}, 0},
      {"a failure of the second", {8, 3}, {1, 3}, {0, 3}, 0},
      {"too many to be true", {8, 4'000'000'000}, {0, 4096}, {0, 4096}, 4096},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.label);
    std::vector<uint32_t> counts;
    EXPECT_EQ(enumerate(row.first, row.second, counts).size(), row.found);
    EXPECT_EQ(counts, row.counts);
  }
}

}  // namespace
}  // namespace vesk
