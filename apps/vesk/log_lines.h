#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vesk::program {

/// The library's lines as a person is shown them: one that comes again is counted, and shown with its count when a
/// minute has gone by; numbers in it do not make it another.
///
/// Threads: one at a time.
class LogLines {
 public:
  using Clock = std::chrono::steady_clock;

  /// What to show for a line that came at `now`; none for nothing.
  std::optional<std::string> take(std::string_view line, Clock::time_point now);

  /// A line for each kind that has come since it was last shown, which is forgotten then.
  std::vector<std::string> counts();

 private:
  struct Kind {
    std::string line;  ///< as it was shown
    Clock::time_point shown;
    uint64_t unshown = 0;
  };
  std::map<std::string, Kind> mKinds;  ///< by the line without its numbers
};

}  // namespace vesk::program
