#pragma once

#include <string>
#include <vector>

#include "platform/foundation/descriptor.h"

namespace vesk::program {

/// The hidden folder beside the final path in which a movie grows: on the same file system, so that
/// placing the movie is a rename, and a long recording cannot fill a temporary folder in memory. It
/// is locked while the recording runs, so that others know it from what a crash left.
class RecordingFolder {
 public:
  /// Makes the folder. @throws Failure when there is no such place or it cannot be written, and
  /// kBusy when another program is recording to the same final path.
  explicit RecordingFolder(const std::string& finalPath);
  /// Removes the folder if it is empty; a movie that is still in it stays.
  ~RecordingFolder();
  RecordingFolder(const RecordingFolder&) = delete;
  RecordingFolder& operator=(const RecordingFolder&) = delete;

  const std::string& path() const { return mPath; }

 private:
  bool makeOnce(const std::string& finalPath);

  std::string mPath;
  std::string mName;
  Descriptor mParent;  ///< of the folder, whatever it is called by the end
  Descriptor mFolder;  ///< holds the lock
};

/// A folder that a recording of some final path left, or is using.
struct Leftover {
  std::string folder;
  std::string movie;     ///< empty when there is none in it
  bool isInUse = false;  ///< a recording is under way in it, or somebody is finishing it
  Descriptor lock;       ///< while it is held, nobody else begins with it; none when in use

  /// Removes the folder and its lock file, unless a movie is in it.
  void removeFolder() const;
};

/// How long leftovers stay locked once they are found.
enum class LeftoverLock {
  kLook,  ///< others may look at them too
  kTake,  ///< they are the caller's until it lets go of them
};

/// What recordings of `finalPath` left. Links and other people's folders are not looked at.
std::vector<Leftover> findLeftovers(const std::string& finalPath, LeftoverLock lock);

/// @throws Failure (kBusy) when one of the leftovers is in use.
void refuseIfRecorded(const std::string& finalPath, const std::vector<Leftover>& leftovers);

}  // namespace vesk::program
