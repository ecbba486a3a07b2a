#pragma once

#include <sys/types.h>

#include <cstddef>

namespace vesk {

/// The system calls that move files, so that tests can make each of them fail. Like those they
/// answer -1 and set errno.
struct FileCalls {
  int (*renameNoReplace)(const char* from, const char* to);  ///< renameat2 with RENAME_NOREPLACE
  int (*link)(const char* from, const char* to);
  int (*unlink)(const char* path);
  ssize_t (*write)(int descriptor, const void* bytes, size_t count);
  int (*sync)(int descriptor);  ///< fsync of a file or a folder
};

/// The system's own.
extern const FileCalls kSystemFileCalls;

}  // namespace vesk
