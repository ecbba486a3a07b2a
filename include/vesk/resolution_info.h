#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include <vesk/export.h>
#include <vesk/xml_reader.h>

namespace vesk {

/// The resolutions that one camera model supports, from a catalogue that the host brings:
///
///     <Resolutions>
///       <Camera PID="1A2B">
///         <Resolution>
///           <FrameRate FMT="H264">30</FrameRate>
///           <SelectedWidth>640</SelectedWidth> <SelectedHeight>480</SelectedHeight>
///           <Interpolated>0</Interpolated>
///         </Resolution> …
///       </Camera> …
///     </Resolutions>
///
/// PID is the product identifier in hexadecimal digits, FMT the codec's name. Entries are handed out
/// with all that they hold in the file.
///
/// Threads: one object is used by one thread at a time.
class VESK_EXPORT SMResolutionInfo {
 public:
  using Entry = std::shared_ptr<const XMLDictionary>;

  /// Reads the catalogue and keeps the list of the first camera of the product; none when the file
  /// cannot be read, is no catalogue, or does not have the product.
  /// @param url a plain path. With a scheme, "file:" included, it names no file.
  static std::shared_ptr<SMResolutionInfo> initWithFilepath(std::string url, uint32_t productID);

  /// Reads the catalogue again for another product, which becomes the object's. @return its list,
  /// held from now on; null when there is none: the list held before stays.
  std::shared_ptr<const XMLList> parsePlist(uint32_t productID);
  /// parsePlist, then the first entry of that size and interpolation; null when there is none.
  /// @param interpolation 0 or 1; anything else fits none.
  Entry findResolution(uint32_t productID, uint32_t width, uint32_t height, uint8_t interpolation);

  // These look at the list that is held, and not at the file.

  /// Whether there is an entry of the size and interpolation for the codec; one that names no codec
  /// is for every codec.
  bool isResolutionPresent(std::string_view codec, uint32_t width, uint32_t height, uint8_t isInterpolated) const;
  /// Whether an entry names the codec.
  bool isCodecSupported(std::string_view codec) const;
  /// @return 0 with the number of entries in `count`; -1 without a list, `count` as it was.
  int16_t getResolutionCount(uint32_t* count) const;
  /// The entry at an index from 0; null past the end or without a list.
  Entry getResolutionArrayAtIndex(uint32_t index) const;

  uint32_t productID() const { return mPID; }
  /// Changes the number only, not the list.
  void setProductID(uint32_t productID) { mPID = productID; }

 private:
  SMResolutionInfo(std::string path, uint32_t productID) : mPID(productID), mPath(std::move(path)) {}

  uint32_t mPID;
  std::shared_ptr<const XMLList> mResoultionArray;
  const std::string mPath;
};

}  // namespace vesk
