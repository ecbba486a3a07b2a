#pragma once

#include <cstdlib>
#include <memory>

namespace vesk {

struct FreeMalloced {
  void operator()(void* memory) const noexcept { std::free(memory); }
};

/// The owner of what malloc has given.
template <class T>
using MallocPtr = std::unique_ptr<T, FreeMalloced>;

}  // namespace vesk
