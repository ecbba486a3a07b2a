#include "apps/camera/text.h"

#include <glib.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <filesystem>

namespace vesk::camera {
namespace {

/// What a person reads who reads another language than the library's. The library's own lines say more, and are in
/// English.
struct CauseText {
  Cause cause;
  const char* text;
};
constexpr std::array kCauseTexts{
    CauseText{Cause::kNoPermission, N_("This user may not use it. Log in at this computer, or ask its administrator.")},
    CauseText{Cause::kBusy, N_("Another program uses it. Close that program.")},
    CauseText{Cause::kNoBandwidth, N_("The USB bus has no room left for the camera. Plug it into another socket.")},
    CauseText{Cause::kNotAnswering, N_("The device does not answer. Unplug it and plug it in again.")},
    CauseText{Cause::kUnplugged, N_("The device was unplugged. Plug it in again.")},
    CauseText{Cause::kNoDevice, N_("The device is not there. Plug it in.")},
    CauseText{Cause::kNoFormat, N_("The device has no format that can be used.")},
    CauseText{Cause::kNoSoundServer, N_("There is no sound server. Log out and in again.")},
    CauseText{Cause::kNoEncoder, N_("The encoder that this needs is missing. Install it.")},
    CauseText{Cause::kDiskFull, N_("The disk is full. Delete what is not needed any more.")},
    CauseText{Cause::kFolderGone, N_("The folder is not there. Choose another one.")},
    CauseText{Cause::kFileError, N_("The disk does not work. Choose another one.")},
    CauseText{Cause::kStalled, N_("The camera has stopped sending. Unplug it and plug it in again.")},
    CauseText{Cause::kSilent, N_("The microphone is silent. See whether it is muted or turned down.")},
    CauseText{Cause::kNotSupported, N_("The device does not have this.")},
    CauseText{Cause::kRefused, N_("The device does not accept this. Choose something else.")},
    CauseText{Cause::kNoFile, N_("The file is not there any more.")},
    CauseText{Cause::kFileExists, N_("A file of that name is there already.")},
    CauseText{Cause::kUnreadable, N_("The file is damaged.")},
};

bool isEnglish() {
  // Translators: the code of this language, such as "de"; "en" keeps the more precise lines in English.
  return std::string_view(C_("language", "en")) == "en";
}

/// The device, file or folder that an error is about. Of a path, the last part.
std::string subjectOf(const Error& error) {
  const std::string& name = error.subject;
  return name.starts_with('/') ? std::filesystem::path(name).filename().string() : name;
}

/// By the cause, with the names put in. What has no words of its own keeps those of the library.
std::string translatedSentences(const Error& error) {
  const auto* const row = std::find_if(kCauseTexts.begin(), kCauseTexts.end(),
                                       [&](const CauseText& text) { return text.cause == error.cause; });
  std::string text = row != kCauseTexts.end() ? _(row->text) : filled(_("This did not work: {}."), error.what);
  if (row == kCauseTexts.end()) return text;
  if (!error.users.empty()) text = filled(_("Another program uses it ({}). Close that program."), namesOf(error.users));
  const std::string subject = subjectOf(error);
  // Translators: a device or file, and what is wrong with it.
  return subject.empty() ? text : filled(_("“{}”: {}"), subject, text);
}

}  // namespace

std::string sentences(const Error& error) {
  if (!error) return "";
  if (!isEnglish()) return translatedSentences(error);
  std::string text = error.what;
  if (!text.empty()) text[0] = g_ascii_toupper(text[0]);
  text += '.';
  if (!error.remedy.empty()) text += ' ' + error.remedy;
  return text;
}

std::string namesOf(const std::vector<RunningProgram>& programs) {
  std::string names;
  for (const RunningProgram& program : programs) {
    if (!names.empty()) names += ", ";
    names += program.name.empty() ? std::to_string(program.process) : program.name;
  }
  return names;
}

std::string timeText(double seconds) {
  const auto whole = static_cast<int64_t>(std::max(0.0, seconds));
  if (whole >= 3600) return fmt::format("{}:{:02}:{:02}", whole / 3600, whole / 60 % 60, whole % 60);
  return fmt::format("{}:{:02}", whole / 60, whole % 60);
}

std::string sizeText(uint64_t bytes) {
  char* const text = g_format_size(bytes);
  std::string size(text);
  g_free(text);
  return size;
}

std::string timeLeftText(double seconds) {
  constexpr double kHour = 3600;
  if (seconds >= 2 * kHour) {
    const auto hours = static_cast<unsigned long>(std::min(seconds / kHour, 9999.0));
    return filled(ngettext("{} hour left", "{} hours left", hours), hours);
  }
  const auto minutes = static_cast<unsigned long>(seconds / 60);
  return filled(ngettext("{} minute left", "{} minutes left", minutes), minutes);
}

}  // namespace vesk::camera
