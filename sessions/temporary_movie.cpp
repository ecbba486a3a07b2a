#include "sessions/temporary_movie.h"

#include <filesystem>
#include <map>
#include <utility>

#include "platform/foundation/file_manager.h"
#include "platform/foundation/mutex.h"

namespace vesk {
namespace {

enum class Use { kWriting, kLeft };

struct Names {
  Mutex mutex;
  std::map<std::string, Use> taken VESK_GUARDED_BY(mutex);
};

Names& names() {
  static auto& shared = *new Names;
  return shared;
}

bool isThere(const std::string& path) {
  std::error_code ignored;
  return std::filesystem::exists(std::filesystem::symlink_status(path, ignored));
}

/// "clip.mov" for 1, "clip 2.mov" for 2.
std::string numbered(const std::filesystem::path& name, int number) {
  if (number == 1) return name.string();
  return name.stem().string() + " " + std::to_string(number) + name.extension().string();
}

}  // namespace

std::optional<TemporaryMovie> TemporaryMovie::reserve(const std::string& finalPath) {
  const std::string name = lastPathComponent(finalPath);
  if (name.empty() || name == "/" || name == "." || name == ".." || finalPath.back() == '/') return std::nullopt;
  const std::string folder = NSTemporaryDirectory();

  Names& all = names();
  const MutexLock lock(all.mutex);
  for (int number = 1;; ++number) {
    std::string path = stringByAppendingPathComponent(folder, numbered(name, number));
    const auto found = all.taken.find(path);
    if (found != all.taken.end() && (found->second == Use::kWriting || isThere(path))) continue;
    all.taken.insert_or_assign(path, Use::kWriting);
    return TemporaryMovie(std::move(path));
  }
}

TemporaryMovie::TemporaryMovie(TemporaryMovie&& other) noexcept
    : mPath(std::move(other.mPath)), mIsReserved(std::exchange(other.mIsReserved, false)) {}

TemporaryMovie::~TemporaryMovie() {
  giveBack();
}

std::string TemporaryMovie::moveTo(const std::string& finalPath) {
  NSError error;
  const bool isMoved = NSFileManager::defaultManager().moveItemAtPath(mPath, finalPath, &error);
  if (isMoved || !isThere(mPath)) {
    giveBack();
  } else {
    Names& all = names();
    const MutexLock lock(all.mutex);
    all.taken.insert_or_assign(mPath, Use::kLeft);
    mIsReserved = false;
  }
  if (isMoved) return {};
  return error.description.empty() ? "the movie could not be moved" : error.description;
}

void TemporaryMovie::remove() {
  std::error_code ignored;
  std::filesystem::remove(mPath, ignored);
  giveBack();
}

void TemporaryMovie::giveBack() {
  if (!std::exchange(mIsReserved, false)) return;
  Names& all = names();
  const MutexLock lock(all.mutex);
  all.taken.erase(mPath);
}

}  // namespace vesk
