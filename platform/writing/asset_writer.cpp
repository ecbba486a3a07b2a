#include "platform/writing/asset_writer.h"

#include <cstring>
#include <utility>

#include "platform/foundation/errors.h"
#include "platform/writing/file_system.h"
#include "platform/writing/movie_file_writer.h"

namespace vesk {

AVAssetWriter::AVAssetWriter(std::string path, FileSystem& fileSystem)
    : mWriter(std::make_shared<MovieFileWriter>(std::move(path), fileSystem)) {}

AVAssetWriter::~AVAssetWriter() = default;

std::shared_ptr<AVAssetWriter> AVAssetWriter::initWithURL(const std::string& path, AVFileType fileType,
                                                          NSError* error) {
  return initWithURL(path, fileType, error, FileSystem::posix());
}

std::shared_ptr<AVAssetWriter> AVAssetWriter::initWithURL(const std::string& path, AVFileType, NSError* error,
                                                          FileSystem& fileSystem) {
  const int problem = path.empty() ? ENOENT : fileSystem.checkFolderOf(path);
  if (problem != 0) {
    char text[128];
    if (error) {
      *error = {problem == ENOENT || problem == ENOTDIR ? AVErrorFileFailedToWrite : AVErrorUnknown,
                "No movie can be written at " + path + ": " + strerror_r(problem, text, sizeof text),
                problem == ENOENT ? Cause::kFolderGone : fileCause(problem), path};
    }
    return nullptr;
  }
  if (error) *error = {};
  return std::shared_ptr<AVAssetWriter>(new AVAssetWriter(path, fileSystem));
}

bool AVAssetWriter::canAddInput(const AVAssetWriterInput& input) const {
  return status() == AVAssetWriterStatus::Unknown && !input.mWriter;
}

void AVAssetWriter::addInput(std::shared_ptr<AVAssetWriterInput> input) {
  if (!input || !canAddInput(*input)) return;
  input->mTrack = mWriter->addTrack(input->mediaType() == AVMediaTypeVideo ? TrackKind::kVideo : TrackKind::kSound);
  input->mWriter = mWriter;
  mInputs.push_back(std::move(input));
}

AVAssetWriterStatus AVAssetWriter::status() const {
  return mWriter->status();
}

bool AVAssetWriter::startWriting() {
  return mWriter->start();
}

void AVAssetWriter::startSessionAtSourceTime(const CMTime& time) {
  mWriter->setSessionStart(time);
}

NSError AVAssetWriter::error() const {
  return mWriter->error();
}

bool AVAssetWriter::finishWriting() {
  for (const auto& input : mInputs) input->markAsFinished();
  return mWriter->finish();
}

uint64_t AVAssetWriter::bytesWritten() const {
  return mWriter->bytesWritten();
}

WritingStatistics AVAssetWriter::writing() const {
  return mWriter->writing();
}

}  // namespace vesk
