#include "capture/sources/paced_scheduler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <limits>
#include <string>
#include <thread>

#include "capture/interface/monotonic_clock.h"
#include "tests/support/recorder.h"

namespace vesk::capture {
namespace {

using test::Gate;
using test::Recorder;

struct Delivery {
  std::string stream;
  int64_t time;
  int64_t timestamp;
  int64_t at;  // by the clock
};

/// A frame every `interval`, `count` in all.
class TestStream : public PacedStream {
 public:
  TestStream(std::string name, int64_t interval, int64_t count, Recorder<Delivery>& recorder, int64_t slack = 0)
      : mName(std::move(name)), mInterval(interval), mCount(count), mRecorder(recorder), mSlack(slack) {}

  std::function<void()> onDeliver;
  std::atomic<int> asked = 0;

  int64_t slack() const override { return mSlack; }
  void seek(int64_t time) override { mNext = (time + mInterval - 1) / mInterval; }
  std::optional<int64_t> nextTime() override {
    ++asked;
    return mNext < mCount ? std::optional(mNext * mInterval) : std::nullopt;
  }
  void deliver(int64_t timestamp) override {
    mRecorder.add({mName, mNext * mInterval, timestamp, monotonicMicroseconds()});
    ++mNext;
    if (onDeliver) onDeliver();
  }

 private:
  const std::string mName;
  const int64_t mInterval;
  const int64_t mCount;
  Recorder<Delivery>& mRecorder;
  const int64_t mSlack;
  int64_t mNext = 0;
};

constexpr int64_t kEndless = 1'000'000'000;

class PacedSchedulerTest : public testing::Test {
 protected:
  std::shared_ptr<TestStream> stream(std::string name, int64_t interval, int64_t count = kEndless) {
    return std::make_shared<TestStream>(std::move(name), interval, count, recorder);
  }
  /// Opens when every started stream has come to its end.
  void expectEnd() {
    transport.setEndHandler([this] {
      ++ends;
      ended.open();
    });
  }

  Transport transport;
  Recorder<Delivery> recorder;
  Gate ended;
  std::atomic<int> ends = 0;
};

TEST_F(PacedSchedulerTest, PlaysStreamsReleasedTogetherInTheOrderOfTheirTimesUpToTheLimit) {
  for (const Pace pace : {Pace::kFast, Pace::kRealTime}) {
    Recorder<Delivery> deliveries;
    Transport hand;
    Gate end;
    hand.setLimit(0.05);
    hand.setEndHandler([&] { end.open(); });
    hand.hold();
    PacedScheduler scheduler(pace, hand);
    const auto quick = std::make_shared<TestStream>("quick", 3000, kEndless, deliveries);
    const auto slow = std::make_shared<TestStream>("slow", 7000, kEndless, deliveries);
    const int64_t before = monotonicMicroseconds();
    scheduler.add(quick);
    scheduler.add(slow);
    EXPECT_TRUE(deliveries.items().empty());
    hand.release();
    end.wait();

    const auto all = deliveries.items();
    ASSERT_EQ(all.size(), 17u + 8u);  // 0 to 48 ms, 0 to 49 ms
    const int64_t base = all.front().timestamp;
    EXPECT_GE(base, before);
    for (size_t i = 0; i < all.size(); ++i) {
      EXPECT_EQ(all[i].timestamp, base + all[i].time);
      EXPECT_GE(all[i].time, all[i > 0 ? i - 1 : 0].time);
      EXPECT_GE(all[i].at, pace == Pace::kRealTime ? all[i].timestamp : 0) << "early";
    }
    EXPECT_LE(quick->asked, 18) << "the stream is asked once a delivery";
  }
}

TEST_F(PacedSchedulerTest, WhatMayBeLateComesWithTheNextFrameOfAnotherStream) {
  constexpr int64_t kPictures = 10'000;
  expectEnd();
  transport.hold();
  PacedScheduler scheduler(Pace::kRealTime, transport);
  scheduler.add(stream("pictures", kPictures, 5));
  scheduler.add(std::make_shared<TestStream>("sound", 3000, 20, recorder, kPictures));
  transport.release();
  ended.wait();

  const auto all = recorder.items();
  ASSERT_EQ(all.size(), 25U);
  for (size_t i = 1; i < all.size(); ++i) {
    EXPECT_EQ(all[i].timestamp, all[0].timestamp + all[i].time) << "when it was, not when it came";
    EXPECT_GE(all[i].time, all[i - 1].time);
    if (all[i].stream != "sound" || all[i].time > 4 * kPictures) continue;  // then there is nothing to come with
    const int64_t withPicture = (all[i].time + kPictures - 1) / kPictures * kPictures;
    EXPECT_GE(all[i].at, all[0].timestamp + withPicture) << "sound of " << all[i].time;
  }
}

TEST_F(PacedSchedulerTest, StandsStillWhileHeldAndGoesOnWithoutAHole) {
  Gate isHeld;
  PacedScheduler scheduler(Pace::kRealTime, transport);
  const auto ticks = stream("ticks", 1000);
  std::atomic<int> count = 0;
  ticks->onDeliver = [&] {
    if (++count != 5) return;
    transport.hold();
    isHeld.open();
  };
  scheduler.add(ticks);
  isHeld.wait();
  const int64_t held = monotonicMicroseconds();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));  // may show a fault, never makes one
  EXPECT_EQ(recorder.items().size(), 5u);
  const int64_t released = monotonicMicroseconds();
  transport.release();
  const auto all = recorder.waitFor(10);
  scheduler.remove(ticks);
  for (size_t i = 0; i < 10; ++i) {
    EXPECT_EQ(all[i].time, static_cast<int64_t>(i) * 1000);
    EXPECT_EQ(all[i].timestamp, all[0].timestamp + all[i].time);
    EXPECT_GE(all[i].at, all[i].timestamp + (i < 5 ? 0 : released - held)) << "the time of the hold has run";
  }
}

