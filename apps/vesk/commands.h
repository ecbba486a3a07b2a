#pragma once

#include <optional>
#include <string>

#include "apps/vesk/program.h"

namespace vesk::program {

struct DevicesOptions {
  bool watch = false;
};

struct FormatsOptions {
  std::string camera;
  std::string microphone;
};

struct RecordOptions {
  std::string file;
  std::string camera;
  std::string microphone;
  std::string format;
  std::string sound;
  std::optional<double> duration;  ///< seconds of movie
  bool noAudio = false;
  bool force = false;
};

struct RecoverOptions {
  std::string file;
};

struct ResolutionsOptions {
  std::string file;
  std::string product;  ///< in hexadecimal digits
  std::string codec;    ///< empty: all
};

// Each command answers its exit status, or throws Failure.
int runDevices(const GlobalOptions& global, const DevicesOptions& options);
int runFormats(const GlobalOptions& global, const FormatsOptions& options);
int runRecord(const GlobalOptions& global, const RecordOptions& options);
int runRecover(const GlobalOptions& global, const RecoverOptions& options);
int runResolutions(const GlobalOptions& global, const ResolutionsOptions& options);

}  // namespace vesk::program
