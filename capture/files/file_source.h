#pragma once

#include <memory>
#include <string>

#include <vesk/capture_host.h>
#include <vesk/capture_source.h>

namespace vesk::capture {

/// The file at `path` as a camera (its best video track) and a microphone (its best sound track),
/// played by the clock or as fast as the receivers take it, once or in a loop.
///
/// A device is in use by one holder at a time; the two play on one scheduler, so that they keep the
/// file's synchrony. @return null with the reason in `error` when the file is no footage.
std::shared_ptr<CaptureSource> makeFileSource(const std::string& path, const SourceOptions& options, Error& error);
/// The same under a transport other than the process's, which must outlive the source and its devices.
std::shared_ptr<CaptureSource> makeFileSource(const std::string& path, const SourceOptions& options, Error& error,
                                              Transport& transport);

}  // namespace vesk::capture
