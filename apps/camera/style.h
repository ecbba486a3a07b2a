#pragma once

namespace vesk::camera {

/// How the program's own widgets look, beside the desktop's theme, light and dark.
///
/// The theme draws the frame that a window has where nothing composes windows as three shadows inwards, each of which a
/// software renderer computes for every pixel of the window, and for every frame of the camera: 32 of 38 ms (960 x
/// 640). A border is drawn where it is.
inline constexpr const char* kStyle = R"(
window.solid-csd { box-shadow: none; padding: 0; border: 5px solid @headerbar_bg_color; }
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
