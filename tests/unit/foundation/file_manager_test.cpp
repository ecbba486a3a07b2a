#include "platform/foundation/file_manager.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <set>
#include <string>
#include <vector>

#include <vesk/atomic_file.h>
#include <vesk/bundle.h>
#include "platform/foundation/file_calls.h"
#include "tests/support/temporary_folder.h"

namespace vesk {
namespace {

using test::contentOf;
using test::namesIn;
using test::TemporaryFolder;

int fail(int error) {
  errno = error;
  return -1;
}

/// Which system call fails in a test, and how. The first rename says EXDEV when the files are to
/// lie on two file systems.
struct Fault {
  bool acrossFileSystems = false;
  int rename = 0;
  int link = 0;
  int unlinkOriginal = 0;
  int write = 0;
  int syncFile = 0;
  int syncFolder = 0;
};
Fault gFault;
std::string gOriginal;

const FileCalls kFaultyCalls = {
    [](const char* from, const char* to) {
      if (gFault.acrossFileSystems && from == gOriginal) return fail(EXDEV);
      return gFault.rename ? fail(gFault.rename) : kSystemFileCalls.renameNoReplace(from, to);
    },
    [](const char* from, const char* to) { return gFault.link ? fail(gFault.link) : kSystemFileCalls.link(from, to); },
    [](const char* path) {
      return gFault.unlinkOriginal && path == gOriginal ? fail(gFault.unlinkOriginal) : kSystemFileCalls.unlink(path);
    },
    [](int descriptor, const void* bytes, size_t count) -> ssize_t {
      if (gFault.write && lseek(descriptor, 0, SEEK_CUR) > 0) return fail(gFault.write);
      return kSystemFileCalls.write(descriptor, bytes, count / 2 + 1);  // short writes are to be expected
    },
    [](int descriptor) {
      struct stat status = {};
      fstat(descriptor, &status);
      const int error = S_ISDIR(status.st_mode) ? gFault.syncFolder : gFault.syncFile;
      return error ? fail(error) : kSystemFileCalls.sync(descriptor);
    },
};

class Moving : public ::testing::Test {
 protected:
  bool move(const Fault& fault) {
    gFault = fault;
    gOriginal = from;
    return NSFileManager(kFaultyCalls).moveItemAtPath(from, to, &error);
  }

