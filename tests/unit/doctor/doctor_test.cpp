#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>

#include "doctor/checks.h"
#include "tests/support/fake_v4l2.h"
#include "tests/support/temporary_folder.h"
#include "tests/unit/capture/listed_microphones.h"

namespace vesk::capture {
namespace {

namespace fs = std::filesystem;
using test::ListedMicrophones;
using Kind = Finding::Kind;
using Mark = Finding::Mark;

/// A machine in a folder: sysfs, device files and processes, with a kernel of the test's own.
class DiagnosisTest : public testing::Test {
 protected:
  DiagnosisTest() : mPlaces{mFolder.file("dev"), mFolder.file("sys"), mFolder.file("proc")} {
    for (const char* folder : {"dev/snd", "sys/class/video4linux", "sys/class/sound", "sys/bus/usb/devices", "proc"})
      fs::create_directories(mFolder.file(folder));
  }

  std::string usbFolder(const std::string& port) const { return mFolder.file("sys/devices/usb1/" + port); }
  std::string nodeFile(int number) const { return mPlaces.dev + "/video" + std::to_string(number); }

  void addUsbDevice(const std::string& port, const char* speed) {
    const std::string folder = "sys/devices/usb1/" + port;
    fs::create_directories(mFolder.file(folder + "/interface"));
    mFolder.write(folder + "/idVendor", "1234\n");
    mFolder.write(folder + "/idProduct", "5678\n");
    mFolder.write(folder + "/speed", std::string(speed) + "\n");
    mFolder.write(folder + "/busnum", "1\n");
    mFolder.write(folder + "/product", "Desk Camera\n");
  }

  void addNode(int number, const std::string& port, test::FakeV4L2::Node node, bool hasFile = true) {
    const std::string name = "video" + std::to_string(number);
    const std::string folder = "sys/class/video4linux/" + name;
    fs::create_directories(mFolder.file(folder));
    mFolder.write(folder + "/name", node.card + "\n");
    mFolder.write(folder + "/index", "0\n");
    if (!port.empty()) fs::create_symlink(usbFolder(port) + "/interface", mFolder.file(folder + "/device"));
    if (hasFile) mFolder.write("dev/" + name, "");
    if (hasFile) mCalls.addNode(nodeFile(number), std::move(node));
  }

  static test::FakeV4L2::Node camera(const std::string& card, uint32_t fourcc = V4L2_PIX_FMT_MJPEG) {
    test::FakeV4L2::Node node;
    node.card = card;
    node.bus = card;
    node.formats = {{fourcc, {{640, 480}, {1920, 1080}}}};
    return node;
  }

  std::vector<DiagnosedCamera> lookAtCameras(bool hasEncoder = true) {
    Findings findings;
    auto cameras = checkCameras(mPlaces, mCalls, hasEncoder, findings);
    take(findings);
    return cameras;
  }

  void lookAtSound(const SoundSystems& sound, const std::vector<DiagnosedCamera>& cameras = {}) {
    Findings findings;
    checkSound(mPlaces, sound, cameras, findings);
    take(findings);
  }

  /// Whoever words a finding anew has the names that its line has.
  void take(Findings& findings) {
    mFound = findings.take();
    for (const Finding& each : mFound) {
      EXPECT_NE(each.kind, Kind::kOther) << each.text;
      std::vector<std::string> names = each.details.others;
      names.insert(names.end(), each.details.files.begin(), each.details.files.end());
      names.push_back(each.kind == Kind::kOpenElsewhere ? "" : each.details.device);
      names.push_back(each.details.group);
      if (each.details.number > 0) names.push_back(std::to_string(each.details.number));
      for (const RunningProgram& user : each.details.users) names.push_back(user.name);
      for (const Finding::Format& format : each.details.formats)
        names.push_back(std::to_string(format.width) + "x" + std::to_string(format.height));
      for (const std::string& name : names) EXPECT_NE(each.text.find(name), std::string::npos) << each.text;
      const bool hasName = each.text.find('"') != std::string::npos;
      EXPECT_FALSE(hasName && each.details.device.empty() && each.details.group.empty()) << each.text;
    }
  }

  /// Whether a finding of the mark says this, here or in its remedy.
  bool says(Mark mark, const std::string& words) const {
    return std::any_of(mFound.begin(), mFound.end(), [&](const Finding& each) {
      return each.mark == mark && (each.text + " " + each.remedy).find(words) != std::string::npos;
    });
  }

