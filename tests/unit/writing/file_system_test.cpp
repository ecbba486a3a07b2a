#include "platform/writing/file_system.h"

#include <gtest/gtest.h>
#include <linux/magic.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string_view>

#include "tests/support/log_recorder.h"
#include "tests/support/memory_file_system.h"
#include "tests/support/temporary_folder.h"
#include "tests/unit/writing/movie_probe.h"
#include "tests/unit/writing/recording.h"

namespace vesk::test {
namespace {

std::unique_ptr<File> open(const std::string& path, FileMode mode = FileMode::kCreateNew) {
  int error = 0;
  auto file = FileSystem::posix().open(path, mode, error);
  EXPECT_EQ(error, 0);
  return file;
}

TEST(FileSystem, WritesMoreVectorsThanOneCallTakes) {
  TemporaryFolder folder;
  const auto file = open(folder.file("a"));
  std::vector<uint8_t> expected;
  std::vector<std::vector<uint8_t>> pieces;
  pieces.reserve(3000);
  for (int i = 0; i < 3000; ++i) pieces.emplace_back(static_cast<size_t>(i % 7), static_cast<uint8_t>(i));
  std::vector<iovec> vectors;
  for (auto& piece : pieces) {
    vectors.push_back({piece.data(), piece.size()});
    expected.insert(expected.end(), piece.begin(), piece.end());
  }
  ASSERT_EQ(file->writeAll(vectors, 10), 0);
  std::vector<uint8_t> bytes(expected.size() + 100);
  size_t got = 0;
  ASSERT_EQ(file->readAll(bytes, 10, got), 0);
  bytes.resize(got);
  EXPECT_EQ(bytes, expected);
  EXPECT_EQ(file->size(), static_cast<int64_t>(expected.size() + 10));
}

TEST(FileSystem, SaysWhatIsWrong) {
  TemporaryFolder folder;
  FileSystem& files = FileSystem::posix();
  int error = 0;
  EXPECT_FALSE(files.open(folder.file("none"), FileMode::kReadWrite, error));
  EXPECT_EQ(error, ENOENT);
  EXPECT_FALSE(files.open(folder.path(), FileMode::kReadWrite, error));
  EXPECT_EQ(error, EISDIR);
  EXPECT_FALSE(files.open("/dev/null", FileMode::kReadWrite, error));
  EXPECT_EQ(error, EINVAL);
  EXPECT_EQ(files.checkFolderOf(folder.file("a")), 0);
  EXPECT_EQ(files.checkFolderOf(folder.file("b/a")), ENOENT);
  EXPECT_EQ(files.checkFolderOf(folder.path()), EISDIR);
  folder.write("c", "");
  EXPECT_EQ(files.checkFolderOf(folder.file("c/a")), ENOTDIR);
}

TEST(FileSystem, MakesNewFilesForTheirOwnerAloneAndFollowsNoLink) {
  TemporaryFolder folder;
  FileSystem& files = FileSystem::posix();
  const mode_t before = umask(0);
  open(folder.file("new"));
  umask(before);
  EXPECT_EQ(modeOf(folder.file("new")), 0600U);

  folder.write("film", "somebody's");
  std::filesystem::create_symlink(folder.file("film"), folder.file("link"));
  std::filesystem::create_symlink(folder.file("nothing"), folder.file("dangling"));
  std::filesystem::create_directory(folder.file("folder"));
  int error = 0;
  for (const char* taken : {"film", "link", "dangling", "folder"}) {
    EXPECT_FALSE(files.open(folder.file(taken), FileMode::kCreateNew, error)) << taken;
    EXPECT_EQ(error, EEXIST) << taken;
  }
  EXPECT_FALSE(std::filesystem::exists(folder.file("nothing")));
  EXPECT_FALSE(files.open(folder.file("link"), FileMode::kReadWrite, error));
  EXPECT_EQ(error, ELOOP);
  EXPECT_EQ(contentOf(folder.file("film")), "somebody's");
}

TEST(FileSystem, SetsNoMemoryAside) {
  TemporaryFolder folder("/dev/shm");
  struct statfs system;
  if (statfs("/dev/shm", &system) != 0 || system.f_type != TMPFS_MAGIC || folder.path().empty()) GTEST_SKIP();
  EXPECT_EQ(open(folder.file("a"))->preallocate(0, 1 << 20), EOPNOTSUPP);
}

TEST(FileSystem, SyncsAgainWhenInterruptedAndGetsByWhereItCannot) {
  const struct {
    int error;
    int failures;  ///< before a sync succeeds
    int result;
    size_t lines;
  } rows[] = {{EINTR, 3, 0, 0},         {EINVAL, 1000, 0, 1}, {ENOSYS, 1000, 0, 1},
              {EOPNOTSUPP, 1000, 0, 1}, {EIO, 1000, EIO, 0},  {ENOSPC, 1000, ENOSPC, 0}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.error);
    MemoryFileSystem files;
    int error = 0;
    const auto file = files.open("movie.mov", FileMode::kCreateNew, error);
    int left = row.failures;
    files.setFaults([&](auto operation, size_t, uint64_t, size_t) {
      const bool fails = operation == MemoryFileSystem::Operation::kSync && left-- > 0;
      return MemoryFileSystem::Fault{fails ? row.error : 0};
    });
    LogRecorder log;
    EXPECT_EQ(file->makeDurable(), row.result);
    EXPECT_EQ(file->makeDurable(), row.result);
    EXPECT_EQ(log.items().size(), row.lines);
  }
}

TEST(FileSystem, LocksAFileForOneHandle) {
  TemporaryFolder folder;
  auto first = open(folder.file("a"));
  const auto second = open(folder.file("a"), FileMode::kReadWrite);
  EXPECT_EQ(first->lock(), 0);
  EXPECT_EQ(second->lock(), EWOULDBLOCK);
  first.reset();
  EXPECT_EQ(second->lock(), 0);
}

TEST(FileSystem, KnowsWhenTheNameIsGone) {
  TemporaryFolder folder;
  const auto file = open(folder.file("a"));
  EXPECT_TRUE(file->isLinked());
  std::filesystem::rename(folder.file("a"), folder.file("b"));
  EXPECT_TRUE(file->isLinked());
  EXPECT_EQ(FileSystem::posix().remove(folder.file("b")), 0);
  EXPECT_FALSE(file->isLinked());
}

/// Lowers the limit of file sizes for a while.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) {
    getrlimit(RLIMIT_FSIZE, &mBefore);
    const rlimit lowered{bytes, mBefore.rlim_max};
    setrlimit(RLIMIT_FSIZE, &lowered);
  }
  ~FileSizeLimit() { setrlimit(RLIMIT_FSIZE, &mBefore); }

 private:
  rlimit mBefore{};
};

