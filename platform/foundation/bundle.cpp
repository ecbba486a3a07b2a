#include <vesk/bundle.h>

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <climits>
#include <utility>

#include "platform/foundation/file_manager.h"
#include "platform/foundation/mutex.h"

namespace vesk {
namespace {

Mutex gMutex;

std::string& hostFolder() VESK_REQUIRES(gMutex) {
  static auto& folder = *new std::string;  // threads may ask while the process ends
  return folder;
}

/// The folder of the running program; empty when the system does not tell.
std::string programFolder() {
  std::array<char, PATH_MAX> path;
  const ssize_t length = readlink("/proc/self/exe", path.data(), path.size());
  if (length <= 0 || static_cast<size_t>(length) == path.size()) return {};
  return stringByDeletingLastPathComponent(std::string(path.data(), static_cast<size_t>(length)));
}

bool isReadableFile(const std::string& path) {
  struct stat status = {};
  return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && access(path.c_str(), R_OK) == 0;
}

}  // namespace

NSBundle& NSBundle::mainBundle() {
  static NSBundle bundle;
  return bundle;
}

void NSBundle::setResourceFolder(std::string folder) {
  MutexLock lock(gMutex);
  hostFolder() = std::move(folder);
}

std::optional<std::string> NSBundle::pathForResource(const std::string& name, const std::string& type) const {
  const std::string file = type.empty() ? name : name + "." + type;
  if (name.empty() || file.find('/') != std::string::npos) return std::nullopt;
  std::string set;
  {
    MutexLock lock(gMutex);
    set = hostFolder();
  }
  const std::string program = programFolder();
  const std::string shared = program.empty() ? "" : stringByDeletingLastPathComponent(program) + "/share/vesk";
  for (const std::string& folder : {set, program, shared}) {
    if (folder.empty()) continue;
    std::string path = stringByAppendingPathComponent(folder, file);
    if (isReadableFile(path)) return path;
  }
  return std::nullopt;
}

}  // namespace vesk
