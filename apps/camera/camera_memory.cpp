#include "apps/camera/camera_memory.h"

#include <fmt/core.h>
#include <glib.h>
#include <glib/gstdio.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <memory>
#include <span>
#include <system_error>
#include <utility>

#include <vesk/atomic_file.h>
#include "apps/camera/text.h"

namespace vesk::camera {
namespace {

namespace fs = std::filesystem;

constexpr const char* kEnding = ".json";
constexpr size_t kLongestName = 200;  // of a file, in bytes, without its ending; file systems take 255

struct GFree {
  void operator()(void* memory) const noexcept { g_free(memory); }
};
using GText = std::unique_ptr<char, GFree>;
struct FreeKeyFile {
  void operator()(GKeyFile* file) const noexcept { g_key_file_free(file); }
};
using KeyFile = std::unique_ptr<GKeyFile, FreeKeyFile>;

/// Any text as the name of a file, which is neither hidden nor leaves its folder.
std::string fileName(const std::string& text) {
  const GText escaped(g_uri_escape_string(text.c_str(), " ", FALSE));
  const std::string name = escaped.get();
  return name.starts_with('.') ? "%2E" + name.substr(1) : name;
}

/// The way back; none for a file that is not ours.
std::optional<std::string> textOf(const std::string& name) {
  const GText text(g_uri_unescape_string(name.c_str(), nullptr));
  if (!text || !g_utf8_validate(text.get(), -1, nullptr)) return std::nullopt;
  return text.get();
}

Error fileError(const char* what, int code) {
  const Cause cause = code == ENOSPC                    ? Cause::kDiskFull
                      : code == EACCES || code == EROFS ? Cause::kNoPermission
                      : code == ENOENT                  ? Cause::kNoFile
                                                        : Cause::kFileError;
  return {cause, fmt::format("{}: {}", what, std::strerror(code)), ""};
}

Error makeFolder(const std::string& path) {
  if (g_mkdir_with_parents(path.c_str(), 0700) == 0) return {};
  return fileError(_("the folder of the settings could not be made"), errno);
}

Error removeFile(const std::string& path, const char* what) {
  if (g_remove(path.c_str()) == 0 || errno == ENOENT) return {};
  return fileError(what, errno);
}

}  // namespace

CameraMemory::CameraMemory(const std::string& folder, const VeskDeviceInfo& camera)
    : mCamera{camera.name().value_or(""), camera.path().value_or(""), camera.vendorID(), camera.productID(), {}} {
  const std::string name =
      fileName(fmt::format("{:04x}-{:04x} {}", mCamera.vendorID, mCamera.productID, mCamera.cameraName));
  mFolder = folder + "/cameras/" + name.substr(0, kLongestName);
}

ControlValues CameraMemory::settings() const {
  const auto settings = loadControlSettings(settingsFile());
  return settings ? settings->values : ControlValues();
}

Error CameraMemory::keepSettings(const ControlValues& values) const {
  if (values.empty()) return removeFile(settingsFile(), _("the settings could not be removed"));
  return save(mFolder, settingsFile(), values);
}

std::vector<std::string> CameraMemory::presets() const {
  std::vector<std::string> names;
  std::error_code error;
  for (fs::directory_iterator entry(presetsFolder(), error), end; !error && entry != end; entry.increment(error)) {
    const fs::path& path = entry->path();
    if (path.extension() != kEnding || path.filename().string().starts_with('.')) continue;
    if (auto name = textOf(path.stem())) names.push_back(std::move(*name));
  }
  std::sort(names.begin(), names.end(), [](const std::string& one, const std::string& other) {
    const int order = g_utf8_collate(one.c_str(), other.c_str());
    return order != 0 ? order < 0 : one < other;
  });
  return names;
}

std::optional<ControlValues> CameraMemory::preset(const std::string& name, Error* why) const {
  auto settings = loadControlSettings(presetFile(name), why);
  return settings ? std::optional(std::move(settings->values)) : std::nullopt;
}

Error CameraMemory::savePreset(const std::string& name, const ControlValues& values) const {
  if (name.empty()) return {Cause::kWrongUse, _("a preset needs a name"), ""};
  if (fileName(name).size() > kLongestName)
    return {Cause::kWrongUse, _("the name of the preset is too long"), _("Choose a shorter one.")};
  return save(presetsFolder(), presetFile(name), values);
}

Error CameraMemory::renamePreset(const std::string& name, const std::string& newName) const {
  if (name == newName) return {};
  Error why;
  if (g_file_test(presetFile(newName).c_str(), G_FILE_TEST_EXISTS))
    return {Cause::kFileExists, filled(_("there is a preset \"{}\" already"), newName), _("Choose another name."),
            newName};
  const auto values = preset(name, &why);
  if (!values) return why;
  if ((why = savePreset(newName, *values))) return why;
  return removePreset(name);
}

Error CameraMemory::removePreset(const std::string& name) const {
  return removeFile(presetFile(name), _("the preset could not be removed"));
}

std::optional<VideoFormatRequest> CameraMemory::format() const {
  const KeyFile file(g_key_file_new());
  if (!g_key_file_load_from_file(file.get(), formatFile().c_str(), G_KEY_FILE_NONE, nullptr)) return std::nullopt;
  // What is missing or is no number is 0.
  const int width = g_key_file_get_integer(file.get(), "format", "width", nullptr);
  const int height = g_key_file_get_integer(file.get(), "format", "height", nullptr);
  const uint64_t codec = g_key_file_get_uint64(file.get(), "format", "codec", nullptr);
  const double rate = g_key_file_get_double(file.get(), "format", "rate", nullptr);
  VideoFormatRequest request;
  if (width > 0 && height > 0) request.size = CMVideoDimensions{width, height};
  if (codec > 0 && codec <= UINT32_MAX) request.codec = static_cast<uint32_t>(codec);
  if (std::isfinite(rate) && rate > 0) request.rate = rate;
  return request.size || request.codec || request.rate ? std::optional(request) : std::nullopt;
}

Error CameraMemory::keepFormat(const std::optional<VideoFormatRequest>& format) const {
  if (!format) return removeFile(formatFile(), _("the format could not be kept"));
  if (Error error = makeFolder(mFolder)) return error;
  const KeyFile file(g_key_file_new());
  if (format->size) {
    g_key_file_set_integer(file.get(), "format", "width", format->size->width);
    g_key_file_set_integer(file.get(), "format", "height", format->size->height);
  }
  if (format->codec) g_key_file_set_uint64(file.get(), "format", "codec", *format->codec);
  if (format->rate) g_key_file_set_double(file.get(), "format", "rate", *format->rate);
  gsize length = 0;
  const GText text(g_key_file_to_data(file.get(), &length, nullptr));
  NSError error;
  if (writeToFileAtomically(formatFile(), {reinterpret_cast<const uint8_t*>(text.get()), length}, &error)) return {};
  return {error.cause, error.description, "", error.path};
}

std::string CameraMemory::presetFile(const std::string& name) const {
  return presetsFolder() + "/" + fileName(name) + kEnding;
}

Error CameraMemory::save(const std::string& folder, const std::string& file, const ControlValues& values) const {
  if (Error error = makeFolder(folder)) return error;
  ControlSettings settings = mCamera;
  settings.values = values;
  return saveControlSettings(file, settings);
}

}  // namespace vesk::camera