TEST(FileSystem, SurvivesAFileSizeLimit) {
  TemporaryFolder folder;
  const std::string path = folder.file("movie.mov");
  MovieFileWriter writer(path, FileSystem::posix());
  Recording recording(writer, Content::kH264AndPCM);
  ASSERT_TRUE(writer.start());
  {
    FileSizeLimit limit(3'000'000);
    for (size_t pictures = 300; recording.recordUpTo(pictures);) pictures += 30;  // until the thread has met it
    EXPECT_EQ(writer.status(), AVAssetWriterStatus::Failed);
    EXPECT_EQ(writer.error().code, AVErrorDiskFull);
    EXPECT_FALSE(writer.finish());
  }
  const ProbedMovie movie = probeMovie(readFile(path), Probe::kDecode);
  EXPECT_EQ(movie.complaints, "");
  ASSERT_EQ(movie.tracks.size(), 2U);
  EXPECT_GT(movie.tracks[0].decoded, 50);
}

TEST(FileSystem, GivesBackWhatItSetAside) {
  TemporaryFolder folder;
  const std::string path = folder.file("movie.mov");
  MovieFileWriter writer(path, FileSystem::posix());
  Recording recording(writer, Content::kH264AndPCM);
  ASSERT_TRUE(writer.start());
  ASSERT_TRUE(recording.recordUpTo(200));
  ASSERT_TRUE(writer.finish());
  struct stat status;
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_LT(status.st_blocks * 512, status.st_size + (1 << 20));
  EXPECT_EQ(static_cast<uint64_t>(status.st_size), writer.bytesWritten());
}

/// Files whose writes leave out the zeros of one large block: holes take no space on the disk, so a
/// movie can pass 4 GiB in a moment.
class SparseFileSystem final : public FileSystem {
 public:
  explicit SparseFileSystem(std::span<const uint8_t> zeros) : mZeros(zeros) {}

  std::unique_ptr<File> open(const std::string& path, FileMode mode, int& error) override {
    auto file = FileSystem::posix().open(path, mode, error);
    return file ? std::make_unique<SparseFile>(std::move(file), mZeros) : nullptr;
  }
  int remove(const std::string& path) override { return FileSystem::posix().remove(path); }
  int checkFolderOf(const std::string& path) override { return FileSystem::posix().checkFolderOf(path); }
  int syncFolderOf(const std::string&) override { return 0; }

