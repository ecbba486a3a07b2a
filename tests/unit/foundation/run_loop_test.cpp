#include <vesk/run_loop.h>

#include <glib.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include <vesk/dispatch_queue.h>
#include "platform/foundation/timer.h"

namespace vesk {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

TEST(RunLoop, ServesTheMainThreadUntilTheDeadline) {
  bool ran = false;
  DispatchQueue::mainQueue()->asyncAfter(milliseconds(5), [&] { ran = true; });
  const auto deadline = Clock::now() + milliseconds(40);
  NSRunLoop::currentRunLoop()->runUntilDate(deadline);
  EXPECT_GE(Clock::now(), deadline);
  EXPECT_TRUE(ran);
}

TEST(RunLoop, ServesOnceWhenTheDeadlineIsPast) {
  int ran = 0;
  const auto queue = DispatchQueue::mainQueue();
  queue->async([&] {
    ++ran;
    queue->async([&] { ++ran; });
  });
  NSRunLoop::currentRunLoop()->runUntilDate(Clock::now() - milliseconds(1));
  EXPECT_EQ(ran, 1);
  NSRunLoop::currentRunLoop()->runUntilDate(Clock::now() - milliseconds(1));
  EXPECT_EQ(ran, 2);
}

TEST(RunLoop, RunsInsideAHostsMainLoop) {
  GMainLoop* const host = g_main_loop_new(nullptr, FALSE);
  bool servedInside = false;
  const auto queue = DispatchQueue::mainQueue();
  queue->async([&] {
    queue->async([&] { servedInside = true; });
    NSRunLoop::currentRunLoop()->runUntilDate(Clock::now() + milliseconds(10));
    EXPECT_TRUE(servedInside);
    g_main_loop_quit(host);
  });
  g_main_loop_run(host);
  g_main_loop_unref(host);
  EXPECT_TRUE(servedInside);
}

TEST(RunLoop, WaitsWhenAnotherThreadServesTheContext) {
  std::promise<void> owned, release;
  std::thread host([&] {
    ASSERT_TRUE(g_main_context_acquire(g_main_context_default()));
    owned.set_value();
    release.get_future().wait();
    g_main_context_release(g_main_context_default());
  });
  owned.get_future().wait();
  std::atomic<bool> ran{false};
  DispatchQueue::mainQueue()->async([&] { ran = true; });
  const auto deadline = Clock::now() + milliseconds(10);
  NSRunLoop::currentRunLoop()->runUntilDate(deadline);
  EXPECT_GE(Clock::now(), deadline);
  EXPECT_FALSE(ran);

  const auto loop = NSRunLoop::currentRunLoop();
  std::thread stopper([&] { loop->stop(); });
  loop->run();
  stopper.join();
  release.set_value();
  host.join();
  loop->runUntilDate(Clock::now() + milliseconds(1));
  EXPECT_TRUE(ran);
}

TEST(RunLoop, ServesTheThreadsOwnContextElsewhere) {
  std::thread worker([] {
    GMainContext* const context = g_main_context_new();
    g_main_context_push_thread_default(context);
    std::atomic<bool> ran{false};
    GSource* const source = g_idle_source_new();
    g_source_set_callback(
        source,
        [](void* flag) -> gboolean {
          *static_cast<std::atomic<bool>*>(flag) = true;
          NSRunLoop::currentRunLoop()->stop();
          return G_SOURCE_REMOVE;
        },
        &ran, nullptr);
    g_source_attach(source, context);
    g_source_unref(source);
    NSRunLoop::currentRunLoop()->run();
    EXPECT_TRUE(ran);
    g_main_context_pop_thread_default(context);
    g_main_context_unref(context);

    // Without a context of its own the thread still waits.
    const auto deadline = Clock::now() + milliseconds(5);
    NSRunLoop::currentRunLoop()->runUntilDate(deadline);
    EXPECT_GE(Clock::now(), deadline);
    NSRunLoop::currentRunLoop()->stop();
    NSRunLoop::currentRunLoop()->run();  // heeds the stop that came before
  });
  worker.join();
}

TEST(Timer, RepeatsUntilInvalidatedFromInside) {
  const auto loop = NSRunLoop::currentRunLoop();
  std::shared_ptr<NSTimer> timer;
  int beats = 0;
  const auto start = Clock::now();
  timer = NSTimer::scheduledTimer(milliseconds(3), true, [&] {
    if (++beats < 4) return;
    timer->invalidate();
    loop->stop();
  });
  EXPECT_TRUE(timer->isValid());
  loop->run();
  EXPECT_GE(Clock::now() - start, milliseconds(12));
  EXPECT_FALSE(timer->isValid());
  loop->runUntilDate(Clock::now() + milliseconds(10));
  EXPECT_EQ(beats, 4);
}

TEST(Timer, FiresOnceUnlessItIsLetGo) {
  const auto loop = NSRunLoop::currentRunLoop();
  int kept = 0;
  int dropped = 0;
  const auto timer = NSTimer::scheduledTimer(milliseconds(2), false, [&] { ++kept; });
  NSTimer::scheduledTimer(milliseconds(1), false, [&] { ++dropped; });
  loop->runUntilDate(Clock::now() + milliseconds(15));
  EXPECT_EQ(kept, 1);
  EXPECT_EQ(dropped, 0);
  EXPECT_FALSE(timer->isValid());
}

TEST(Timer, InvalidateFromAnotherThreadEndsTheCalls) {
  const auto loop = NSRunLoop::currentRunLoop();
  std::thread worker([&] {
    for (int round = 0; round < 50; ++round) {
      auto calls = std::make_unique<int>(0);
      const auto timer = NSTimer::scheduledTimer(std::chrono::microseconds(50), true, [p = calls.get()] { ++*p; });
      if (round % 5 == 0) DispatchQueue::mainQueue()->sync([] {});
      timer->invalidate();
      calls.reset();  // a call under way would use freed memory
    }
    loop->stop();
  });
  loop->run();
  worker.join();
}

}  // namespace
}  // namespace vesk
