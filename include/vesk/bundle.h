#pragma once

#include <optional>
#include <string>

#include <vesk/export.h>

namespace vesk {

/// Where a program keeps the files that belong to it. Threads: every operation from any thread.
class VESK_EXPORT NSBundle {
 public:
  /// The running program's bundle.
  static NSBundle& mainBundle();

  /// The path of the resource file `name`.`type` (just `name` when `type` is empty): the first that
  /// can be read in the folder set by the host, the program's own folder, and share/vesk beside that
  /// folder. Nothing when there is none, or when `name` or `type` hold a slash.
  std::optional<std::string> pathForResource(const std::string& name, const std::string& type) const;

  /// Puts a folder before the others; an empty text takes it away again.
  void setResourceFolder(std::string folder);

 private:
  NSBundle() = default;
};

}  // namespace vesk
