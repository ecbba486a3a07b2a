#include "capture/files/file_blocks.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/foundation/descriptor.h"
#include "tests/support/temporary_folder.h"

namespace vesk::capture {
namespace {

constexpr size_t kMegabyte = size_t{1} << 20;
constexpr size_t kPage = 4096;

/// Bytes of the file that lie in the page cache.
size_t cachedBytes(const std::string& path) {
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  const size_t size = std::filesystem::file_size(path);
  void* const memory = mmap(nullptr, size, PROT_READ, MAP_SHARED, file.get(), 0);
  std::vector<unsigned char> pages((size + kPage - 1) / kPage);
  EXPECT_EQ(mincore(memory, size, pages.data()), 0);
  munmap(memory, size);
  size_t cached = 0;
  for (const unsigned char page : pages) cached += (page & 1U) * kPage;
  return cached;
}

/// A file on the disk that is in no memory.
std::string makeFile(const test::TemporaryFolder& folder, size_t size) {
  std::string path = folder.write("footage", std::string(size, 'x'));
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(fdatasync(file.get()), 0);
  posix_fadvise(file.get(), 0, 0, POSIX_FADV_DONTNEED);
  return path;
}

/// Reads with two readers, the second a little behind, and tells the most that was in the page cache on the way.
size_t readAll(const std::string& path) {
  Error error;
  const auto file = FileBlocks::open(path, error);
  EXPECT_TRUE(file) << error.what;
  std::vector<uint8_t> bytes(40'000);
  const auto size = static_cast<int64_t>(std::filesystem::file_size(path));
  const auto step = static_cast<int>(bytes.size());
  constexpr int64_t kBehind = 300'000;
  size_t most = 0;
  for (int64_t position = 0; position < size; position += step) {
    EXPECT_EQ(file->read(position, bytes.data(), step), std::min<int64_t>(step, size - position));
    if (position >= kBehind) {
      EXPECT_EQ(file->read(position - kBehind, bytes.data(), 4000), 4000);
    }
    if (position / step % 200 == 0) most = std::max(most, cachedBytes(path));
  }
  return most;
}

TEST(FileBlocks, LeaveNothingOfLongFootageInThePageCache) {
  const test::TemporaryFolder folder;
  const std::string path = makeFile(folder, 100 * kMegabyte + 100);
  if (cachedBytes(path) != 0) GTEST_SKIP() << "a file system in memory";
  EXPECT_LE(readAll(path), 60 * kMegabyte) << "what is ahead and a little behind";
  EXPECT_EQ(cachedBytes(path), 0U);
}

TEST(FileBlocks, LeaveWhatIsSmallOrWasThereBefore) {
  const test::TemporaryFolder folder;
  for (const size_t size : {8 * kMegabyte, 72 * kMegabyte}) {
    const std::string path = makeFile(folder, size);
    if (size > 64 * kMegabyte) {
      EXPECT_EQ(test::contentOf(path).size(), size);  // somebody else reads it
    }
    readAll(path);
    if (cachedBytes(path) == 0) GTEST_SKIP() << "a file system in memory";
    EXPECT_GE(cachedBytes(path), size);
    std::filesystem::remove(path);
  }
}

}  // namespace
}  // namespace vesk::capture
