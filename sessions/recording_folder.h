#pragma once

#include <memory>
#include <string>
#include <vector>

#include <vesk/error.h>
#include "platform/foundation/descriptor.h"

namespace vesk {

/// The hidden folder beside the final path in which a movie grows: on the same file system, so that placing the
/// movie is a rename, and a long recording cannot fill a temporary folder in memory. It is locked while the
/// recording runs, so that others know it from what a crash left.
///
/// Threads: one at a time.
class RecordingFolder {
 public:
  /// Makes the folder. @return null and an error when there is no such place or it cannot be written, kBusy when
  /// another recording goes to the same final path.
  static std::unique_ptr<RecordingFolder> make(const std::string& finalPath, Error& error);
  /// Removes the folder if it is empty; a movie that is still in it stays.
  ~RecordingFolder();
  RecordingFolder(const RecordingFolder&) = delete;
  RecordingFolder& operator=(const RecordingFolder&) = delete;

  const std::string& path() const { return mPath; }

 private:
  enum class Making { kDone, kClearedAway, kFailed };

  RecordingFolder() = default;
  Making makeOnce(const std::string& finalPath, Error& error);

  std::string mPath;
  std::string mName;
  Descriptor mParent;  ///< of the folder, whatever it is called by the end
  Descriptor mFolder;  ///< holds the lock
};

/// A folder that a recording of some final path left, or is using.
struct LockedLeftover {
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
std::vector<LockedLeftover> findLeftovers(const std::string& finalPath, LeftoverLock lock);
/// What any recordings left that were to go into `folder`.
std::vector<LockedLeftover> findLeftoversIn(const std::string& folder, LeftoverLock lock);

/// Whether a recording of any program goes there at this moment.
bool isRecorded(const std::string& finalPath);
/// kBusy when one of the leftovers is in use.
Error refusalIfRecorded(const std::string& finalPath, const std::vector<LockedLeftover>& leftovers);

/// `file`, or NAME-2, NAME-3 and so on where something is there already, is being recorded, or is `taken`. Whether
/// `file` itself is being recorded, the caller knows.
std::string freeName(const std::string& file, const std::string& taken = "");

}  // namespace vesk
