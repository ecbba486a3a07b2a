#include "capture/linux/nodes/v4l2_calls.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>

namespace vesk::capture {
namespace {

template <class Call>
int untilNotInterrupted(Call call) {
  int answer = 0;
  do {
    answer = call();
  } while (answer == -1 && errno == EINTR);
  return answer == -1 ? -errno : answer;
}

class SystemCalls : public V4L2Calls {
 public:
  int open(const std::string& node) override {
    return untilNotInterrupted([&] { return ::open(node.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC); });
  }
  void close(int descriptor) override { ::close(descriptor); }
  int ioctl(int descriptor, unsigned long request, void* argument) override {
    return untilNotInterrupted([&] { return ::ioctl(descriptor, request, argument); });
  }
  uint8_t* map(int descriptor, size_t length, uint32_t offset) override {
    void* const memory = ::mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, offset);
    return memory == MAP_FAILED ? nullptr : static_cast<uint8_t*>(memory);
  }
  void unmap(uint8_t* memory, size_t length) override { ::munmap(memory, length); }
  int poll(std::span<pollfd> descriptors, int timeout) override {
    return untilNotInterrupted([&] { return ::poll(descriptors.data(), descriptors.size(), timeout); });
  }
};

}  // namespace

std::shared_ptr<V4L2Calls> V4L2Calls::system() {
  return std::make_shared<SystemCalls>();
}

}  // namespace vesk::capture
