#pragma once

#include <string>

#include <vesk/doctor.h>

namespace vesk::camera {

/// A finding of the library's as a person reads it.
struct FindingWords {
  std::string text;    ///< a sentence
  std::string remedy;  ///< what to do, as sentences; may be empty
};

/// In the person's language; in the library's own words where there are none for its kind.
FindingWords wordsOf(const Finding& finding);

}  // namespace vesk::camera
