#include "capture/linux/nodes/node_holder.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "capture/linux/nodes/node_error.h"

#include "tests/support/temporary_folder.h"

namespace vesk::capture {
namespace {

namespace fs = std::filesystem;

/// Processes as the kernel shows them, in a folder.
class NodeHolderTest : public testing::Test {
 protected:
  NodeHolderTest() {
    fs::create_directory(mFolder.file("other"));
    mFolder.write("other/video0", "");
    fs::create_directories(mFolder.file("proc/sys"));
  }

  void addProcess(int process, const std::string& name, const std::vector<std::string>& opened) {
    const std::string folder = "proc/" + std::to_string(process);
    fs::create_directories(mFolder.file(folder + "/fd"));
    mFolder.write(folder + "/comm", name + "\n");
    int descriptor = 0;
    for (const std::string& file : opened)
      fs::create_symlink(file, mFolder.file(folder + "/fd/" + std::to_string(descriptor++)));
  }

  NodeHolders look(const std::string& node) { return holdersOf(node, mFolder.file("proc")); }

  const test::TemporaryFolder mFolder;
  const std::string mNode = mFolder.write("video0", "");
};

TEST_F(NodeHolderTest, NamesThoseWhoHaveTheNodeOpen) {
  addProcess(11, "shell", {"pipe:[4]", mFolder.file("other/video0")});
  EXPECT_EQ(holderText(look(mNode)), "another program");
  addProcess(12, "viewer", {"/dev/null", "socket:[7]", mNode});
  addProcess(getpid(), "itself", {mNode});
  EXPECT_EQ(holderText(look(mNode)), "another program (viewer, pid 12)");
  // A stable name leads to the same node.
  fs::create_symlink(mNode, mFolder.file("by-path"));
  EXPECT_EQ(look(mFolder.file("by-path")).programs.size(), 1U);
  EXPECT_TRUE(look(mFolder.file("missing")).programs.empty());
  addProcess(13, "recorder", {mNode});
  const std::string text = holderText(look(mNode));
  EXPECT_EQ(text.rfind("one of the programs (", 0), 0U) << text;
  EXPECT_NE(text.find("recorder, pid 13"), std::string::npos) << text;
}

TEST_F(NodeHolderTest, AnErrorHasTheProgramsBesideItsLine) {
  const int file = open(mNode.c_str(), O_RDONLY | O_CLOEXEC);
  const pid_t holder = fork();
  if (holder == 0) pause();
  close(file);
  const Error error = nodeError("the camera does not start", mNode, EBUSY);
  kill(holder, SIGKILL);
  waitpid(holder, nullptr, 0);
  ASSERT_EQ(error.users.size(), 1U) << error.what;
  EXPECT_EQ(error.users.front().process, holder);
  EXPECT_NE(error.what.find(error.users.front().name + ", pid " + std::to_string(holder)), std::string::npos);
}

TEST_F(NodeHolderTest, SaysSoWhenAProcessCannotBeLookedInto) {
  if (geteuid() == 0) GTEST_SKIP() << "root may look into everything";
  addProcess(12, "viewer", {mNode});
  fs::permissions(mFolder.file("proc/12/fd"), fs::perms::none);
  const NodeHolders holders = look(mNode);
  fs::permissions(mFolder.file("proc/12/fd"), fs::perms::owner_all);
  EXPECT_FALSE(holders.areAllSeen);
  EXPECT_EQ(holderText(holders), "another program, which cannot be seen from here,");
}

}  // namespace
}  // namespace vesk::capture
