#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include <vesk/ns_error.h>

namespace vesk {

struct FileCalls;

/// Files as a whole. Threads: every operation from any thread.
class NSFileManager {
 public:
  static NSFileManager& defaultManager();

  /// Moves the file at `from` to `to`, which must not exist: nothing is ever overwritten. Within a
  /// file system that is a rename. Across file systems a plain file is copied to a hidden name beside
  /// `to`, synced, renamed, and only then removed at `from`. After a failure the original is whole
  /// and nothing is left at or beside `to`; `error` (may be null) holds errno and one line for a person.
  bool moveItemAtPath(const std::string& from, const std::string& to, NSError* error = nullptr);

  /// Bytes that this user may still write on the file system holding `path`; nothing when that
  /// cannot be read.
  std::optional<uint64_t> freeSpaceAtPath(const std::string& path) const;

  /// A manager on other system calls (fault tests), which must outlive it.
  explicit NSFileManager(const FileCalls& calls) : mCalls(calls) {}

 private:
  const FileCalls& mCalls;
};

/// Gives the plain file at `path`, made for its owner alone, the mode that the umask gives to new
/// files. Links are not followed. @return whether it has that mode; some file systems have none.
bool giveOrdinaryMode(const std::string& path);

/// `name` when it has at most `bytes` bytes; else as much of its beginning as leaves room for a hash
/// of the whole: two names stay two, and no character is cut in half. `bytes` is at least 32.
std::string nameWithin(const std::string& name, size_t bytes);

/// The folder for temporary files: the one set by the host, else $TMPDIR, else the platform's.
std::string NSTemporaryDirectory();
/// Sets the folder for temporary files; an empty text restores the default. It must exist.
void setTemporaryDirectory(std::string folder);

/// The name at the end of a path: "c.mov" of "/a/b/c.mov" and of "/a/b/c.mov/"; "/" of the root.
std::string lastPathComponent(const std::string& path);
/// A path's folder: "/a/b" of "/a/b/c.mov", "." of "c.mov", "/" of "/c.mov".
std::string stringByDeletingLastPathComponent(const std::string& path);
/// `path` and `component` with exactly one slash between them.
std::string stringByAppendingPathComponent(const std::string& path, const std::string& component);

}  // namespace vesk
