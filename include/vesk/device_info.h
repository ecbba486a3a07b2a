#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <vesk/export.h>

namespace vesk {

/// Device types; every other value counts as a microphone too.
constexpr int32_t kVeskDeviceTypeVideo = 0;
constexpr int32_t kVeskDeviceTypeAudio = 1;

/// The record of one attached camera or microphone. Its path is its identity.
///
/// Threads: name and path from any thread; the numbers are set before the record is shared.
class VESK_EXPORT VeskDeviceInfo {
 public:
  VeskDeviceInfo();
  ~VeskDeviceInfo();
  VeskDeviceInfo(const VeskDeviceInfo&) = delete;
  VeskDeviceInfo& operator=(const VeskDeviceInfo&) = delete;

  /// What the user is shown, UTF-8.
  std::optional<std::string> name() const;
  void setName(std::optional<std::string> name);
  /// The capture interface's path of the device, UTF-8; what has no place there (half a surrogate pair)
  /// is shown as U+FFFD.
  std::optional<std::string> path() const;
  void setPath(std::optional<std::string> path);
  /// The same path unit by unit, as the capture interface told it and takes it; none without a path, or
  /// when the one that was set is not UTF-8.
  std::optional<std::u16string> pathUnits() const;
  void setPathUnits(std::u16string_view units);

  uint16_t productID() const { return mProductID; }
  void setProductID(uint16_t productID) { mProductID = productID; }
  uint16_t vendorID() const { return mVendorID; }
  void setVendorID(uint16_t vendorID) { mVendorID = vendorID; }
  int32_t deviceType() const { return mDeviceType; }
  void setDeviceType(int32_t deviceType) { mDeviceType = deviceType; }
  /// 0 for microphones.
  uint16_t revisionID() const { return mRevisionID; }
  void setRevisionID(uint16_t revisionID) { mRevisionID = revisionID; }

  /// Whether both records are of the same device: their paths are equal. A record without a path
  /// equals none, not even itself.
  bool isEqualToDevice(const VeskDeviceInfo& other) const;

 private:
  struct VESK_LOCAL State;
  const std::unique_ptr<State> mState;
  uint16_t mProductID = 0;
  uint16_t mVendorID = 0;
  int32_t mDeviceType = kVeskDeviceTypeVideo;
  uint16_t mRevisionID = 0;
};

/// Records in the order in which the capture interface lists the devices.
using VeskDeviceList = std::vector<std::shared_ptr<VeskDeviceInfo>>;

/// A list as it is handed out, which lives for as long as it is held. `*` of an answer that nobody holds
/// is a copy, so that a loop over it is safe whatever events do meanwhile:
///
///     for (const auto& camera : *VeskVideoDevice::getVideoDeviceList()) …
class VeskDeviceListPtr : public std::shared_ptr<const VeskDeviceList> {
 public:
  VeskDeviceListPtr() = default;
  VeskDeviceListPtr(std::shared_ptr<const VeskDeviceList> list) noexcept
      : std::shared_ptr<const VeskDeviceList>(std::move(list)) {}

  const VeskDeviceList& operator*() const& { return *get(); }
  VeskDeviceList operator*() const&& { return *get(); }
};

}  // namespace vesk
