#include "platform/foundation/file_bytes.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <system_error>

#include "platform/foundation/errors.h"

namespace vesk {
namespace {

struct Descriptor {
  int number;
  ~Descriptor() {
    if (number >= 0) close(number);
  }
};

}  // namespace

std::optional<std::vector<uint8_t>> fileBytes(const std::string& path, size_t most, Error* why) {
  const auto fail = [&](Cause cause, const std::string& reason) {
    if (why) *why = {cause, path + " cannot be read: " + reason, fileRemedy(cause), path};
    return std::nullopt;
  };
  const auto failWithErrno = [&] {
    const int error = errno;
    return fail(fileCause(error), std::generic_category().message(error));
  };
  // Without waiting: a FIFO of that name must not hold the caller.
  const Descriptor file{open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)};
  struct stat status = {};
  if (file.number < 0 || fstat(file.number, &status) != 0) return failWithErrno();
  if (!S_ISREG(status.st_mode)) return fail(Cause::kUnreadable, "it is not a plain file");
  if (static_cast<uint64_t>(status.st_size) > most) return fail(Cause::kUnreadable, "it is too large");
  try {
    std::vector<uint8_t> bytes(static_cast<size_t>(status.st_size));
    size_t filled = 0;
    while (filled < bytes.size()) {
      const ssize_t count = read(file.number, bytes.data() + filled, bytes.size() - filled);
      if (count < 0 && errno == EINTR) continue;
      if (count < 0) return failWithErrno();
      if (count == 0) return fail(Cause::kUnreadable, "it became shorter while it was read");
      filled += static_cast<size_t>(count);
    }
    return bytes;
  } catch (const std::bad_alloc&) {
    return fail(Cause::kOther, "memory is short");
  }
}

}  // namespace vesk
