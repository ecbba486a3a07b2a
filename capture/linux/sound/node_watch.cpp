#include "capture/linux/sound/node_watch.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include <vesk/log.h>

namespace vesk::capture {
namespace {

// Attributes change when the rules give a user the right to open a new device.
constexpr uint32_t kChanges = IN_CREATE | IN_DELETE | IN_ATTRIB;

void logThatItCannotBeWatched(const std::string& folder, int error) {
  std::string reason = std::strerror(error);
  if (error == ENOSPC) reason += " (raise fs.inotify.max_user_watches)";
  if (error == EMFILE) reason += " (raise fs.inotify.max_user_instances, or close other programs)";
  NSLog(LogLevel::kWarning,
        "Microphones that come and go will not be noticed: " + folder + " cannot be watched: " + reason + ".");
}

}  // namespace

SoundNodeWatch::SoundNodeWatch(std::string parent, std::string folder, std::function<void()> handler)
    : mParent(std::move(parent)),
      mFolder(std::move(folder)),
      mHandler(std::move(handler)),
      mWatch(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)),
      mStop(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (mWatch < 0 || mStop < 0) {
    logThatItCannotBeWatched(mParent, errno);
    return;
  }
  watch(mParent);
  watch(mParent + "/" + mFolder);
  mThread = std::thread([this] {
    pthread_setname_np(pthread_self(), "vesk-sound-node");
    run();
  });
}

SoundNodeWatch::~SoundNodeWatch() {
  if (mThread.joinable()) {
    const uint64_t one = 1;
    const auto written = write(mStop, &one, sizeof one);
    static_cast<void>(written);  // an eventfd takes the first one always
    mThread.join();
  }
  if (mWatch >= 0) close(mWatch);
  if (mStop >= 0) close(mStop);
}

/// The inner folder may be away at present: it is watched when it comes.
void SoundNodeWatch::watch(const std::string& folder) const {
  if (inotify_add_watch(mWatch, folder.c_str(), kChanges) >= 0) return;
  if (folder == mParent || (errno != ENOENT && errno != ENOTDIR)) logThatItCannotBeWatched(folder, errno);
}

void SoundNodeWatch::run() {
  while (true) {
    std::array<pollfd, 2> descriptors{pollfd{mStop, POLLIN, 0}, pollfd{mWatch, POLLIN, 0}};
    if (poll(descriptors.data(), descriptors.size(), -1) < 0) {
      if (errno == EINTR) continue;
      logThatItCannotBeWatched(mParent, errno);
      return;
    }
    if (descriptors[0].revents != 0) return;
    if ((descriptors[1].revents & POLLIN) == 0) {
      logThatItCannotBeWatched(mParent, EIO);
      return;
    }
    if (readEvents()) mHandler();
  }
}

/// Whether any of what has happened is about sound: the parent folder has much else.
bool SoundNodeWatch::readEvents() const {
  alignas(inotify_event) std::array<char, 4096> bytes;
  bool isSound = false;
  for (ssize_t length = 0; (length = read(mWatch, bytes.data(), bytes.size())) > 0;) {
    for (size_t at = 0; at + sizeof(inotify_event) <= static_cast<size_t>(length);) {
      inotify_event event;
      std::memcpy(&event, bytes.data() + at, sizeof event);
      const char* name = event.len > 0 ? bytes.data() + at + sizeof event : "";
      const bool isFolder = mFolder == name;
      if (isFolder && (event.mask & IN_CREATE) != 0) {
        watch(mParent + "/" + mFolder);
      }
      const bool isOverflow = (event.mask & IN_Q_OVERFLOW) != 0;  // some were dropped: who knows which
      isSound = isSound || isFolder || isOverflow || std::strncmp(name, "pcm", 3) == 0;
      at += sizeof event + event.len;
    }
  }
  return isSound;
}

}  // namespace vesk::capture
