#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

#include <vesk/recording_supervisor.h>
#include "apps/vesk/program.h"

namespace vesk::program {

// What the program reports of recordings.

/// Refuses what would fail at the end, before anything is recorded; reports leftovers of a crash.
/// @throws Failure
void checkMovieTarget(const std::string& file, bool force);

/// An error of a recording, with the program's own options and commands added to its remedy.
Failure failureOf(const Error& error, const VeskDeviceInfo* device = nullptr);
/// Why a movie is not whole at its place, with what became of it; `wanted` is its place.
Failure failureOf(const RecordedMovie& movie, const std::string& wanted);
/// A full stop behind what an error says, and its remedy: a line for what the recording outlives.
std::string lineOf(const Error& error);

/// "{"file", "duration", …}" of a movie that is whole.
nlohmann::ordered_json documentOf(const RecordedMovie& movie);
/// The same as a line for a person.
std::string summaryOf(const RecordedMovie& movie);

/// "[####      ]  -31 dB", "silence" at the end where there is none.
std::string levelBar(float level, int cells);
/// "0:12:40 left on disk".
std::string timeLeftOnDisk(double seconds);

/// `name`, or `name`-2, -3, … where a file of that name with `ending` is there already.
std::string freeName(const std::string& name, const std::string& ending);

/// "0:01:05" and "12.3 MB".
std::string humanTime(uint64_t microseconds);
std::string humanSize(uint64_t bytes);

}  // namespace vesk::program
