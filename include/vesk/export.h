#pragma once

/// Marks what libvesk offers to hosts. Everything else is built with hidden visibility.
#if defined(__GNUC__)
#define VESK_EXPORT __attribute__((visibility("default")))
#define VESK_LOCAL __attribute__((visibility("hidden")))
#else
#define VESK_EXPORT
#define VESK_LOCAL
#endif
