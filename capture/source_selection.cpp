#include "capture/source_selection.h"

#include <utility>

#include "capture/files/file_source.h"
#include "capture/interface/library.h"
#include "capture/interface/wide_text.h"
#include "capture/linux/linux_source.h"
#include "capture/simulated/simulated_source.h"
#include "capture/sources/combined_source.h"
#include "platform/foundation/errors.h"

namespace vesk::capture {
namespace {

using CaptureSourcePtr = std::shared_ptr<CaptureSource>;
using Factory = CaptureSourcePtr (*)(const std::string& argument, const SourceOptions& options, Error& error);

CaptureSourcePtr makeSimulated(const std::string&, const SourceOptions& options, Error&) {
  return std::make_shared<SimulatedSource>(options);
}

CaptureSourcePtr makeLinux(const std::string&, const SourceOptions&, Error&) {
  Error why;  // there are no microphones: that is reported when one is asked for
  return std::make_shared<LinuxSource>(std::make_shared<LinuxCameras>(),
                                       std::make_shared<SoundSource>(makeSoundSystem(why)));
}

struct SourceKind {
  std::string_view name;
  bool takesArgument;  ///< written after a colon
  Factory make;        ///< null: not built in
};

constexpr SourceKind kSourceKinds[] = {
    {"simulated", false, makeSimulated},
    {"file", true, makeFileSource},
    {"linux", false, makeLinux},  // the machine's own devices
};

bool begins(std::string_view text, const SourceKind& kind) {
  if (!text.starts_with(kind.name)) return false;
  text.remove_prefix(kind.name.size());
  return kind.takesArgument ? text.starts_with(':') : text.empty() || text.front() == '+';
}

const SourceKind* kindOf(std::string_view text) {
  for (const SourceKind& kind : kSourceKinds) {
    if (begins(text, kind)) return &kind;
  }
  return nullptr;
}

std::string notSetUp(const std::string& text) {
  return "the capture source \"" + text + "\" could not be set up";
}

CaptureSourcePtr makeOne(const std::string& text, const SourceOptions& options, Error& error) {
  const SourceKind* kind = kindOf(text);
  if (!kind) {
    error = {Cause::kWrongUse, "there is no capture source \"" + text + "\"",
             "Name simulated, file:PATH or linux, or several joined by +.", text};
    return nullptr;
  }
  if (!kind->make) {
    error = {Cause::kNotSupported, "the capture source \"" + text + "\" is not built in", "", text};
    return nullptr;
  }
  const std::string argument = kind->takesArgument ? text.substr(kind->name.size() + 1) : "";
  if (kind->takesArgument && argument.empty()) {
    error = {Cause::kWrongUse, "the capture source \"" + text + "\" lacks a path", "Write it behind the colon.", text};
    return nullptr;
  }
  CaptureSourcePtr source = kind->make(argument, options, error);
  if (!source && !error) error = {Cause::kOther, notSetUp(text), "", text};
  return source;
}

}  // namespace

std::vector<std::string> splitSourceText(const std::string& text) {
  std::vector<std::string> names;
  size_t start = 0;
  for (size_t at = text.find('+'); at != std::string::npos; at = text.find('+', at + 1)) {
    const bool isPath = text.compare(start, 5, "file:") == 0;
    if (isPath && !kindOf(std::string_view(text).substr(at + 1))) continue;
    names.push_back(text.substr(start, at - start));
    start = at + 1;
  }
  names.push_back(text.substr(start));
  return names;
}

namespace {

/// The source that `text` names; null with the reason in `error`.
CaptureSourcePtr makeSource(const std::string& text, const SourceOptions& options, Error& error) {
  std::vector<CaptureSourcePtr> sources;
  for (const std::string& name : splitSourceText(text)) {
    CaptureSourcePtr source = makeOne(name, options, error);
    if (!source) return nullptr;
    sources.push_back(std::move(source));
  }
  return sources.size() == 1 ? sources.front() : std::make_shared<CombinedSource>(std::move(sources));
}

}  // namespace

Error selectSource(const std::string& text, const SourceOptions& options) {
  Error error;
  try {
    CaptureSourcePtr source = makeSource(text, options, error);
    if (source) setSource(std::move(source));
  } catch (const std::exception& exception) {
    error = errorOf(notSetUp(text), exception, text);
  } catch (...) {
    error = {Cause::kOther, notSetUp(text), "", text};
  }
  return error;
}

void setSource(std::shared_ptr<CaptureSource> source) {
  Library::shared().setSource(std::move(source));
}

std::shared_ptr<CaptureSource> currentSource() {
  return Library::shared().source();
}

std::string microphoneOf(const std::string& cameraPath) try {
  const auto source = currentSource();
  if (!source) return {};
  return shownPath(source->microphoneOf(sourcePathOf(*source, DeviceKind::kVideo, cameraPath)));
} catch (...) {
  return {};  // it is a preference, no more
}

std::string cameraAtNode(const std::string& node) try {
  const auto source = currentSource();
  return source ? shownPath(source->cameraAtNode(node)) : std::string();
} catch (...) {
  return {};
}

}  // namespace vesk::capture
