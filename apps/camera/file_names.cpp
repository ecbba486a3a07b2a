#include "apps/camera/file_names.h"

#include <fmt/core.h>
#include <glib.h>

#include <ctime>
#include <filesystem>
#include <system_error>

namespace vesk::camera {
namespace {

std::string userFolder(GUserDirectory directory) {
  const char* const folder = g_get_user_special_dir(directory);
  return folder ? folder : g_get_home_dir();
}

}  // namespace

std::string newFileName(const std::string& folder, const std::string& name, const std::string& ending) {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char date[32];
  std::strftime(date, sizeof date, "%Y-%m-%d %H.%M.%S", &local);
  const std::string base = fmt::format("{}/{} {}", folder, name, date);
  std::string file = base + ending;
  std::error_code ignored;
  for (int number = 2; std::filesystem::exists(file, ignored); ++number)
    file = fmt::format("{} ({}){}", base, number, ending);
  return file;
}

Error makeFolder(const std::string& folder) {
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  if (!error) return {};
  const Cause cause = error == std::errc::permission_denied ? Cause::kNoPermission : Cause::kFolderGone;
  return {cause, fmt::format("the folder {} cannot be made: {}", folder, error.message()), "Choose another folder.",
          folder};
}

std::string defaultFilmFolder() {
  return userFolder(G_USER_DIRECTORY_VIDEOS);
}

std::string defaultPhotoFolder() {
  return userFolder(G_USER_DIRECTORY_PICTURES);
}

}  // namespace vesk::camera
