#include "platform/media/simple_queue.h"

#include <gtest/gtest.h>

#include <memory>
#include <thread>

namespace vesk {
namespace {

using Element = std::unique_ptr<int>;

TEST(SimpleQueue, RefusesAtItsCapacityAndLeavesTheElement) {
  CMSimpleQueue<Element> queue(2);
  EXPECT_FALSE(queue.dequeue());
  for (int round = 0; round < 5; ++round) {  // around the end of the ring more than once
    EXPECT_TRUE(queue.enqueue(std::make_unique<int>(1)));
    EXPECT_TRUE(queue.enqueue(std::make_unique<int>(2)));
    auto third = std::make_unique<int>(3);
    EXPECT_FALSE(queue.enqueue(std::move(third)));
    ASSERT_TRUE(third);
    EXPECT_EQ(queue.count(), 2U);
    EXPECT_EQ(*queue.dequeue(), 1);
    EXPECT_EQ(*queue.dequeue(), 2);
    EXPECT_EQ(queue.count(), 0U);
  }
}

TEST(SimpleQueue, LetsGoOfAnElementWhenItIsTaken) {
  CMSimpleQueue<std::shared_ptr<int>> queue(4);
  auto element = std::make_shared<int>(1);
  const std::weak_ptr<int> watched = element;
  queue.enqueue(std::move(element));
  queue.dequeue();
  EXPECT_TRUE(watched.expired());
}

TEST(SimpleQueue, CarriesEverythingInOrderBetweenTwoThreads) {
  constexpr int kCount = 20000;
  CMSimpleQueue<Element> queue(7);
  std::thread producer([&] {
    for (int number = 0; number < kCount; ++number) {
      auto element = std::make_unique<int>(number);
      while (!queue.enqueue(std::move(element))) std::this_thread::yield();
    }
  });
  for (int number = 0; number < kCount; ++number) {
    Element element;
    while (!(element = queue.dequeue())) std::this_thread::yield();
    ASSERT_EQ(*element, number);
  }
  producer.join();
  EXPECT_EQ(queue.count(), 0U);
}

}  // namespace
}  // namespace vesk
