#pragma once

#include <string>

#include <vesk/error.h>

namespace vesk::camera {

/// "FOLDER/NAME 2026-11-26 10.15.30ENDING", of now, local time; with " (2)" and so on where that is there.
std::string newFileName(const std::string& folder, const std::string& name, const std::string& ending);
/// Makes a folder and those above it. @return why not
Error makeFolder(const std::string& folder);
/// Where films and photos go unless a person has chosen: the user's folder for videos or pictures, else home.
std::string defaultFilmFolder();
std::string defaultPhotoFolder();

}  // namespace vesk::camera