  TemporaryFolder source, target;
  const std::string content = std::string(3000000, 'm') + "end";
  const std::string from = source.write("clip.mov", content);
  const std::string to = target.file("clip.mov");
  NSError error;
};

TEST_F(Moving, WorksOnEveryWay) {
  const struct {
    const char* label;
    Fault fault;
  } rows[] = {
      {"rename", {}},
      {"link and unlink", {.rename = EINVAL}},
      {"placeholder", {.rename = EINVAL, .link = EPERM}},
      {"copy", {.acrossFileSystems = true}},
      {"copy, then link and unlink", {.acrossFileSystems = true, .rename = ENOSYS}},
      {"copy to a file system that cannot sync folders", {.acrossFileSystems = true, .syncFolder = EINVAL}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    source.write("clip.mov", content);
    chmod(from.c_str(), 0640);
    EXPECT_TRUE(move(row.fault)) << error.description;
    EXPECT_FALSE(error);
    EXPECT_EQ(contentOf(to), content);
    EXPECT_EQ(test::modeOf(to), 0640U);
    EXPECT_TRUE(namesIn(source.path()).empty());
    EXPECT_EQ(namesIn(target.path()), std::set<std::string>{"clip.mov"});
    std::filesystem::remove(to);
  }
}

TEST_F(Moving, NeverOverwrites) {
  target.write("clip.mov", "older");
  for (const Fault& fault : {Fault{}, Fault{.rename = EINVAL}, Fault{.rename = EINVAL, .link = EPERM},
                             Fault{.acrossFileSystems = true}, Fault{.acrossFileSystems = true, .rename = EINVAL}}) {
    EXPECT_FALSE(move(fault));
    EXPECT_EQ(error.code, EEXIST);
    EXPECT_EQ(contentOf(to), "older");
    EXPECT_EQ(contentOf(from), content);
    EXPECT_EQ(namesIn(target.path()).size(), 1U);
  }
}

TEST_F(Moving, LeavesTheOriginalAloneAndNothingBehindAfterAFailure) {
  const struct {
    const char* label;
    Fault fault;
    int code;
  } rows[] = {
      {"no space", {.acrossFileSystems = true, .write = ENOSPC}, ENOSPC},
      {"file not synced", {.acrossFileSystems = true, .syncFile = EIO}, EIO},
      {"folder not synced", {.acrossFileSystems = true, .syncFolder = EIO}, EIO},
      {"original cannot be removed", {.acrossFileSystems = true, .unlinkOriginal = EROFS}, EROFS},
      {"original cannot be unlinked", {.rename = EINVAL, .unlinkOriginal = EACCES}, EACCES},
      {"rename refused", {.rename = EACCES}, EACCES},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    EXPECT_FALSE(move(row.fault));
    EXPECT_EQ(error.code, row.code);
    EXPECT_EQ(error.description.find('\n'), std::string::npos);
    EXPECT_NE(error.description.find(to), std::string::npos);
    EXPECT_EQ(contentOf(from), content);
    EXPECT_TRUE(namesIn(target.path()).empty());
  }
}

TEST_F(Moving, RefusesWhatIsNotThereOrNoFile) {
  EXPECT_FALSE(NSFileManager::defaultManager().moveItemAtPath(source.file("missing\n.mov"), to, &error));
  EXPECT_EQ(error.code, ENOENT);
  EXPECT_EQ(error.description.find('\n'), std::string::npos);
  EXPECT_FALSE(NSFileManager::defaultManager().moveItemAtPath(from, target.file("no/folder/clip.mov"), &error));
  EXPECT_EQ(contentOf(from), content);

  ASSERT_EQ(symlink(from.c_str(), source.file("link").c_str()), 0);
  gFault = {.acrossFileSystems = true};
  gOriginal = source.file("link");
  EXPECT_FALSE(NSFileManager(kFaultyCalls).moveItemAtPath(gOriginal, to, &error));
  EXPECT_TRUE(namesIn(target.path()).empty());
}

TEST(MovingForReal, CrossesFileSystems) {
  const TemporaryFolder memory("/dev/shm");
  const TemporaryFolder disk;
  if (memory.path().empty()) GTEST_SKIP() << "no second file system to write to";
  struct stat one = {};
  struct stat two = {};
  stat(memory.path().c_str(), &one);
  stat(disk.path().c_str(), &two);
  if (one.st_dev == two.st_dev) GTEST_SKIP() << "both folders lie on one file system";

  const auto from = memory.write("a.mov", "content");
  NSError error;
  EXPECT_TRUE(NSFileManager::defaultManager().moveItemAtPath(from, disk.file("a.mov"), &error)) << error.description;
  EXPECT_EQ(contentOf(disk.file("a.mov")), "content");
  EXPECT_TRUE(namesIn(memory.path()).empty());

  memory.write("a.mov", "newer");
  EXPECT_FALSE(NSFileManager::defaultManager().moveItemAtPath(from, disk.file("a.mov"), &error));
  EXPECT_EQ(contentOf(disk.file("a.mov")), "content");
  EXPECT_EQ(contentOf(from), "newer");
}

TEST(FileManager, TellsFreeSpaceOrNothing) {
  const TemporaryFolder folder;
  EXPECT_GT(NSFileManager::defaultManager().freeSpaceAtPath(folder.path()).value_or(0), 0U);
  EXPECT_FALSE(NSFileManager::defaultManager().freeSpaceAtPath(folder.file("missing")));
}

TEST(Paths, NamesAreShortenedAtACharacterAndStayApart) {
  EXPECT_EQ(nameWithin("lesson.mov", 32), "lesson.mov");
  std::string umlauts;
  for (int i = 0; i < 100; ++i) umlauts += "\u00e4";
  std::set<std::string> names;
  for (const std::string& name : {umlauts, umlauts + "b", "b" + umlauts, umlauts + "c"}) {
    const std::string within = nameWithin(name, 60);
    EXPECT_LE(within.size(), 60U);
    const size_t kept = within.find('~');
    EXPECT_EQ(name.compare(0, kept, within, 0, kept), 0);
    EXPECT_NE(static_cast<unsigned char>(name[kept]) & 0xC0, 0x80) << "half a character";
    names.insert(within);
  }
  EXPECT_EQ(names.size(), 4U);
}

TEST(Modes, AreThoseOfNewFilesUnlessAPersonChoseOthers) {
  const TemporaryFolder folder;
  const auto modeOf = [&](const char* name) { return test::modeOf(folder.file(name)); };
  const mode_t before = umask(026);
  const std::string secret = folder.write("film", "");
  chmod(secret.c_str(), 0600);
  ASSERT_EQ(symlink(secret.c_str(), folder.file("link").c_str()), 0);
  EXPECT_FALSE(giveOrdinaryMode(folder.file("link")));
  EXPECT_FALSE(giveOrdinaryMode(folder.path()));
  EXPECT_EQ(modeOf("film"), 0600U);
  EXPECT_TRUE(giveOrdinaryMode(secret));
  EXPECT_EQ(modeOf("film"), 0640U);

  const std::vector<uint8_t> bytes{1, 2, 3};
  EXPECT_TRUE(writeToFileAtomically(folder.file("settings"), bytes));
  EXPECT_EQ(modeOf("settings"), 0640U);
  chmod(folder.file("settings").c_str(), 0600);
  EXPECT_TRUE(writeToFileAtomically(folder.file("settings"), bytes));
  EXPECT_EQ(modeOf("settings"), 0600U) << "a file that is replaced keeps its mode";
  EXPECT_TRUE(writeToFileAtomically(folder.file("link"), bytes));
  EXPECT_EQ(contentOf(secret), "") << "the link is replaced, not followed";
  umask(before);
}

TEST(Paths, SplitAndJoin) {
  struct Row {
    const char* path;
    const char* folder;
    const char* last;
  };
  for (const auto& [path, folder, last] :
       {Row{"/a/b/c.mov", "/a/b", "c.mov"}, Row{"/a//b/", "/a", "b"}, Row{"c.mov", ".", "c.mov"}, Row{"/c", "/", "c"},
        Row{"//", "/", "/"}, Row{"", ".", ""}}) {
    EXPECT_EQ(stringByDeletingLastPathComponent(path), folder) << path;
    EXPECT_EQ(lastPathComponent(path), last) << path;
  }
  EXPECT_EQ(stringByAppendingPathComponent("/a/", "/b"), "/a/b");
  EXPECT_EQ(stringByAppendingPathComponent("/a", "b"), "/a/b");
  EXPECT_EQ(stringByAppendingPathComponent("/", "b"), "/b");
  EXPECT_EQ(stringByAppendingPathComponent("", "b"), "b");
}

TEST(TemporaryDirectory, IsTheHostsThenTheEnvironments) {
  setenv("TMPDIR", "/from/environment", 1);
  EXPECT_EQ(NSTemporaryDirectory(), "/from/environment");
  setTemporaryDirectory("/from/host");
  EXPECT_EQ(NSTemporaryDirectory(), "/from/host");
  setTemporaryDirectory("");
  unsetenv("TMPDIR");
  EXPECT_FALSE(NSTemporaryDirectory().empty());
}

TEST(Bundle, LooksInTheHostsFolderAndStaysInside) {
  const TemporaryFolder folder;
  folder.write("Names.plist", "x");
  folder.write("plain", "x");
  auto& bundle = NSBundle::mainBundle();
  EXPECT_FALSE(bundle.pathForResource("Names", "plist"));
  bundle.setResourceFolder(folder.path());
  EXPECT_EQ(bundle.pathForResource("Names", "plist"), folder.file("Names.plist"));
  EXPECT_EQ(bundle.pathForResource("plain", ""), folder.file("plain"));
  EXPECT_FALSE(bundle.pathForResource("Other", "plist"));
  EXPECT_FALSE(bundle.pathForResource("../" + lastPathComponent(folder.path()) + "/Names", "plist"));
  EXPECT_FALSE(bundle.pathForResource("", "plist"));
  bundle.setResourceFolder("");
  // The program's own folder comes next: the test program itself lies there.
  EXPECT_TRUE(bundle.pathForResource("test_foundation", ""));
}

}  // namespace
}  // namespace vesk
