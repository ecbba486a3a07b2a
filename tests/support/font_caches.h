#pragma once

#include <vesk/export.h>

// Included by one file of each test program that paints text. Fontconfig keeps what it knows of the
// fonts until the process ends, which the leak sanitizer takes for a leak. It does not grow with the
// texts that are painted.
extern "C" VESK_EXPORT const char* __lsan_default_suppressions();  // NOLINT(bugprone-reserved-identifier)
const char* __lsan_default_suppressions() {                        // NOLINT(bugprone-reserved-identifier)
  return "leak:libfontconfig\n";
}
