#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <system_error>

namespace vesk::test {

/// A fresh folder for one test, removed with all that is in it.
class TemporaryFolder {
 public:
  /// Below `parent`, or below the platform's folder for temporary files.
  explicit TemporaryFolder(const std::string& parent = ::testing::TempDir()) {
    mPath = (std::filesystem::path(parent) / "vesk-test.XXXXXX").string();
    if (!mkdtemp(mPath.data())) mPath.clear();
  }
  ~TemporaryFolder() {
    std::error_code ignored;
    if (!mPath.empty()) std::filesystem::remove_all(mPath, ignored);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  /// Empty when the folder could not be made.
  const std::string& path() const { return mPath; }
  std::string file(const std::string& name) const { return mPath + "/" + name; }
  /// Makes a file and answers its path.
  std::string write(const std::string& name, const std::string& content) const {
    std::ofstream(file(name), std::ios::binary) << content;
    return file(name);
  }

 private:
  std::string mPath;
};

/// The content of a file; empty when it cannot be read.
inline std::string contentOf(const std::string& path) {
  std::ifstream stream(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

inline std::set<std::string> namesIn(const std::string& folder) {
  std::set<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) names.insert(entry.path().filename().string());
  return names;
}

/// Who may do what with a file.
inline unsigned modeOf(const std::string& path) {
  return static_cast<unsigned>(std::filesystem::status(path).permissions());
}

}  // namespace vesk::test