 private:
  class SparseFile final : public File {
   public:
    SparseFile(std::unique_ptr<File> file, std::span<const uint8_t> zeros) : mFile(std::move(file)), mZeros(zeros) {}
    int64_t writeVectors(const iovec* vectors, int, uint64_t offset) override {
      const auto* bytes = static_cast<const uint8_t*>(vectors->iov_base);
      if (bytes >= mZeros.data() && bytes < mZeros.data() + mZeros.size()) {
        return static_cast<int64_t>(vectors->iov_len);
      }
      return mFile->writeVectors(vectors, 1, offset);
    }
    int64_t writeDirect(const iovec*, int, uint64_t) override { return -EINVAL; }
    void dropCached(uint64_t, uint64_t) override {}
    int64_t readBytes(uint8_t* into, size_t count, uint64_t offset) override {
      return mFile->readBytes(into, count, offset);
    }
    int64_t size() override { return mFile->size(); }
    int syncData() override { return 0; }
    int preallocate(uint64_t, uint64_t) override { return EOPNOTSUPP; }
    uint64_t freeSpace() override { return UINT64_MAX; }
    int truncate(uint64_t size) override { return mFile->truncate(size); }
    int lock() override { return mFile->lock(); }
    bool isLinked() override { return true; }
    bool isAt(const std::string& path) override { return mFile->isAt(path); }
    int close() override { return mFile->close(); }

   private:
    std::unique_ptr<File> mFile;
    std::span<const uint8_t> mZeros;
  };

  std::span<const uint8_t> mZeros;
};

TEST(FileSystem, HoldsAMovieBeyondFourGiB) {
  const auto format = packedFormat(640, 480);
  auto image = CVPixelBuffer::create(640, 480, kCMPixelFormat_422YpCbCr8);
  std::fill(image->data().begin(), image->data().end(), uint8_t{0});
  SparseFileSystem files(image->data());
  TemporaryFolder folder;
  for (const bool finished : {true, false}) {
    const std::string path = folder.file(finished ? "finished.mov" : "killed.mov");
    MovieFileWriter writer(path, files, FragmentWriter::Thread::kNone);
    const size_t video = writer.addTrack(TrackKind::kVideo);
    const size_t sound = writer.addTrack(TrackKind::kSound);
    ASSERT_TRUE(writer.start());
    constexpr int kPictures = 7100;  // of 600 KiB
    for (int i = 0; i < kPictures; ++i) {
      ASSERT_TRUE(writer.append(video, CMSampleBuffer::createForImageBuffer(
                                           image, format, {microseconds(30'000), microseconds(i * 30'000), {}})));
      ASSERT_TRUE(
          writer.append(sound, pcmSample(pcmFormat(48000, 1), 1440, i * 30'000, static_cast<uint32_t>(i * 1440))));
    }
    if (finished) {
      ASSERT_TRUE(writer.finish());
    }
    EXPECT_GT(writer.bytesWritten(), uint64_t{1} << 32);
    // The last second or two, all of whose offsets are beyond 32 bits.
    const ProbedMovie movie = probeMovieFile(path, kPictures * 30'000 - 2'000'000);
    EXPECT_EQ(movie.complaints, "");
    ASSERT_EQ(movie.tracks.size(), 2U);
    for (const ProbedTrack& track : movie.tracks) {
      EXPECT_GE(track.endTime, kPictures * 30'000 - (finished ? 0 : 1'000'000)) << track.codec;
      EXPECT_GT(track.firstPosition, int64_t{1} << 32);
    }
    const ProbedTrack& tail = movie.tracks[1];
    const auto first = static_cast<uint16_t>((tail.firstTime * 48 + 500) / 1000);
    ASSERT_GT(tail.content.size(), 48'000U);
    for (size_t i = 0; i < tail.content.size() / 2; ++i) {
      ASSERT_EQ(tail.content[i * 2] | tail.content[i * 2 + 1] << 8, (first + i) & 0xFFFF);
    }
    const auto end = readFileEnd(path, 20'000);
    constexpr std::string_view kWide = "co64";
    EXPECT_EQ(std::search(end.begin(), end.end(), kWide.begin(), kWide.end()) != end.end(), finished);
  }
}

}  // namespace
}  // namespace vesk::test
