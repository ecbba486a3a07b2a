#pragma once

#include <functional>
#include <string>
#include <thread>

namespace vesk::capture {

/// Watches the folder of the drivers' sound devices, and calls whenever one comes or goes. Follows
/// the folder itself, which goes with the last device. Where that cannot be watched, the log says so.
class SoundNodeWatch {
 public:
  /// Watches `folder` inside `parent`; calls on a thread of its own until it is destroyed.
  SoundNodeWatch(std::string parent, std::string folder, std::function<void()> handler);
  ~SoundNodeWatch();
  SoundNodeWatch(const SoundNodeWatch&) = delete;
  SoundNodeWatch& operator=(const SoundNodeWatch&) = delete;

 private:
  void run();
  bool readEvents() const;
  void watch(const std::string& folder) const;

  const std::string mParent;
  const std::string mFolder;
  const std::function<void()> mHandler;
  int mWatch = -1;
  int mStop = -1;
  std::thread mThread;
};

}  // namespace vesk::capture
