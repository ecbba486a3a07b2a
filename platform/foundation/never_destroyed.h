#pragma once

namespace vesk {

/// A global that stays until the process is gone: threads of the library and of the host may still log or let go of
/// devices while the program's exit destroys what is global.
template <class T>
union NeverDestroyed {
  constexpr NeverDestroyed() : value() {}
  ~NeverDestroyed() {}  // NOLINT(modernize-use-equals-default): a default one would be deleted
  NeverDestroyed(const NeverDestroyed&) = delete;
  NeverDestroyed& operator=(const NeverDestroyed&) = delete;

  T value;
};

}  // namespace vesk
