#pragma once

#include <string>
#include <vector>

namespace vesk::capture {

/// The names that `text` joins by "+". A path may hold "+": inside one it only splits before the
/// name of another source ("file:a+b.mov+simulated" is "file:a+b.mov" and "simulated").
std::vector<std::string> splitSourceText(const std::string& text);

}  // namespace vesk::capture
