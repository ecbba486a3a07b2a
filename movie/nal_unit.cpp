#include "movie/nal_unit.h"

#include <cstring>
#include <new>
#include <utility>

namespace vesk {

CNALUnit::CNALUnit(CNALUnit&& other) noexcept
    : mData(std::exchange(other.mData, nullptr)),
      mSize(std::exchange(other.mSize, 0)),
      mOwnsData(std::exchange(other.mOwnsData, false)) {}

CNALUnit& CNALUnit::operator=(CNALUnit&& other) noexcept {
  CNALUnit taken(std::move(other));
  std::swap(mData, taken.mData);
  std::swap(mSize, taken.mSize);
  std::swap(mOwnsData, taken.mOwnsData);
  return *this;
}

CNALUnit::~CNALUnit() {
  if (mOwnsData) delete[] mData;
}

CNALUnit CNALUnit::copy() const {
  if (!mData || mSize == 0) return {};
  auto* const bytes = new (std::nothrow) uint8_t[mSize];
  if (!bytes) return {};
  std::memcpy(bytes, mData, mSize);
  CNALUnit unit(bytes, mSize);
  unit.mOwnsData = true;
  return unit;
}

}  // namespace vesk
