#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

#include <vesk/record_session.h>
#include "tests/unit/sessions/recording_test.h"

namespace {

/// Allocations of this thread before the one that fails; negative for none that does.
thread_local int tAllocations = -1;

}  // namespace

// Not inlined: the compiler would take free for a mismatch.
[[gnu::noinline]] void* operator new(size_t size, const std::nothrow_t& /*unused*/) noexcept {
  if (tAllocations >= 0 && tAllocations-- == 0) return nullptr;
  return std::malloc(size == 0 ? 1 : size);
}
[[gnu::noinline]] void* operator new(size_t size) {
  if (void* const memory = operator new(size, std::nothrow)) return memory;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
  std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept {
  std::free(memory);
}

namespace vesk {
namespace {

/// What `operation` answers when the allocation after so many fails on its thread.
template <class Operation>
int32_t withMemoryLackingAfter(int allocations, const Operation& operation) {
  tAllocations = allocations;
  const int32_t status = operation();
  tAllocations = -1;
  return status;
}

struct OutOfMemoryTest : test::RecordingTest {
  std::shared_ptr<VeskRecordSession> session =
      VeskRecordSession::initWithVideoDevice(camera, microphone, movies.file("first.mov"));
};

TEST_F(OutOfMemoryTest, ARecordingThatCannotGoOnInAnotherMovieEndsWhole) {
  ASSERT_EQ(session->startSession(), 0);
  deliver(0, 10);
  const std::string second = movies.file("second movie, whose name is longer than what fits into a short string.mov");
  int failures = 0;
  int delivered = 10;
  // One allocation more each time: each of those under way fails once.
  while (withMemoryLackingAfter(failures, [&] { return session->continueSession(second); }) != 0) {
    ++failures;
    ASSERT_TRUE(session->isRunning());
    deliver(delivered++, 1);
    ASSERT_LT(failures, 2000);
  }
  EXPECT_GT(failures, 10);
  deliver(delivered, 10);
  session->stopSession();
  EXPECT_EQ(test::probe(movies.file("first.mov")).find("2vuy")->packets, delivered);
  EXPECT_EQ(test::probe(second).find("2vuy")->packets, 10);
}

TEST_F(OutOfMemoryTest, ARecordingThatCannotStartMayBeStartedAgain) {
  session->setAudioDevice(nullptr);  // whose start alone the status would tell
  int failures = 0;
  for (const int allocations : {0, 1, 4, 8, 12, 16}) {
    const int32_t status = withMemoryLackingAfter(allocations, [&] { return session->startSession(); });
    if (status != 0) ++failures;
    EXPECT_EQ(session->isRunning(), status == 0) << allocations;
    session->stopSession();
    std::filesystem::remove(movies.file("first.mov"));
  }
  EXPECT_GT(failures, 3);
  ASSERT_EQ(session->startSession(), 0);
  deliver(0, 10);
  session->stopSession();
  EXPECT_EQ(test::probe(movies.file("first.mov")).find("2vuy")->packets, 10);
  for (const auto& entry : std::filesystem::directory_iterator(temporary.path())) ADD_FAILURE() << entry.path();
}

}  // namespace
}  // namespace vesk
