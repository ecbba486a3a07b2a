#include <vesk/version.h>

namespace vesk {

const char* version() noexcept {
  return VESK_VERSION_STRING;
}

}  // namespace vesk