  std::string all() const {
    std::string text;
    for (const Finding& each : mFound) text += each.text + " | " + each.remedy + "\n";
    return text;
  }

  size_t problems() const {
    EXPECT_TRUE(std::none_of(mFound.begin(), mFound.end(), [](const Finding& each) {
      return each.mark == Mark::kProblem && each.remedy.empty();
    })) << all();
    return static_cast<size_t>(
        std::count_if(mFound.begin(), mFound.end(), [](const Finding& each) { return each.mark == Mark::kProblem; }));
  }

  const test::TemporaryFolder mFolder;
  const DiagnosisPlaces mPlaces;
  test::FakeV4L2 mCalls;
  std::vector<Finding> mFound;
};

TEST_F(DiagnosisTest, TellsWhatCamerasOfferAndWhereH264ComesFrom) {
  addUsbDevice("1-3", "5000");
  addNode(0, "1-3", camera("Desk Camera"));
  auto metadata = camera("Desk Camera: Desk Camera");
  metadata.deviceCaps = V4L2_CAP_META_CAPTURE | V4L2_CAP_STREAMING;
  addNode(1, "1-3", metadata);
  addNode(2, "", camera("Own", V4L2_PIX_FMT_H264));
  const auto cameras = lookAtCameras();
  EXPECT_EQ(problems(), 0U) << all();
  ASSERT_EQ(cameras.size(), 2U);
  EXPECT_TRUE(says(Mark::kOk, "\"Desk Camera\" at " + nodeFile(0) + ": Motion JPEG up to 1920x1080; H.264 is encoded"))
      << all();
  EXPECT_TRUE(says(Mark::kOk, "\"Own\" at " + nodeFile(2) + ": H.264 of its own up to 1920x1080.")) << all();
  EXPECT_TRUE(says(Mark::kNote, nodeFile(1) + " (Desk Camera) carries data")) << all();
  EXPECT_TRUE(says(Mark::kOk, "5000 Mbit/s")) << all();
  lookAtCameras(false);
  EXPECT_TRUE(says(Mark::kOk, "no H.264")) << all();
}

TEST_F(DiagnosisTest, FindsWhatKeepsCamerasFromWorking) {
  lookAtCameras();
  EXPECT_EQ(problems(), 1U);
  EXPECT_TRUE(says(Mark::kProblem, "no camera was found")) << all();

  addNode(0, "", camera("Hidden"), false);
  auto refused = camera("Refused");
  refused.openError = EACCES;
  addNode(1, "", refused);
  auto forbidden = camera("Forbidden");
  forbidden.openError = EPERM;
  addNode(2, "", forbidden);
  addNode(3, "", camera("Odd", v4l2_fourcc('O', 'D', 'D', ' ')));
  lookAtCameras();
  EXPECT_EQ(problems(), 4U) << all();
  EXPECT_TRUE(says(Mark::kProblem, nodeFile(0) + " is not there")) << all();
  EXPECT_TRUE(says(Mark::kProblem, "no permission for " + nodeFile(1))) << all();
  EXPECT_TRUE(says(Mark::kProblem, "--device " + nodeFile(2))) << all();
  EXPECT_TRUE(says(Mark::kProblem, "\"Odd\" at " + nodeFile(3) + " offers no format")) << all();
}

TEST_F(DiagnosisTest, NamesTheGroupThatTheUserLacks) {
  const std::string file = mFolder.write("dev/video0", "");
  constexpr gid_t kNobodysGroup = 54321;
  if (chown(file.c_str(), static_cast<uid_t>(-1), kNobodysGroup) != 0) GTEST_SKIP() << "files cannot be given away";
  Findings findings;
  addRefusal("camera", file, EACCES, findings);
  take(findings);
  EXPECT_TRUE(says(Mark::kProblem, "usermod -aG 54321")) << all();
  EXPECT_EQ(mFound.front().kind, Kind::kNotInGroup);
}

TEST_F(DiagnosisTest, TellsWhoUsesACamera) {
  addNode(0, "", camera("Desk Camera"));
  fs::create_directories(mFolder.file("proc/42/fd"));
  mFolder.write("proc/42/comm", "viewer\n");
  fs::create_symlink(nodeFile(0), mFolder.file("proc/42/fd/3"));
  lookAtCameras();
  EXPECT_EQ(problems(), 0U) << all();
  EXPECT_TRUE(says(Mark::kNote, "another program (viewer, pid 42) has " + nodeFile(0) + " open")) << all();
  mCalls.failNext(nodeFile(0), VIDIOC_REQBUFS, EBUSY);
  lookAtCameras();
  EXPECT_EQ(problems(), 1U) << all();
  EXPECT_TRUE(says(Mark::kProblem, "is busy: another program (viewer, pid 42) is using")) << all();
  EXPECT_EQ(mFound.front().kind, Kind::kInUse);
  EXPECT_EQ(mFound.front().details.users, (std::vector{RunningProgram{42, "viewer"}}));
}

TEST_F(DiagnosisTest, AsksFreeCamerasWhetherTheyAnswer) {
  addNode(0, "", camera("Desk Camera"));
  mCalls.failNext(nodeFile(0), VIDIOC_TRY_FMT, ETIMEDOUT);
  mCalls.failNext(nodeFile(0), VIDIOC_REQBUFS, EBUSY);
  lookAtCameras();
  EXPECT_FALSE(says(Mark::kProblem, "does not answer")) << "it might disturb the one that uses it";
  lookAtCameras();
  EXPECT_EQ(problems(), 1U) << all();
  EXPECT_TRUE(says(Mark::kProblem, "does not answer when asked for a picture format. Plug it in again")) << all();
}

TEST_F(DiagnosisTest, LooksAtTheBusesAndAtCamerasWithoutDriver) {
  addUsbDevice("1-1", "480");
  addUsbDevice("1-2", "480");
  addUsbDevice("1-4", "12");
  addNode(0, "1-1", camera("One"));
  addNode(1, "1-2", camera("Two"));
  lookAtCameras();
  EXPECT_EQ(problems(), 0U) << all();
  EXPECT_TRUE(says(Mark::kNote, "\"One\" and \"Two\" share USB bus 1")) << all();
  addNode(2, "1-4", camera("Slow"));
  mFolder.write("sys/devices/usb1/1-4/interface/bInterfaceClass", "0e\n");
  fs::create_symlink(usbFolder("1-4") + "/interface", mFolder.file("sys/bus/usb/devices/1-4:1.0"));
  lookAtCameras();
  EXPECT_TRUE(says(Mark::kNote, "\"Slow\" is attached at 12 Mbit/s: too slow")) << all();
  EXPECT_EQ(problems(), 1U) << all();
  EXPECT_TRUE(says(Mark::kProblem, "has no driver")) << all();
  mFolder.write("sys/devices/usb1/1-4/interface/driver", "");
  lookAtCameras();
  EXPECT_EQ(problems(), 0U) << all();
}

TEST_F(DiagnosisTest, LooksAtTheSoundServerAndElseAtTheDrivers) {
  Microphone own{{DeviceKind::kAudio, "a", "Camera's"}, "/usb/1-3"};
  Microphone other{{DeviceKind::kAudio, "b", "Headset"}, "/usb/1-4"};
  const auto system = std::make_shared<ListedMicrophones>(std::vector<Microphone>{own, other});
  fs::create_directories(mFolder.file("sys/class/sound/pcmC0D0c"));
  fs::create_directories(mFolder.file("sys/class/sound/pcmC1D0p"));

  lookAtSound({system, nullptr}, {{"Desk Camera", "/usb/1-3"}});
  EXPECT_EQ(problems(), 0U) << all();
  EXPECT_TRUE(says(Mark::kOk, "\"Camera's\", which is built into \"Desk Camera\"")) << all();
  EXPECT_TRUE(says(Mark::kOk, "\"Headset\".")) << all();

  lookAtSound({nullptr, std::make_shared<ListedMicrophones>(std::vector<Microphone>())});
  EXPECT_EQ(problems(), 1U) << all();
  EXPECT_TRUE(says(Mark::kProblem, "pcmC0D0c is not there")) << all();
  EXPECT_TRUE(says(Mark::kNote, "no sound server")) << all();
  EXPECT_TRUE(says(Mark::kNote, "no microphone was found")) << all();

  mFolder.write("dev/snd/pcmC0D0c", "");
  lookAtSound({nullptr, system});
  EXPECT_EQ(problems(), 0U) << all();
}

}  // namespace
}  // namespace vesk::capture
