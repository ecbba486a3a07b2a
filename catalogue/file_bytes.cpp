#include "catalogue/file_bytes.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace vesk {
namespace {

struct Descriptor {
  int number;
  ~Descriptor() {
    if (number >= 0) close(number);
  }
};

}  // namespace

std::optional<std::vector<uint8_t>> fileBytes(const std::string& path, size_t most) {
  // Without waiting: a FIFO of that name must not hold the caller.
  const Descriptor file{open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)};
  struct stat status = {};
  if (file.number < 0 || fstat(file.number, &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
  if (static_cast<uint64_t>(status.st_size) > most) return std::nullopt;
  std::vector<uint8_t> bytes(static_cast<size_t>(status.st_size));
  size_t filled = 0;
  while (filled < bytes.size()) {
    const ssize_t count = read(file.number, bytes.data() + filled, bytes.size() - filled);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return std::nullopt;
    filled += static_cast<size_t>(count);
  }
  return bytes;
}

}  // namespace vesk
