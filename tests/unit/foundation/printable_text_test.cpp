#include <vesk/printable_text.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include <vesk/log.h>

namespace vesk {
namespace {

constexpr const char* kR = "\xEF\xBF\xBD";

TEST(PrintableText, KeepsWhatPeopleWriteAndNothingThatCommandsATerminal) {
  const std::string r = kR;
  struct Row {
    const char* label;
    std::string text;
    std::string printable;
  };
  const std::string family = "\xF0\x9F\x91\xA8\xE2\x80\x8D\xF0\x9F\x91\xA7";  // joined by U+200D
  const Row rows[] = {
      {"plain", "HD Webcam C615 (front)", "HD Webcam C615 (front)"},
      {"letters of the world", "Kamera für Übung カメラ كاميرا", "Kamera für Übung カメラ كاميرا"},
      {"joined characters", family, family},
      {"highest character", "\xF4\x8F\xBF\xBF", "\xF4\x8F\xBF\xBF"},
      {"escape", "a\x1B[2Jb", "a" + r + "[2Jb"},
      {"zero, bell, delete", std::string("\0\a\x7F", 3), r + r + r},
      {"breaks and tabs", "a\r\nb\tc\v\f", "a  b c  "},
      {"breaks of Unicode", "a\xC2\x85\xE2\x80\xA8\xE2\x80\xA9", "a   "},
      {"eight-bit escape",
       "\xC2\x9B"
       "31m",
       r + "31m"},
      {"direction", "mov.\xE2\x80\xAEgpj\xE2\x81\xA6\xE2\x80\x8F\xD8\x9C", "mov." + r + "gpj" + r + r + r},
      {"a byte alone",
       "a\xFF\x9B"
       "b",
       "a" + r + r + "b"},
      {"cut off", "a\xE3\x82", "a" + r + r},
      {"overlong escape", "\xC0\x9B\xE0\x80\x9B", r + r + r + r + r},
      {"surrogate", "\xED\xA0\x80", r + r + r},
      {"beyond Unicode", "\xF4\x90\x80\x80", r + r + r + r},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(printableText(row.text), row.printable) << row.label;
    EXPECT_EQ(printableText(row.printable), row.printable) << row.label;
  }
}

TEST(Log, GivesCleanLinesToSinksAndStreams) {
  std::vector<std::string> lines;
  setLogSink([&lines](LogLevel, std::string_view line) { lines.emplace_back(line); });
  NSLog("The camera \"\x1B[31mA\nB\xFF\" is gone.");
  setLogSink(nullptr);
  const std::string r = kR;
  EXPECT_EQ(lines, std::vector{"The camera \"" + r + "[31mA B" + r + "\" is gone."});

  char* text = nullptr;
  size_t length = 0;
  FILE* const stream = open_memstream(&text, &length);
  setStandardError(stream);
  setStandardOutput(stream);
  NSLog("a\nb");
  printToError("%s: lost\n", "c\x1B");
  printToOutput("\n %s\n", std::string(5000, 'd').c_str());  // line breaks of the format stay
  setStandardError(nullptr);
  setStandardOutput(nullptr);
  std::fclose(stream);
  EXPECT_EQ(std::string(text, length), "a b\nc" + r + ": lost\n\n " + std::string(5000, 'd') + "\n");
  std::free(text);
}

TEST(Log, GivesTheSinkEveryLineWithItsLevel) {
  std::vector<std::string> lines;
  const auto keep = [&lines](LogLevel level, std::string_view line) {
    lines.push_back(std::string(logLevelName(level)) + ": " + std::string(line));
  };
  setLogSink([&](LogLevel level, std::string_view line) {
    keep(level, line);
    NSLog("of the sink's own, on its thread: lost");
    printToError("%s", "lost too");
    if (line == "the last") setLogSink({});
  });
  NSLog("ordinary");
  NSLog(LogLevel::kError, "wrong\n");
  printToOutput("\n item %d = %d \nand another\n", 1, 2);
  printToError(LogLevel::kWarning, "%s\n", "[WARNING]: one");
  NSLog(LogLevel::kInfo, "the last");
  setLogSink([](LogLevel, std::string_view) {});  // silence
  NSLog(LogLevel::kError, "unheard");
  setLogSink({});
  EXPECT_EQ(lines, (std::vector<std::string>{"debug: ordinary", "error: wrong", "debug:  item 1 = 2 ",
                                             "debug: and another", "warning: [WARNING]: one", "info: the last"}));
}

TEST(Log, LosesLinesThatAStreamDoesNotTake) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  FILE* const stream = fdopen(ends[1], "w");
  setStandardError(stream);
  fcntl(ends[1], F_SETFL, O_NONBLOCK);
  while (write(ends[1], "x", 1) == 1) continue;
  fcntl(ends[1], F_SETFL, 0);
  NSLog("into a full pipe");
  printToError("%s", "into a full pipe");
  close(ends[0]);
  NSLog("to a reader that has left");
  printToError("%s", "to a reader that has left");
  setStandardError(nullptr);
  std::fclose(stream);
  sigset_t pending;
  sigpending(&pending);
  EXPECT_FALSE(sigismember(&pending, SIGPIPE));
}

TEST(Log, DoesNotThrowWhereItsSinkDoes) {
  setLogSink([](LogLevel, std::string_view) { throw std::runtime_error("the host's own trouble"); });
  EXPECT_NO_THROW(NSLog("a line"));
  setLogSink([](LogLevel, std::string_view) { throw 1; });
  EXPECT_NO_THROW(NSLog("a line"));
  setLogSink(nullptr);
}

}  // namespace
}  // namespace vesk
