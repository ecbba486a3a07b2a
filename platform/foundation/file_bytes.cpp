#include "platform/foundation/file_bytes.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <system_error>

namespace vesk {
namespace {

struct Descriptor {
  int number;
  ~Descriptor() {
    if (number >= 0) close(number);
  }
};

std::string lastError() {
  return std::generic_category().message(errno);
}

}  // namespace

std::optional<std::vector<uint8_t>> fileBytes(const std::string& path, size_t most, std::string* why) {
  const auto fail = [why](const std::string& reason) {
    if (why) *why = reason;
    return std::nullopt;
  };
  // Without waiting: a FIFO of that name must not hold the caller.
  const Descriptor file{open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)};
  struct stat status = {};
  if (file.number < 0 || fstat(file.number, &status) != 0) return fail(lastError());
  if (!S_ISREG(status.st_mode)) return fail("it is not a plain file");
  if (static_cast<uint64_t>(status.st_size) > most) return fail("it is too large");
  try {
    std::vector<uint8_t> bytes(static_cast<size_t>(status.st_size));
    size_t filled = 0;
    while (filled < bytes.size()) {
      const ssize_t count = read(file.number, bytes.data() + filled, bytes.size() - filled);
      if (count < 0 && errno == EINTR) continue;
      if (count < 0) return fail(lastError());
      if (count == 0) return fail("it became shorter while it was read");
      filled += static_cast<size_t>(count);
    }
    return bytes;
  } catch (const std::bad_alloc&) {
    return fail("memory is short");
  }
}

}  // namespace vesk
