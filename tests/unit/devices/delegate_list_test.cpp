#include "devices/delegate_list.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <vesk/run_loop.h>
#include "tests/support/log_recorder.h"
#include "tests/support/meanwhile.h"

namespace vesk {
namespace {

struct Delegate : VeskAVDeviceDelegate {
  explicit Delegate(std::function<void()> whenCalled = {}) : act(std::move(whenCalled)) {}
  void didCaptureFrame(void*, uint32_t, int64_t, const std::shared_ptr<VeskDeviceInfo>&) override {
    ++frames;
    if (act) act();
  }
  std::function<void()> act;
  std::atomic<int> frames{0};
};

struct LevelDelegate : Delegate, VeskMicLevelDelegate {
  void didMicLevelEventOccured(float level) override {
    levels.push_back(level);
    if (onLevel) onLevel();
  }
  std::vector<float> levels;
  std::function<void()> onLevel;
};

struct DelegateListTest : testing::Test {
  void deliver() { list->deliver(nullptr, 0, 0); }
  void queueLevel(float level) { list->queueMicLevel(level, isMetering); }
  static void serve() { NSRunLoop::currentRunLoop()->runUntilDate(std::chrono::steady_clock::now()); }

  std::shared_ptr<std::atomic<bool>> isMetering = std::make_shared<std::atomic<bool>>(true);
  std::shared_ptr<DelegateList> list = std::make_shared<DelegateList>(std::make_shared<VeskDeviceInfo>());
};

TEST_F(DelegateListTest, DeliversInOrderAndToEachEntry) {
  std::string calls;
  const auto a = std::make_shared<Delegate>([&] { calls += 'a'; });
  const auto b = std::make_shared<Delegate>([&] { calls += 'b'; });
  list->add(a);
  list->add(nullptr);
  list->add(b);
  list->add(a);
  deliver();
  EXPECT_EQ(calls, "aba");
  list->remove(nullptr);
  list->remove(a.get());
  deliver();
  EXPECT_EQ(calls, "abab") << "one removal takes out every entry";
}

TEST_F(DelegateListTest, LevelsReachOnlyThoseWhoTakeThemAndAreStillThere) {
  const auto staying = std::make_shared<LevelDelegate>();
  const auto leaving = std::make_shared<LevelDelegate>();
  list->add(std::make_shared<Delegate>());
  for (const auto& each : {staying, leaving}) list->add(each);
  queueLevel(-10);
  EXPECT_TRUE(staying->levels.empty()) << "on the main queue";
  list->remove(leaving.get());
  serve();
  EXPECT_EQ(staying->levels, std::vector<float>{-10});
  EXPECT_TRUE(leaving->levels.empty());

  queueLevel(-20);
  staying->onLevel = [&] { list->remove(staying.get()); };
  queueLevel(-30);
  serve();
  EXPECT_EQ(staying->levels, (std::vector<float>{-10, -20})) << "removed inside one level, it gets no other";

  list->add(staying);
  queueLevel(-40);
  list->clear();
  serve();
  EXPECT_EQ(staying->levels.size(), 2U) << "nor after the device has gone";
  staying->onLevel = nullptr;

  list->add(std::make_shared<Delegate>());
  for (const auto& each : {leaving, staying}) list->add(each);
  leaving->onLevel = [&] { list->remove(staying.get()); };
  list->deliverMicLevel(-50);
  EXPECT_EQ(leaving->levels, std::vector<float>{-50}) << "at once";
  EXPECT_EQ(staying->levels.size(), 2U);
}

TEST_F(DelegateListTest, RemovingWaitsForALevelAndFramesDoNot) {
  const auto delegate = std::make_shared<LevelDelegate>();
  std::promise<void> removing;
  std::thread remover;
  std::atomic<bool> left = false;
  delegate->onLevel = [&] {
    std::thread([&] { deliver(); }).join();  // a frame on its own thread
    remover = std::thread([&] {
      removing.set_value();
      list->remove(delegate.get());
      EXPECT_TRUE(left);
    });
    removing.get_future().wait();
    for (int i = 0; i < 100; ++i) std::this_thread::yield();
    left = true;
  };
  list->add(delegate);
  queueLevel(-10);
  serve();
  remover.join();
  EXPECT_EQ(delegate->frames, 1);
}

TEST_F(DelegateListTest, RemovingWaitsForADeliveryOnAnotherThread) {
  std::promise<void> entered;
  std::promise<void> mayLeave;
  std::atomic<bool> left = false;
  const auto slow = std::make_shared<Delegate>([&] {
    entered.set_value();
    mayLeave.get_future().wait();
    for (int i = 0; i < 100; ++i) std::this_thread::yield();
    left = true;
  });
  list->add(slow);
  std::thread frames([&] { deliver(); });
  entered.get_future().wait();

  std::promise<void> removing;
  std::thread remover([&] {
    removing.set_value();
    list->remove(slow.get());
    EXPECT_TRUE(left);
  });
  removing.get_future().wait();
  mayLeave.set_value();
  frames.join();
  remover.join();
  deliver();
  EXPECT_EQ(slow->frames, 1);
}

TEST_F(DelegateListTest, IsWalkedUnderItsLockAndKeepsDeliveriesOutMeanwhile) {
  const auto delegate = std::make_shared<Delegate>([&] { EXPECT_EQ(list->size(), 2U) << "from inside a delivery"; });
  const VeskDeviceDelegates& delegates = *list;
  EXPECT_TRUE(delegates.empty());
  list->add(delegate);
  list->add(delegate);
  EXPECT_EQ(delegates.size(), 2U) << "the list itself, not a copy";
  std::promise<void> delivering;
  std::thread frames;
  {
    const std::lock_guard lock(delegates);
    const std::lock_guard again(delegates);
    frames = std::thread([&] {
      delivering.set_value();
      deliver();
    });
    delivering.get_future().wait();
    for (int i = 0; i < 100; ++i) std::this_thread::yield();
    EXPECT_EQ(delegate->frames, 0);
    for (const auto& each : delegates) EXPECT_EQ(each, delegate);
  }
  frames.join();
  EXPECT_EQ(delegate->frames, 2);
}

TEST_F(DelegateListTest, SurvivesDelegatesThatChangeTheList) {
  const auto last = std::make_shared<Delegate>();
  const auto changing = std::make_shared<Delegate>();
  changing->act = [&, self = changing.get()] {
    list->remove(self);
    for (int i = 0; i < 50; ++i) list->add(last);
  };
  list->add(changing);
  deliver();
  deliver();
  EXPECT_EQ(changing->frames, 1);
  EXPECT_GE(last->frames, 50);
  changing->act = nullptr;
}

TEST_F(DelegateListTest, LogsWhatADelegateThrowsAndGoesOn) {
  test::LogRecorder log;
  const auto after = std::make_shared<Delegate>();
  list->add(std::make_shared<Delegate>([] { throw std::runtime_error("no room"); }));
  list->add(after);
  deliver();
  EXPECT_EQ(after->frames, 1);
  EXPECT_EQ(log.items().size(), 1U);
  EXPECT_EQ(log.count("no room"), 1U);
}

TEST_F(DelegateListTest, EndsADeliveryInWhichItIsClearedAndLetGo) {
  const auto next = std::make_shared<Delegate>();
  list->add(std::make_shared<Delegate>([&] {
    list->clear();
    list.reset();
  }));
  list->add(next);
  list->deliver(nullptr, 0, 0);
  EXPECT_EQ(next->frames, 0);
  EXPECT_EQ(next.use_count(), 1);
}

TEST_F(DelegateListTest, TakesChangesWhileFramesArrive) {
  std::atomic<int> frames = 0;
  const test::Meanwhile source([&] { deliver(); }, 2);
  for (int i = 0; i < 200; ++i) {
    bool isIn = true;
    const auto delegate = std::make_shared<Delegate>([&] {
      EXPECT_TRUE(isIn);
      ++frames;
    });
    list->add(delegate);
    EXPECT_EQ(list->size(), 1U);
    list->remove(delegate.get());
    isIn = false;
  }
}

}  // namespace
}  // namespace vesk
