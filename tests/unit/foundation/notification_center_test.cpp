#include <vesk/notification_center.h>

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <optional>
#include <stdexcept>
#include <thread>
#include <vector>

#include <vesk/log.h>
#include "tests/support/meanwhile.h"

namespace vesk {
namespace {

TEST(NotificationCenter, CallsObserversOfTheNameInOrderWithWhatWasPosted) {
  NSNotificationCenter center;
  std::vector<int> order;
  int subject = 0;
  const auto first = center.addObserver("arrived", [&](const NSNotification& notification) {
    order.push_back(1);
    EXPECT_EQ(notification.name, "arrived");
    EXPECT_EQ(notification.object, &subject);
    ASSERT_TRUE(notification.value<int>("count"));
    EXPECT_EQ(*notification.value<int>("count"), 3);
    EXPECT_FALSE(notification.value<std::string>("count"));
    EXPECT_FALSE(notification.value<int>("other"));
  });
  const auto second = center.addObserver("arrived", [&](const NSNotification&) { order.push_back(2); });
  const auto other = center.addObserver("left", [&](const NSNotification&) { order.push_back(9); });
  center.postNotificationName("arrived", &subject, {{"count", 3}});
  EXPECT_EQ(order, (std::vector{1, 2}));
}

TEST(NotificationCenter, HandlersMayRemoveThemselvesAndOthersAddAndPost) {
  NSNotificationCenter center;
  std::vector<char> calls;
  NSNotificationObserver itself, later, added;
  itself = center.addObserver("x", [&](const NSNotification&) {
    calls.push_back('a');
    center.removeObserver(itself);
    center.removeObserver(later);
    added = center.addObserver("x", [&](const NSNotification&) { calls.push_back('c'); });
    center.postNotificationName("y");
  });
  later = center.addObserver("x", [&](const NSNotification&) { calls.push_back('!'); });
  const auto inner = center.addObserver("y", [&](const NSNotification&) { calls.push_back('b'); });

  center.postNotificationName("x");
  EXPECT_EQ(calls, (std::vector{'a', 'b'}));  // one added during a post waits for the next
  center.postNotificationName("x");
  EXPECT_EQ(calls, (std::vector{'a', 'b', 'c'}));
  EXPECT_FALSE(itself);
}

TEST(NotificationCenter, GoesOnAfterAHandlerThatThrows) {
  NSNotificationCenter center;
  int calls = 0;
  setLogSink([](LogLevel, std::string_view) {});
  auto throwing = center.addObserver("x", [](const NSNotification&) { throw std::runtime_error("no"); });
  const auto counting = center.addObserver("x", [&](const NSNotification&) { ++calls; });
  center.postNotificationName("x");
  center.removeObserver(throwing);  // would wait for ever if the call still counted
  setLogSink({});
  EXPECT_EQ(calls, 1);
}

TEST(NotificationCenter, NoCallAfterRemovalWhileTwoThreadsPost) {
  NSNotificationCenter center;
  const test::Meanwhile posters([&] { center.postNotificationName("x"); }, 2);
  for (int round = 0; round < 300; ++round) {
    auto alive = std::make_unique<std::atomic<int>>(0);
    auto observer = center.addObserver("x", [counter = alive.get()](const NSNotification&) { ++*counter; });
    while (round % 10 == 0 && *alive == 0) std::this_thread::yield();
    center.removeObserver(observer);
    alive.reset();  // a late call would use freed memory, which the sanitizers see
  }
}

TEST(NotificationCenter, RemovalWaitsForACallOnAnotherThread) {
  NSNotificationCenter center;
  std::promise<void> entered, go;
  std::atomic<bool> finished{false};
  auto observer = center.addObserver("x", [&](const NSNotification&) {
    entered.set_value();
    go.get_future().wait();
    finished = true;
  });
  std::thread poster([&] { center.postNotificationName("x"); });
  entered.get_future().wait();
  std::thread releaser([&] { go.set_value(); });
  center.removeObserver(observer);
  EXPECT_TRUE(finished);
  poster.join();
  releaser.join();
}

TEST(NotificationCenter, HandlersThatRemoveEachOtherOnTwoThreadsDoNotLock) {
  NSNotificationCenter center;
  NSNotificationObserver a, b;
  std::promise<void> inA, inB;
  a = center.addObserver("a", [&](const NSNotification&) {
    inA.set_value();
    inB.get_future().wait();
    center.removeObserver(b);
  });
  b = center.addObserver("b", [&](const NSNotification&) {
    inB.set_value();
    inA.get_future().wait();
    center.removeObserver(a);
  });
  std::thread other([&] { center.postNotificationName("a"); });
  center.postNotificationName("b");
  other.join();
  EXPECT_FALSE(a);
  EXPECT_FALSE(b);
}

TEST(NotificationCenter, RegistrationMayOutliveItsCenter) {
  std::optional<NSNotificationCenter> center(std::in_place);
  auto observer = center->addObserver("x", [](const NSNotification&) {});
  center.reset();
  observer = {};
  EXPECT_FALSE(observer);
}

}  // namespace
}  // namespace vesk
