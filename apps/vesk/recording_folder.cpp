#include "apps/vesk/recording_folder.h"

#include <fmt/core.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "apps/vesk/program.h"
#include "platform/foundation/file_manager.h"

namespace vesk::program {
namespace {

namespace fs = std::filesystem;

constexpr const char* kMark = ".recording-";

/// ".lesson.mov.recording-", to which mkdtemp adds six characters.
std::string folderPrefix(const std::string& finalPath) {
  return "." + fs::path(finalPath).filename().string() + kMark;
}

}  // namespace

RecordingFolder::RecordingFolder(const std::string& finalPath) {
  const std::string folder = stringByDeletingLastPathComponent(finalPath);
  std::string made = (fs::path(folder) / (folderPrefix(finalPath) + "XXXXXX")).string();
  if (!mkdtemp(made.data())) {
    const int error = errno;  // what follows may change it
    throw Failure(kFailed, fmt::format("cannot write in \"{}\": {}.", folder, std::strerror(error)),
                  error == ENOENT   ? "Make the folder first, or choose another place."
                  : error == ENOSPC ? "Make room on that disk, or choose another place."
                                    : "Choose a place that you may write to.");
  }
  mPath = made;
}

RecordingFolder::~RecordingFolder() {
  rmdir(mPath.c_str());
}

std::vector<std::string> findLeftovers(const std::string& finalPath) {
  std::vector<std::string> found;
  const std::string prefix = folderPrefix(finalPath);
  std::error_code error;
  for (fs::directory_iterator entry(stringByDeletingLastPathComponent(finalPath), error), end; !error && entry != end;
       entry.increment(error)) {
    if (entry->path().filename().string().rfind(prefix, 0) != 0) continue;
    const fs::path movie = entry->path() / fs::path(finalPath).filename();
    std::error_code ignored;
    if (fs::is_regular_file(movie, ignored)) found.push_back(movie.string());
  }
  return found;
}

}  // namespace vesk::program
