#pragma once

#include <functional>
#include <thread>
#include <vector>

namespace vesk::test {

/// Does something again and again, on threads of its own, for as long as it lives.
class Meanwhile {
 public:
  explicit Meanwhile(const std::function<void()>& act, int threads = 1) {
    for (int i = 0; i < threads; ++i)
      mThreads.emplace_back([act](const std::stop_token& end) {
        while (!end.stop_requested()) act();
      });
  }

 private:
  std::vector<std::jthread> mThreads;
};

}  // namespace vesk::test
