#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include <vesk/log.h>

namespace vesk::test {

/// Holds what the library prints, on one of its two streams, for as long as it lives.
class CapturedLines {
 public:
  enum class Stream { kOutput, kError };
  explicit CapturedLines(Stream stream = Stream::kOutput) : mStream(stream), mFile(open_memstream(&mText, &mSize)) {
    set(mFile);
  }
  ~CapturedLines() {
    set(nullptr);
    std::fclose(mFile);
    std::free(mText);
  }
  CapturedLines(const CapturedLines&) = delete;
  CapturedLines& operator=(const CapturedLines&) = delete;

  std::string text() {
    std::fflush(mFile);
    return {mText, mSize};
  }
  size_t count(std::string_view part) {
    const std::string all = text();
    size_t found = 0;
    for (size_t at = all.find(part); at != std::string::npos; at = all.find(part, at + part.size())) ++found;
    return found;
  }

 private:
  void set(FILE* file) { mStream == Stream::kOutput ? setStandardOutput(file) : setStandardError(file); }

  Stream mStream;
  char* mText = nullptr;
  size_t mSize = 0;
  FILE* mFile;
};

}  // namespace vesk::test
