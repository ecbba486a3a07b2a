#pragma once

#include <string>
#include <vector>

#include <vesk/error.h>

namespace vesk::capture {

/// Who has a node open, this process left out.
struct NodeHolders {
  std::vector<RunningProgram> programs;
  bool areAllSeen = true;  ///< false: there are processes, of other users, that cannot be looked into
};

/// Looks through the open files of all processes.
/// @param proc where the kernel lists processes, usually /proc
NodeHolders holdersOf(const std::string& node, const std::string& proc = "/proc");

/// The holder of a node that is busy, as the subject of a sentence: "another program (NAME, pid 123)",
/// or "another program, which cannot be seen from here," when it is another user's.
std::string holderText(const NodeHolders& holders);

}  // namespace vesk::capture
