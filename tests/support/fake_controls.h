#pragma once

#include <linux/usb/video.h>
#include <linux/uvcvideo.h>
#include <linux/videodev2.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <utility>
#include <vector>

namespace vesk::test {

/// The controls of a video node and of its extension units, answering as the kernel's drivers do: numbers
/// out of range are taken for the nearest, what an automatic mode rules is refused, a list of settings is
/// made as one.
class FakeControls {
 public:
  struct Control {
    uint32_t id;
    int64_t minimum;
    int64_t maximum;
    int64_t initial;
    uint32_t flags = 0;
    uint32_t choices = 0;  ///< of a menu: a bit for each that is there
    uint32_t mode = 0;     ///< the control that must have the value `manual`
    int32_t manual = 0;
    std::optional<int32_t> current = {};
  };
  struct UnitControl {
    std::vector<uint8_t> bytes;
    bool isWritable = true;
    bool hasRange = true;
  };

  std::vector<Control> controls = {};
  std::map<std::pair<uint8_t, uint8_t>, UnitControl> units = {};  ///< by unit and selector

  /// The lists of settings that were made, in order: controls and values.
  std::vector<std::vector<std::pair<uint32_t, int32_t>>> settings = {};

  /// None for what is no matter of controls.
  std::optional<int> answer(unsigned long request, void* argument) {
    switch (request) {
      case VIDIOC_QUERY_EXT_CTRL:
        return query(*static_cast<v4l2_query_ext_ctrl*>(argument));
      case VIDIOC_QUERYMENU: {
        const auto& item = *static_cast<v4l2_querymenu*>(argument);
        const Control* const control = find(item.id);
        return control && item.index < 32 && (control->choices >> item.index & 1) != 0 ? 0 : -EINVAL;
      }
      case VIDIOC_G_EXT_CTRLS:
        return read(*static_cast<v4l2_ext_controls*>(argument));
      case VIDIOC_S_EXT_CTRLS:
        return write(*static_cast<v4l2_ext_controls*>(argument));
      case UVCIOC_CTRL_QUERY:
        return queryUnit(*static_cast<uvc_xu_control_query*>(argument));
      default:
        return std::nullopt;
    }
  }

 private:
  Control* find(uint32_t id) {
    const auto found =
        std::find_if(controls.begin(), controls.end(), [id](const Control& control) { return control.id == id; });
    return found == controls.end() ? nullptr : &*found;
  }
  static int32_t valueOf(const Control& control) {
    return control.current.value_or(static_cast<int32_t>(control.initial));
  }
  bool isRuled(const Control& control) {
    const Control* const mode = control.mode == 0 ? nullptr : find(control.mode);
    return mode && valueOf(*mode) != control.manual;
  }

  int query(v4l2_query_ext_ctrl& answer) {
    const Control* const control = find(answer.id);
    if (!control) return -EINVAL;
    answer.minimum = control->minimum;
    answer.maximum = control->maximum;
    answer.default_value = control->initial;
    answer.flags = control->flags | (isRuled(*control) ? V4L2_CTRL_FLAG_INACTIVE : 0);
    return 0;
  }

  int read(v4l2_ext_controls& list) {
    for (v4l2_ext_control& each : std::span(list.controls, list.count)) {
      const Control* const control = find(each.id);
      if (!control) return -EINVAL;
      if ((control->flags & V4L2_CTRL_FLAG_WRITE_ONLY) != 0) return -EACCES;
      each.value = valueOf(*control);
    }
    return 0;
  }

  int write(v4l2_ext_controls& list) {
    const std::span wanted(list.controls, list.count);
    for (const v4l2_ext_control& each : wanted) {
      const Control* const control = find(each.id);
      if (!control || (control->choices != 0 && (control->choices >> each.value & 1) == 0)) return -EINVAL;
      if (isRuled(*control) || (control->flags & V4L2_CTRL_FLAG_READ_ONLY) != 0) return -EACCES;
      if ((control->flags & V4L2_CTRL_FLAG_GRABBED) != 0) return -EBUSY;
    }
    settings.emplace_back();
    for (const v4l2_ext_control& each : wanted) {
      Control& control = *find(each.id);
      control.current = static_cast<int32_t>(std::clamp<int64_t>(each.value, control.minimum, control.maximum));
      settings.back().emplace_back(each.id, each.value);
    }
    return 0;
  }

  int queryUnit(const uvc_xu_control_query& query) {
    const auto found = units.find({query.unit, query.selector});
    if (found == units.end()) return -ENOENT;
    UnitControl& control = found->second;
    const std::span value(query.data, query.size);
    if (value.size() != (query.query == UVC_GET_LEN ? 2 : control.bytes.size())) return -ENOBUFS;
    switch (query.query) {
      case UVC_GET_LEN:
        value[0] = static_cast<uint8_t>(control.bytes.size());
        value[1] = static_cast<uint8_t>(control.bytes.size() >> 8);
        return 0;
      case UVC_GET_CUR:
      case UVC_GET_DEF:
        std::copy(control.bytes.begin(), control.bytes.end(), value.begin());
        return 0;
      case UVC_GET_MIN:
      case UVC_GET_MAX:
        if (!control.hasRange) return -EBADRQC;
        std::fill(value.begin(), value.end(), query.query == UVC_GET_MIN ? 0 : 0xFF);
        return 0;
      case UVC_SET_CUR:
        if (!control.isWritable) return -EBADRQC;
        control.bytes.assign(value.begin(), value.end());
        return 0;
      default:
        return -EINVAL;
    }
  }
};

}  // namespace vesk::test
