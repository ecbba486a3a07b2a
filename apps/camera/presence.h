#pragma once

#include <memory>
#include <utility>

namespace vesk::camera {

/// A member of an object of the main thread. Work that is done elsewhere and comes back there finds out by it whether
/// the object is still there.
template <class Object>
class Presence {
 public:
  explicit Presence(Object* object) : mObject(std::make_shared<Object*>(object)) {}
  Presence(const Presence&) = delete;
  Presence& operator=(const Presence&) = delete;

  /// A function that calls `work` with the object, and nothing once that has gone. It may be kept and let go on any
  /// thread, and is called on the main thread.
  template <class Work>
  auto whileThere(Work work) const {
    return [object = std::weak_ptr<Object*>(mObject), work = std::move(work)](const auto&... values) {
      if (const auto held = object.lock()) work(**held, values...);
    };
  }

 private:
  const std::shared_ptr<Object*> mObject;
};

}  // namespace vesk::camera
