#pragma once

#include <memory>
#include <string>

#include "capture/files/av_handles.h"

namespace vesk::capture {

/// A local file opened as a container of tracks. Reads go straight to the file: no network, no
/// other file that the footage may name.
class MediaContainer {
 public:
  /// Opens the file at `path`. @return null with one line for a person in `error`.
  static std::unique_ptr<MediaContainer> open(const std::string& path, std::string& error);
  ~MediaContainer();
  MediaContainer(const MediaContainer&) = delete;
  MediaContainer& operator=(const MediaContainer&) = delete;

  AVFormatContext* context() const { return mContext; }
  /// The best track of the kind; none is -1. Cover pictures are no track.
  int bestTrack(AVMediaType kind) const;
  /// The footage has no time stamps of its own: pictures and packets are counted.
  bool isUntimed() const;
  /// A QuickTime or MPEG-4 movie.
  bool isMovie() const;
  /// From now on only track `index` is read. Large packets then go from the file into their own
  /// memory without a stop in the reader's buffer.
  void readOnly(int index);

 private:
  struct File;
  MediaContainer();

  std::unique_ptr<File> mFile;
  AVIOContext* mInput = nullptr;
  AVFormatContext* mContext = nullptr;
};

}  // namespace vesk::capture
