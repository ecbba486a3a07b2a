#pragma once

#include <functional>
#include <string>

#include "apps/camera/message_list.h"

namespace vesk::camera {

/// Looks for films in `folder` that a crash has interrupted, and offers to keep them. Reading and finishing is done
/// on another thread; `messages` may go meanwhile.
void offerInterruptedFilms(const std::string& folder, MessageList& messages);

}  // namespace vesk::camera
