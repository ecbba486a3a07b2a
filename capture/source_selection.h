#pragma once

#include <memory>
#include <string>
#include <vector>

#include "capture/capture_host.h"

namespace vesk::capture {

/// The names that `text` joins by "+". A path may hold "+": inside one it only splits before the
/// name of another source ("file:a+b.mov+simulated" is "file:a+b.mov" and "simulated").
std::vector<std::string> splitSourceText(const std::string& text);

/// The source that `text` names, "auto" included; null with the reason in `error`. `note` is a line
/// for a person when "auto" had to fall back, else empty.
std::shared_ptr<CaptureSource> makeSource(const std::string& text, const SourceOptions& options, std::string& note,
                                          SourceError& error);

}  // namespace vesk::capture
