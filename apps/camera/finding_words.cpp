#include "apps/camera/finding_words.h"

#include <glib.h>

#include <vesk/four_char_code.h>
#include "apps/camera/text.h"

namespace vesk::camera {
namespace {

using Kind = Finding::Kind;

/// With places for the details: see wordsOf.
struct Words {
  const char* text = nullptr;
  const char* remedy = nullptr;
};

Words wordsFor(Kind kind, const Finding::Details& details) {
  switch (kind) {
    case Kind::kOther:
      break;
    case Kind::kCamera:
      return {N_("“{device}” at {files}: {formats}.")};
    case Kind::kNoCamera:
      return {N_("No camera was found."), N_("Plug one in.")};
    case Kind::kNoDriver:
      return {N_("The USB camera “{device}” is attached, but has no driver."),
              N_("Load it with “sudo modprobe uvcvideo”, and see “dmesg” for why it was not.")};
    case Kind::kNodeMissing:
      return {N_("The kernel has “{device}”, but {files} is not there."),
              N_("In a container, pass it in (as with --device {files}); else see that udev runs.")};
    case Kind::kNoFormat:
      return {N_("“{device}” at {files} offers no format that is understood here."),
              N_("See “v4l2-ctl --list-formats” for what it offers.")};
    case Kind::kNotAnswering:
      return {N_("“{device}” at {files} does not answer when asked for a picture format."),
              N_("Plug it in again; if that does not help, try another port or cable.")};
    case Kind::kInUse:
      if (details.users.empty())
        return {
            N_("“{device}” is busy: another program is using {files}."),
            details.areUsersHidden ? N_("Close that program; it belongs to another user.") : N_("Close that program.")};
      return {N_("“{device}” is busy: another program ({users}) is using {files}."), N_("Close that program.")};
    case Kind::kOpenElsewhere:
      return {N_("Another program ({users}) has {files} open, and is not using it now.")};
    case Kind::kMetadata:
      return {N_("{files} ({device}) carries data about a camera's pictures, not the pictures.")};
    case Kind::kConverter:
      return {N_("{files} ({device}) is a converter, no camera.")};
    case Kind::kOutput:
      return {N_("{files} ({device}) is an output, no camera.")};
    case Kind::kNoPictures:
      return {N_("{files} ({device}) gives no pictures in a way that is understood here.")};
    case Kind::kNotLetIn:
      return {N_("{files} may not be opened here, whatever the user."),
              N_("In a container, pass it in (as with --device {files}).")};
    case Kind::kNotOpened:
      return {N_("{files} could not be opened: {error}."), N_("Plug the device in again, and see “dmesg”.")};
    case Kind::kSystemsOwn:
      return {N_("No permission for {files}, which belongs to the system alone."),
              N_("See that udev runs: its rules give such files to the group “video” or “audio”.")};
    case Kind::kGroupWithoutRight:
      return {N_("No permission for {files}, which belongs to the group “{group}”; its members have no right to it "
                 "either."),
              N_("See who changed its rights.")};
    case Kind::kNotYetInGroup:
      return {N_("No permission for {files}, which belongs to the group “{group}”; you were added to it, but not in "
                 "this session."),
              N_("Log out and in again.")};
    case Kind::kNotInGroup:
      return {N_("No permission for {files}, which belongs to the group “{group}”; you are not in it."),
              N_("Run “sudo usermod -aG {group} {user}”, then log out and in again.")};
    case Kind::kUsbSpeed:
      return {N_("“{device}” is attached at {number} Mbit/s.")};
    case Kind::kUsbSlow:
      return {N_("“{device}” is attached at {number} Mbit/s: too slow for more than small pictures."),
              N_("Use another port or cable, and no old hub.")};
    case Kind::kUsbShared:
      return {N_("{devices} share USB bus {number}: there may be no room for the raw pictures of all."),
              N_("Use Motion JPEG, H.264 or smaller sizes, or ports of different controllers.")};
    case Kind::kMicrophone:
      if (details.others.empty()) return {N_("The microphone “{device}”.")};
      return {N_("The microphone “{device}”, which is built into {others}.")};
    case Kind::kNoMicrophone:
      return {N_("No microphone was found: films have no sound."),
              N_("Plug one in, or see that it is not switched off in the sound settings.")};
    case Kind::kSoundServer:
      return {N_("A sound server answers.")};
    case Kind::kNoSoundServer:
      return {N_("No sound server answers: sound is recorded from the drivers, one program at a time."),
              N_("Start PipeWire or PulseAudio in this session if other programs record too.")};
    case Kind::kSoundFileMissing:
      return {N_("The kernel has a sound card, but {files} is not there."),
              N_("In a container, pass it in (as with --device {files}).")};
    case Kind::kEncoder:
      return {N_("H.264 can be encoded for cameras that do not do it themselves.")};
    case Kind::kNoEncoder:
      return {N_("There is no H.264 encoder: such cameras are recorded as raw pictures, in large films."),
              N_("Install a libavcodec that has libx264.")};
    case Kind::kDisplay:
      return {N_("There is a display for the live picture.")};
    case Kind::kNoDisplay:
      return {N_("There is no display for the live picture."), N_("Run it in a desktop session.")};
    case Kind::kDisk:
      return {N_("{size} are free in {files}.")};
    case Kind::kDiskFull:
      return {N_("{size} are free in {files}."), N_("Make room, or choose a folder on another disk.")};
    case Kind::kFolderNotWritable:
      return {N_("Films cannot be written to {files}."), N_("Choose another folder.")};
  }
  return {};
}

std::string joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) text.append(text.empty() ? "" : ", ").append(word);
  return text;
}

