#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include <vesk/error.h>
#include <vesk/export.h>

namespace vesk {

/// A value of a property list.
class VESK_EXPORT PropertyList {
 public:
  using Array = std::vector<PropertyList>;
  using Dictionary = std::map<std::string, PropertyList>;
  using Data = std::vector<uint8_t>;
  using Date = std::chrono::system_clock::time_point;
  /// Integers are 64 bits wide; larger ones than INT64_MAX come out as the negative number of the
  /// same bits. Strings are valid UTF-8.
  using Value = std::variant<bool, int64_t, double, std::string, Data, Date, Array, Dictionary>;

  explicit PropertyList(Value&& value) : mValue(std::move(value)) {}

  /// The value as a T (one of the types above); null when it is of another type.
  template <class T>
  const T* as() const {
    return std::get_if<T>(&mValue);
  }

  /// The dictionary that the property list at `path` holds: a binary one, or XML in any encoding that
  /// NSXMLParser reads. Nothing when there is no such file, when it is damaged, when its top is not a
  /// dictionary, or when it is beyond what a list of settings needs: 4 MiB, 20000 values, 64 levels.
  /// `why` (may be null) then tells.
  static std::optional<Dictionary> dictionaryWithContentsOfFile(const std::string& path, Error* why = nullptr);
  /// The same from bytes in memory.
  static std::optional<Dictionary> dictionaryWithData(std::span<const uint8_t> bytes, Error* why = nullptr);

 private:
  Value mValue;
};

}  // namespace vesk
