#include <vesk/doctor.h>

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "capture/encoding/h264_encoder.h"
#include "doctor/checks.h"

namespace vesk::capture {
namespace {

namespace fs = std::filesystem;

constexpr uintmax_t kGigabyte = 1'000'000'000;
constexpr uintmax_t kLittleRoom = kGigabyte / 10;

std::string groupName(gid_t group) {
  const struct group* const entry = getgrgid(group);
  return entry ? entry->gr_name : std::to_string(group);
}

std::string userName() {
  const struct passwd* const entry = getpwuid(geteuid());
  return entry ? entry->pw_name : "$USER";
}

/// Whether this process has the rights of the group.
bool isInGroup(gid_t group) {
  std::vector<gid_t> groups(static_cast<size_t>(std::max(getgroups(0, nullptr), 0)));
  groups.resize(static_cast<size_t>(std::max(getgroups(static_cast<int>(groups.size()), groups.data()), 0)));
  return group == getegid() || std::find(groups.begin(), groups.end(), group) != groups.end();
}

/// Whether the user was put into the group, be it since this session began.
bool isListedInGroup(gid_t group) {
  const std::string user = userName();
  const struct group* const entry = getgrgid(group);
  for (char** member = entry ? entry->gr_mem : nullptr; member && *member; ++member)
    if (user == *member) return true;
  return false;
}

void checkEncoder(bool hasEncoder, Findings& findings) {
  if (hasEncoder)
    findings.ok("encoder", {FindingKind::kEncoder}, "H.264 can be encoded for cameras that do not do it themselves.");
  else
    findings.note("encoder", {FindingKind::kNoEncoder},
                  "there is no H.264 encoder: such cameras are recorded as raw pictures, in large movies.",
                  "Install a libavcodec that has libx264.", Cause::kNoEncoder);
}

void checkDisplay(Findings& findings) {
  const auto isSet = [](const char* name) {
    const char* const value = std::getenv(name);
    return value && *value;
  };
  if (isSet("DISPLAY") || isSet("WAYLAND_DISPLAY"))
    findings.ok("display", {FindingKind::kDisplay}, "there is one for a live preview.");
  else
    findings.note("display", {FindingKind::kNoDisplay},
                  "there is none: a live preview cannot open its window; all else works.",
                  "Run it in a desktop session, or set DISPLAY to one.", Cause::kNoDisplay);
}

void checkDisk(const std::string& folder, Findings& findings) {
  std::error_code error;
  const std::string place = fs::absolute(folder, error).lexically_normal().string();
  const fs::space_info space = fs::space(folder, error);
  if (error || access(folder.c_str(), W_OK | X_OK) != 0)
    return findings.problem("disk", Cause::kFolderGone, {FindingKind::kFolderNotWritable, {.files = {place}}},
                            "movies cannot be written to " + place + ".", "Go to a folder of your own.");
  const std::string room = std::to_string(space.available / kGigabyte) + "." +
                           std::to_string(space.available % kGigabyte / (kGigabyte / 10)) + " GB are free in " + place;
  const Finding::Details details{.files = {place}, .number = static_cast<int64_t>(space.available)};
  if (space.available < kLittleRoom)
    findings.problem("disk", Cause::kDiskFull, {FindingKind::kDiskFull, details}, room + ".",
                     "Make room, or record to another disk.");
  else
    findings.ok("disk", {FindingKind::kDisk, details}, room + ".");
}

}  // namespace

std::string sysfsText(const std::string& file) {
  std::ifstream stream(file);
  std::string line;
  std::getline(stream, line);
  return line;
}

void addRefusal(const char* subject, const std::string& file, int error, Findings& findings) {
  struct stat state {};
  const bool isRight = error == EACCES && stat(file.c_str(), &state) == 0;
  if (error == EPERM)
    return findings.problem(subject, Cause::kNoPermission, {FindingKind::kNotLetIn, {.files = {file}}},
                            file + " may not be opened here, whatever the user.",
                            "In a container, pass it in (as with --device " + file + ").");
  if (!isRight)
    return findings.problem(subject, Cause::kOther, {FindingKind::kNotOpened, {.files = {file}, .number = error}},
                            file + " could not be opened: " + std::strerror(error) + ".",
                            "Plug the device in again, and see \"dmesg\".");
  if (state.st_gid == 0)
    return findings.problem(subject, Cause::kNoPermission, {FindingKind::kSystemsOwn, {.files = {file}}},
                            "no permission for " + file + ", which belongs to the system alone.",
                            "See that udev runs: its rules give such files to the group \"video\" or \"audio\".");
  const std::string group = groupName(state.st_gid);
  const std::string text = "no permission for " + file + ", which belongs to the group \"" + group + "\"";
  const Finding::Details details{.files = {file}, .group = group, .user = userName()};
  if (isInGroup(state.st_gid))
    findings.problem(subject, Cause::kNoPermission, {FindingKind::kGroupWithoutRight, details},
                     text + "; its members have no right to it either.", "See who changed its rights.");
  else if (isListedInGroup(state.st_gid))
    findings.problem(subject, Cause::kNoPermission, {FindingKind::kNotYetInGroup, details},
                     text + "; you were added to it, but not in this session.", "Log out and in again.");
  else
    findings.problem(subject, Cause::kNoPermission, {FindingKind::kNotInGroup, details}, text + "; you are not in it.",
                     "Run \"sudo usermod -aG " + group + " " + details.user + "\", then log out and in again.");
}

}  // namespace vesk::capture

namespace vesk {

using namespace capture;

std::vector<Finding> diagnose(const std::string& movies) {
  const DiagnosisPlaces places;
  Findings findings;
  const bool hasEncoder = H264Encoder::isPresent();
  const std::vector<DiagnosedCamera> cameras = checkCameras(places, *V4L2Calls::system(), hasEncoder, findings);
  Error ignored;
  SoundSystems sound{makePulseSoundSystem(ignored), nullptr};
  if (!sound.server) sound.drivers = makeAlsaSoundSystem({}, ignored);
  checkSound(places, sound, cameras, findings);
  checkEncoder(hasEncoder, findings);
  checkDisplay(findings);
  checkDisk(movies, findings);
  return findings.take();
}

}  // namespace vesk
