#pragma once

#include <unistd.h>

#include <utility>

namespace vesk {

/// A file descriptor with an owner; -1 for none.
class Descriptor {
 public:
  explicit Descriptor(int descriptor = -1) : mDescriptor(descriptor) {}
  ~Descriptor() { reset(); }
  Descriptor(Descriptor&& other) noexcept : mDescriptor(std::exchange(other.mDescriptor, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    if (this != &other) reset(std::exchange(other.mDescriptor, -1));
    return *this;
  }

  explicit operator bool() const { return mDescriptor >= 0; }
  int get() const { return mDescriptor; }
  /// Lets go of it without closing.
  int release() { return std::exchange(mDescriptor, -1); }
  void reset(int descriptor = -1) {
    if (mDescriptor >= 0) close(mDescriptor);
    mDescriptor = descriptor;
  }

 private:
  int mDescriptor;
};

}  // namespace vesk