/// “One”, “Other”
std::string quoted(const std::vector<std::string>& names) {
  std::vector<std::string> quotes;
  quotes.reserve(names.size());
  // Translators: the name of a device.
  for (const std::string& name : names) quotes.push_back(filled(_("“{}”"), name));
  return joined(quotes);
}

std::string formatsOf(const Finding::Details& details) {
  std::vector<std::string> words;
  bool hasOwn = false;
  for (const Finding::Format& format : details.formats) {
    hasOwn = hasOwn || format.codec == kCMVideoCodecType_H264;
    words.push_back(filled(format.codec == kCMVideoCodecType_H264         ? _("H.264 of its own up to {} × {}")
                           : format.codec == kCMVideoCodecType_MotionJPEG ? _("Motion JPEG up to {} × {}")
                                                                          : _("raw pictures up to {} × {}"),
                           format.width, format.height));
  }
  if (!hasOwn) words.emplace_back(details.canBeEncoded ? _("H.264 is encoded by this computer") : _("no H.264"));
  return joined(words);
}

}  // namespace

FindingWords wordsOf(const Finding& finding) {
  const Finding::Details& details = finding.details;
  const Words words = wordsFor(finding.kind, details);
  if (!words.text) {
    FindingWords own{finding.text, finding.remedy};
    if (!own.text.empty()) own.text[0] = g_ascii_toupper(own.text[0]);
    return own;
  }
  std::vector<std::string> devices{details.device};
  devices.insert(devices.end(), details.others.begin(), details.others.end());
  const auto fill = [&, isError = finding.kind == Kind::kNotOpened](const char* text) {
    return !text ? std::string()
                 : filled(_(text), fmt::arg("device", details.device), fmt::arg("devices", quoted(devices)),
                          fmt::arg("others", quoted(details.others)), fmt::arg("files", joined(details.files)),
                          fmt::arg("users", namesOf(details.users)), fmt::arg("formats", formatsOf(details)),
                          fmt::arg("group", details.group), fmt::arg("user", details.user),
                          fmt::arg("number", details.number),
                          fmt::arg("size", sizeText(static_cast<uint64_t>(details.number))),
                          fmt::arg("error", isError ? g_strerror(static_cast<int>(details.number)) : ""));
  };
  return {fill(words.text), fill(words.remedy)};
}

}  // namespace vesk::camera
