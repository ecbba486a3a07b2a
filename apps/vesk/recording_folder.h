#pragma once

#include <string>
#include <vector>

namespace vesk::program {

/// The hidden folder beside the final path in which a movie grows: on the same file system, so that
/// placing the movie is a rename, and a long recording cannot fill a temporary folder in memory.
class RecordingFolder {
 public:
  /// Makes the folder. @throws Failure when there is no such place or it cannot be written.
  explicit RecordingFolder(const std::string& finalPath);
  /// Removes the folder if it is empty; a movie that is still in it stays.
  ~RecordingFolder();
  RecordingFolder(const RecordingFolder&) = delete;
  RecordingFolder& operator=(const RecordingFolder&) = delete;

  const std::string& path() const { return mPath; }

 private:
  std::string mPath;
};

/// Movies that recordings of the same final path left in such folders.
std::vector<std::string> findLeftovers(const std::string& finalPath);

}  // namespace vesk::program
