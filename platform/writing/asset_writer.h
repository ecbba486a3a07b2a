#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <vesk/cm_time.h>
#include <vesk/ns_error.h>
#include "platform/writing/asset_writer_input.h"
#include "platform/writing/writing_statistics.h"

namespace vesk {

class FileSystem;

enum class AVAssetWriterStatus : int32_t { Unknown = 0, Writing = 1, Completed = 2, Failed = 3, Cancelled = 4 };

enum class AVFileType { AVFileTypeQuickTimeMovie };

/// Error codes of a writer (NSError::code).
constexpr int64_t AVErrorUnknown = -11800;
constexpr int64_t AVErrorDiskFull = -11807;          ///< no space, over quota, or over the file size limit
constexpr int64_t AVErrorFileFailedToWrite = -3000;  ///< the file or its folder is gone

/// Writes a QuickTime movie that can be read at any moment while it grows and becomes a plain movie
/// when it is finished.
///
/// Threads: status and error from any thread; adding inputs and starting from one thread before
/// the first append; finishWriting on the inputs' queue, or when that queue is idle.
class AVAssetWriter {
 public:
  /// A writer for a new file at `path`. The file is made when writing starts. Null, with the reason
  /// in `error`, when there is no such folder or it cannot be written.
  static std::shared_ptr<AVAssetWriter> initWithURL(const std::string& path, AVFileType fileType, NSError* error);
  /// The same on another file layer, which must outlive the writer.
  static std::shared_ptr<AVAssetWriter> initWithURL(const std::string& path, AVFileType fileType, NSError* error,
                                                    FileSystem& fileSystem);

  bool canAddInput(const AVAssetWriterInput& input) const;
  void addInput(std::shared_ptr<AVAssetWriterInput> input);

  AVAssetWriterStatus status() const;
  /// Makes the file. False when it cannot be made: the status is then Failed.
  bool startWriting();
  /// Samples' times count from `time`.
  void startSessionAtSourceTime(const CMTime& time);
  /// Why the status is Failed; code 0 otherwise.
  NSError error() const;
  /// Ends the movie: everything appended is in it, and it is a plain movie. After a failure what
  /// could be written stays readable. @return whether the status is Completed.
  bool finishWriting();

  /// Bytes in the file so far, or on their way there.
  uint64_t bytesWritten() const;
  /// How they get there. On the thread that appends.
  WritingStatistics writing() const;

  ~AVAssetWriter();

 private:
  AVAssetWriter(std::string path, FileSystem& fileSystem);

  std::shared_ptr<MovieFileWriter> mWriter;
  std::vector<std::shared_ptr<AVAssetWriterInput>> mInputs;
};

}  // namespace vesk
