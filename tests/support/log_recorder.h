#pragma once

#include <algorithm>
#include <string>
#include <string_view>

#include <vesk/log.h>
#include "tests/support/recorder.h"

namespace vesk::test {

/// Takes the log's lines over for as long as it lives.
class LogRecorder : public Recorder<std::string> {
 public:
  LogRecorder() {
    setLogSink([this](LogLevel, std::string_view line) { add(std::string(line)); });
  }
  ~LogRecorder() { setLogSink({}); }
  LogRecorder(const LogRecorder&) = delete;
  LogRecorder& operator=(const LogRecorder&) = delete;

  /// How many lines have the text in them.
  size_t count(std::string_view text) {
    const auto lines = items();
    return static_cast<size_t>(
        std::count_if(lines.begin(), lines.end(), [&](const auto& line) { return line.find(text) != line.npos; }));
  }
};

}  // namespace vesk::test
