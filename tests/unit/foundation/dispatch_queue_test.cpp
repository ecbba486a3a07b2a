#include <vesk/dispatch_queue.h>

#include <gtest/gtest.h>
#include <pthread.h>

#include <array>
#include <future>
#include <stdexcept>
#include <thread>
#include <vector>

#include <vesk/run_loop.h>
#include "tests/support/log_recorder.h"

namespace vesk {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;

TEST(SerialQueue, KeepsTheOrderOfEveryThreadThatAddsToIt) {
  constexpr int kThreads = 4;
  constexpr int kEach = 500;
  const auto queue = DispatchQueue::createSerial("order");
  std::vector<std::pair<int, int>> ran;  // touched by the queue's work only
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int thread = 0; thread < kThreads; ++thread)
    threads.emplace_back([&, thread] {
      for (int number = 0; number < kEach; ++number)
        queue->async([&, thread, number] { ran.push_back({thread, number}); });
    });
  for (auto& thread : threads) thread.join();
  queue->sync([] {});

  ASSERT_EQ(ran.size(), size_t{kThreads * kEach});
  std::array<int, kThreads> next{};
  for (const auto& [thread, number] : ran) EXPECT_EQ(number, next[thread]++);
}

TEST(SerialQueue, SyncFromManyThreadsWaitsForItsOwnWork) {
  const auto queue = DispatchQueue::createSerial("sync");
  int counter = 0;  // unguarded on purpose: the queue is the guard
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int thread = 0; thread < 4; ++thread)
    threads.emplace_back([&] {
      for (int number = 0; number < 200; ++number) {
        int seen = 0;
        queue->sync([&] { seen = ++counter; });
        EXPECT_GT(seen, 0);
      }
    });
  for (auto& thread : threads) thread.join();
  queue->sync([&] { EXPECT_EQ(counter, 800); });
}

TEST(SerialQueue, RunsTimedWorkByTimeAndNotBeforeIt) {
  for (bool isTold = false; !isTold;) {
    const auto queue = DispatchQueue::createSerial("timed");
    const auto start = std::chrono::steady_clock::now();
    std::vector<char> ran;
    std::promise<std::chrono::steady_clock::time_point> last;
    queue->sync([&] {
      queue->asyncAfter(milliseconds(20), [&] {
        ran.push_back('c');
        last.set_value(std::chrono::steady_clock::now());
      });
      queue->asyncAfter(milliseconds(10), [&] { ran.push_back('b'); });
      queue->asyncAfter(-milliseconds(5), [&] { ran.push_back('a'); });
      // A thread that was held up between two of them gave them times in another order.
      isTold = std::chrono::steady_clock::now() - start < milliseconds(10);
    });
    EXPECT_GE(last.get_future().get() - start, milliseconds(20));
    if (isTold) queue->sync([&] { EXPECT_EQ(ran, (std::vector{'a', 'b', 'c'})); });
  }
}

TEST(SerialQueue, ReleaseRunsWhatIsWaiting) {
  int ran = 0;
  {
    const auto queue = DispatchQueue::createSerial("release");
    queue->asyncAfter(milliseconds(5), [&] { ++ran; });
    for (int number = 0; number < 100; ++number) queue->async([&] { ++ran; });
  }
  EXPECT_EQ(ran, 101);
}

TEST(SerialQueue, LastReferenceMayGoOnItsOwnThread) {
  std::promise<int> ran;
  auto queue = DispatchQueue::createSerial("own thread");
  auto& raw = *queue;
  raw.async([&ran, &raw, kept = std::move(queue)]() mutable {
    raw.async([&ran] { ran.set_value(2); });
    kept.reset();
  });
  EXPECT_EQ(ran.get_future().get(), 2);
}

TEST(SerialQueue, SurvivesWorkThatThrowsAndLogsIt) {
  test::LogRecorder log;
  const auto queue = DispatchQueue::createSerial("throwing");
  queue->sync([] { throw std::runtime_error("no such thing"); });
  queue->sync([] { throw 7; });
  queue->sync(DispatchQueue::Work());
  bool ran = false;
  queue->sync([&] { ran = true; });
  EXPECT_TRUE(ran);
  const auto lines = log.items();
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_NE(lines[0].find("throwing"), std::string::npos);
  EXPECT_NE(lines[0].find("no such thing"), std::string::npos);
}

TEST(SerialQueue, KnowsAndNamesItsThread) {
  const auto queue = DispatchQueue::createSerial("Media Writer Queue");
  const auto other = DispatchQueue::createSerial("other");
  EXPECT_FALSE(queue->isCurrent());
  queue->sync([&] {
    EXPECT_TRUE(queue->isCurrent());
    EXPECT_FALSE(other->isCurrent());
    std::array<char, 16> name{};
    pthread_getname_np(pthread_self(), name.data(), name.size());
    EXPECT_STREQ(name.data(), "Media Writer Qu");
  });
}

TEST(MainQueue, RunsWorkOfOtherThreadsInOrderOnTheMainThread) {
  const auto loop = NSRunLoop::currentRunLoop();
  const auto mainThread = std::this_thread::get_id();
  std::vector<int> ran;
  std::thread worker([&] {
    const auto queue = DispatchQueue::mainQueue();
    EXPECT_FALSE(queue->isCurrent());
    for (int number = 0; number < 100; ++number)
      queue->async([&, number] {
        EXPECT_EQ(std::this_thread::get_id(), mainThread);
        ran.push_back(number);
      });
    queue->sync([&] {
      EXPECT_TRUE(queue->isCurrent());
      EXPECT_EQ(ran.size(), 100U);
    });
    loop->stop();
  });
  loop->run();
  worker.join();
  for (int number = 0; number < 100; ++number) EXPECT_EQ(ran[number], number);
}

TEST(MainQueue, SyncOnTheMainThreadRunsAtOnce) {
  bool ran = false;
  DispatchQueue::mainQueue()->sync([&] { ran = true; });
  EXPECT_TRUE(ran);
}

TEST(MainQueue, LoopInsideWorkServesOtherWork) {
  const auto loop = NSRunLoop::currentRunLoop();
  std::vector<char> ran;
  const auto queue = DispatchQueue::mainQueue();
  queue->async([&] {
    ran.push_back('a');
    loop->run();
    ran.push_back('d');
    loop->stop();
  });
  queue->asyncAfter(milliseconds(1), [&] { ran.push_back('b'); });
  queue->asyncAfter(milliseconds(2), [&] {
    ran.push_back('c');
    loop->stop();
  });
  loop->run();
  EXPECT_EQ(ran, (std::vector{'a', 'b', 'c', 'd'}));
}

TEST(GlobalQueue, RunsWorkSideBySide) {
  const auto queue = DispatchQueue::globalQueue();
  std::promise<void> first;
  std::promise<void> second;
  std::promise<void> done;
  queue->async([&] {
    EXPECT_TRUE(queue->isCurrent());
    first.get_future().wait();  // needs the other piece to run meanwhile
    second.set_value();
  });
  queue->async([&] { first.set_value(); });
  second.get_future().wait();
  queue->asyncAfter(microseconds(500), [&] { done.set_value(); });
  done.get_future().wait();
}

}  // namespace
}  // namespace vesk
