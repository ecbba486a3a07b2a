#include "capture/linux/nodes/node_holder.h"

#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <filesystem>
#include <fstream>
#include <optional>

namespace vesk::capture {
namespace {

namespace fs = std::filesystem;

/// The number that names a process's folder; none for the other folders there.
std::optional<int> processOf(const fs::path& folder) {
  const std::string name = folder.filename().string();
  int process = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), process);
  if (error != std::errc() || end != name.data() + name.size() || process <= 0) return std::nullopt;
  return process;
}

/// A device by its number, whatever its name: processes may see it under another.
bool isSame(const struct stat& one, const struct stat& other) {
  if (S_ISCHR(one.st_mode) && S_ISCHR(other.st_mode)) return one.st_rdev == other.st_rdev;
  return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

enum class Look { kHolds, kHoldsNot, kUnseen };

Look lookInto(const fs::path& process, const std::string& name, const struct stat& node) {
  std::error_code error;
  fs::directory_iterator entry(process / "fd", error);
  if (error) return error == std::errc::permission_denied ? Look::kUnseen : Look::kHoldsNot;  // else it has ended
  for (const fs::directory_iterator end; !error && entry != end; entry.increment(error)) {
    std::error_code gone;
    // By name first: asking for the state of anything that is open might wait, as for a far disk.
    if (fs::read_symlink(entry->path(), gone).filename() != name) continue;
    struct stat open {};
    if (stat(entry->path().c_str(), &open) == 0 && isSame(open, node)) return Look::kHolds;
  }
  return Look::kHoldsNot;
}

}  // namespace

NodeHolders holdersOf(const std::string& node, const std::string& proc) {
  NodeHolders holders;
  std::error_code error;
  const std::string name = fs::canonical(node, error).filename().string();
  struct stat state {};
  if (error || stat(node.c_str(), &state) != 0) return holders;
  fs::directory_iterator entry(proc, error);
  for (const fs::directory_iterator end; !error && entry != end; entry.increment(error)) {
    const auto process = processOf(entry->path());
    if (!process || *process == getpid()) continue;
    const Look look = lookInto(entry->path(), name, state);
    if (look == Look::kUnseen) holders.areAllSeen = false;
    if (look != Look::kHolds) continue;
    RunningProgram holder{*process, ""};
    std::ifstream file(entry->path() / "comm");
    std::getline(file, holder.name);
    holders.programs.push_back(std::move(holder));
  }
  return holders;
}

std::string holderText(const NodeHolders& holders) {
  if (holders.programs.empty())
    return holders.areAllSeen ? "another program" : "another program, which cannot be seen from here,";
  std::string text;
  for (const RunningProgram& holder : holders.programs) {
    if (!text.empty()) text += "; ";
    text += (holder.name.empty() ? "unnamed" : holder.name) + ", pid " + std::to_string(holder.process);
  }
  return (holders.programs.size() == 1 ? "another program (" : "one of the programs (") + text + ")";
}

}  // namespace vesk::capture