TEST_F(PacedSchedulerTest, WaitsWhileTheHostIsBusyWithoutALock) {
  PacedScheduler scheduler(Pace::kFast, transport);
  const auto ticks = stream("ticks", 1000, 3);
  std::atomic<int> asked = 0;
  transport.setBackpressure([&] {
    transport.setLimit(1000);  // a host may use the transport from here
    return ++asked % 4 != 0;
  });
  expectEnd();
  scheduler.add(ticks);
  ended.wait();
  EXPECT_EQ(recorder.items().size(), 3u);
  EXPECT_EQ(asked, 12);
}

TEST_F(PacedSchedulerTest, AsksABusyHostAgainAtOnceWhenItCalls) {
  constexpr int kRounds = 30;
  PacedScheduler scheduler(Pace::kFast, transport);
  const auto ticks = stream("ticks", 1000);
  std::atomic<bool> isReady = false;
  std::atomic<int> asked = 0;
  transport.setBackpressure([&] {
    ++asked;
    return !isReady.exchange(false);
  });
  scheduler.add(ticks);
  int64_t fastest = std::numeric_limits<int64_t>::max();
  for (size_t round = 1; round <= kRounds; ++round) {
    while (asked < static_cast<int>(2 * round - 1)) std::this_thread::yield();
    isReady = true;
    const int64_t called = monotonicMicroseconds();
    transport.askAgain();
    fastest = std::min(fastest, recorder.waitFor(round).back().at - called);
  }
  scheduler.remove(ticks);
  EXPECT_LT(fastest, 5'000) << "it waits out its 20 ms";
}

TEST_F(PacedSchedulerTest, CanRemoveAStreamWhileTheHostIsBusy) {
  Gate asked;
  PacedScheduler scheduler(Pace::kFast, transport);
  const auto ticks = stream("ticks", 1000);
  transport.setBackpressure([&] {
    asked.open();
    return true;
  });
  scheduler.add(ticks);
  asked.wait();
  scheduler.remove(ticks);
  EXPECT_TRUE(recorder.items().empty());
}

TEST_F(PacedSchedulerTest, LetsALateStreamJoinWhereTheOthersAre) {
  for (const Pace pace : {Pace::kFast, Pace::kRealTime}) {
    Recorder<Delivery> deliveries;
    Transport hand;
    Gate joined;
    PacedScheduler scheduler(pace, hand);
    const auto first = std::make_shared<TestStream>("first", 1000, kEndless, deliveries);
    const auto late = std::make_shared<TestStream>("late", 700, kEndless, deliveries);
    std::atomic<int> count = 0;
    first->onDeliver = [&] {
      if (++count == 10) scheduler.add(late);
    };
    late->onDeliver = [&] { joined.open(); };
    scheduler.add(first);
    joined.wait();
    scheduler.remove(first);
    scheduler.remove(late);
    const auto all = deliveries.items();
    for (size_t i = 1; i < all.size(); ++i) EXPECT_GE(all[i].time, all[i - 1].time);
    const auto where = std::find_if(all.begin(), all.end(), [](const Delivery& one) { return one.stream == "late"; });
    EXPECT_GE(where->time, 9000);
    EXPECT_LE(where->time, pace == Pace::kFast ? 9700 : kEndless);
    EXPECT_EQ(where->timestamp, all.front().timestamp + where->time);
  }
}

TEST_F(PacedSchedulerTest, WaitsForADeliveryBeforeAStreamIsOut) {
  Gate inside, goOn;
  PacedScheduler scheduler(Pace::kFast, transport);
  const auto ticks = stream("ticks", 1000);
  std::atomic<bool> isInside = false;
  ticks->onDeliver = [&] {
    isInside = true;
    inside.open();
    goOn.wait();
    isInside = false;
  };
  scheduler.add(ticks);
  inside.wait();
  std::thread opener([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));  // may show a fault, never makes one
    goOn.open();
  });
  scheduler.remove(ticks);
  EXPECT_FALSE(isInside);
  const size_t count = recorder.items().size();
  opener.join();
  EXPECT_EQ(recorder.items().size(), count);
}

