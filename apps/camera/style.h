#pragma once

namespace vesk::camera {

/// How the program's own widgets look, beside the desktop's theme, light and dark.
inline constexpr const char* kStyle = R"(
.stage { background: black; }
.record-bar { padding: 8px 12px; }
.record-bar .record { min-width: 56px; min-height: 56px; padding: 0; border-radius: 99px; color: #e01b24;
  border: 3px solid alpha(currentColor, 0.4); -gtk-icon-size: 32px; }
.record-bar .record.recording { color: white; background: #e01b24; -gtk-icon-size: 24px; }
.record-bar .photo { min-width: 44px; min-height: 44px; padding: 0; border-radius: 99px; }
.last-item { padding: 2px; min-width: 48px; min-height: 48px; }
.message { padding: 6px 6px 6px 12px; border-radius: 12px; }
.message.problem > image { color: #f8e45c; }
.progress { padding: 4px 12px; border-radius: 99px; }
.progress.problem { color: #f8e45c; }
.countdown { font-size: 96px; font-weight: bold; color: white; text-shadow: 0 0 12px black; }
.flash { background: white; opacity: 0; transition: opacity 350ms ease-out; }
.flash.on { opacity: 0.9; transition: none; }
levelbar.sound trough { min-height: 4px; padding: 0; }
levelbar.sound block { min-height: 4px; }
levelbar.sound block.low, levelbar.sound block.high { background: @success_color; border-color: @success_color; }
levelbar.sound block.full { background: @error_color; border-color: @error_color; }
)";

}  // namespace vesk::camera
