#pragma once

#include <memory>
#include <string>

#include "capture/encoding/av_handles.h"
#include "capture/files/file_blocks.h"

namespace vesk::capture {

/// A file opened as a container of tracks: only this file, no network and no other file that the
/// footage may name.
class MediaContainer {
 public:
  /// Looks for tracks in `file`, whose name stands in `path`. @return null with one line for a
  /// person in `error`.
  static std::unique_ptr<MediaContainer> open(const std::string& path, std::shared_ptr<FileBlocks> file,
                                              std::string& error);
  ~MediaContainer();
  MediaContainer(const MediaContainer&) = delete;
  MediaContainer& operator=(const MediaContainer&) = delete;

  AVFormatContext* context() const { return mContext; }
  /// The best track of the kind; none is -1. Cover pictures are no track.
  int bestTrack(AVMediaType kind) const;
  /// The footage has no time stamps of its own: frames and packets are counted.
  bool isUntimed() const;
  /// A QuickTime or MPEG-4 movie.
  bool isMovie() const;
  /// From now on only track `index` is read. Large packets then go from the file into their own
  /// memory without a stop in the reader's buffer.
  void readOnly(int index);

 private:
  struct Cursor;
  MediaContainer();

  std::unique_ptr<Cursor> mCursor;
  AVIOContext* mInput = nullptr;
  AVFormatContext* mContext = nullptr;
};

}  // namespace vesk::capture