TEST_F(PacedSchedulerTest, LetsStreamsLeaveAndTheSchedulerEndFromInsideADelivery) {
  Gate left, gone;
  auto scheduler = std::make_unique<PacedScheduler>(Pace::kFast, transport);
  const auto leaving = stream("leaving", 1000);
  leaving->onDeliver = [&] {
    scheduler->remove(leaving);
    left.open();
  };
  scheduler->add(leaving);
  left.wait();
  scheduler->remove(leaving);
  EXPECT_EQ(recorder.items().size(), 1u);

  const auto last = stream("last", 1000);
  last->onDeliver = [&] {
    scheduler.reset();
    gone.open();
  };
  scheduler->add(last);
  gone.wait();
  EXPECT_EQ(recorder.items().size(), 2u);
}

TEST_F(PacedSchedulerTest, EndsOnceWhenTheLastStreamOfTheLastSourceHasEnded) {
  expectEnd();
  transport.hold();
  PacedScheduler one(Pace::kFast, transport), other(Pace::kFast, transport);
  one.add(stream("short", 1000, 2));
  one.add(stream("longer", 1000, 5));
  other.add(stream("elsewhere", 1000, 3));
  const auto stopped = stream("stopped", 1000);
  PacedScheduler third(Pace::kFast, transport);
  third.add(stopped);
  third.remove(stopped);  // has no say in the end
  transport.release();
  ended.wait();
  EXPECT_EQ(recorder.items().size(), 10u);
  EXPECT_EQ(ends, 1);
}

TEST_F(PacedSchedulerTest, BeginsAnewAfterTheLastStreamHasLeftWithLaterTimeStamps) {
  PacedScheduler scheduler(Pace::kFast, transport);
  int64_t last = 0;
  for (int round = 0; round < 3; ++round) {
    const auto ticks = stream(std::to_string(round), 10'000'000);  // stamps run far ahead of the clock
    const size_t before = recorder.items().size();
    scheduler.add(ticks);
    recorder.waitFor(before + 3);
    scheduler.remove(ticks);
    const auto all = recorder.items();
    EXPECT_EQ(all[before].time, 0);
    EXPECT_GT(all[before].timestamp, last);
    last = all.back().timestamp;
  }
}

}  // namespace
}  // namespace vesk::capture
