#include "apps/camera/camera_controls_model.h"

#include <algorithm>
#include <mutex>
#include <thread>
#include <utility>

#include <vesk/video_device.h>
#include "apps/camera/camera_memory.h"
#include "apps/camera/control_words.h"
#include "apps/camera/text.h"

namespace vesk::camera {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kMostTries = 5;
/// A head that is asked where it is may answer where it has come so far: steps in a row start from each other.
constexpr std::chrono::seconds kRow{2};
/// How long a lens that zooms until it is stopped does so for a step.
constexpr std::chrono::milliseconds kZoomTime{100};
constexpr int64_t kDegree = 3600;  // arc seconds

struct Axis {
  ControlID position;
  int sign;
};
Axis axisOf(HeadTurn move) {
  switch (move) {
    case HeadTurn::kLeft:
      return {ControlID::kPan, -1};
    case HeadTurn::kRight:
      return {ControlID::kPan, 1};
    case HeadTurn::kUp:
      return {ControlID::kTilt, 1};
    case HeadTurn::kDown:
      return {ControlID::kTilt, -1};
    case HeadTurn::kZoomIn:
      return {ControlID::kZoom, 1};
    case HeadTurn::kZoomOut:
      break;
  }
  return {ControlID::kZoom, -1};
}
constexpr HeadTurn kAllMoves[] = {HeadTurn::kLeft, HeadTurn::kRight,  HeadTurn::kUp,
                                  HeadTurn::kDown, HeadTurn::kZoomIn, HeadTurn::kZoomOut};

/// Small enough to aim with; heads turn by whole degrees, most of them.
int64_t stepOf(const ControlState& state) {
  constexpr int64_t kSteps = 60;
  const int64_t range = *state.maximum - *state.minimum;
  const int64_t step = std::max<int64_t>(range / kSteps, 1);
  if (state.id == ControlID::kZoom || range < 10 * kDegree) return step;
  return (step + kDegree - 1) / kDegree * kDegree;
}

std::string nameOf(ControlID id) {
  return std::string(cameraControl(id).name);
}

}  // namespace

/// What comes back from a camera.
struct CameraControlsModel::Answer {
  bool isOpened = false;  ///< the first answer of a camera that is open now
  int nextTry = 0;        ///< to open it; 0 for none
  bool isLook = false;
  bool isStep = false;
  bool isChange = false;  ///< of what is kept
  std::vector<ControlState> states;
  uint64_t sequence = 0;  ///< of the last change that the states show
  std::set<HeadTurn> moves;
  std::optional<std::vector<std::string>> presets;
  std::vector<OfferedFormat> formats;  ///< of the first answer
  bool isEncodedHere = false;
  std::optional<TakenFormat> format;
  bool isFormatKept = false;  ///< a person has chosen it
  Error error;
  Error keepError;  ///< of what was kept for a camera, which may be another by now
};

/// A camera as the queue works on it, and nobody else.
struct CameraControlsModel::Desk {
  Desk(const std::string& folder, const std::shared_ptr<VeskDeviceInfo>& info)
      : camera(VeskVideoDevice::initWithDeviceInfo(info)), memory(folder, *info) {}

  /// @return whether it is open
  bool open(Answer& answer) {
    if (camera->openDevice() != 0) {
      answer.error = camera->lastError();
      return false;
    }
    kept = memory.settings();
    if (const ControlOutcome outcome = applyControlValues(*camera, kept); !outcome.refused.empty())
      answer.error = {Cause::kRefused, refusalText(outcome), ""};
    auto [all, silent, why] = controlStates(*camera);
    if (!silent.empty()) answer.error = why;
    states = std::move(all);
    findMoves();
    std::erase_if(states, [](const ControlState& state) { return state.control().isMomentary(); });
    answer.states = states;
    answer.moves = moves;
    answer.presets = memory.presets();
    findFormats(answer);
    return true;
  }

  void findFormats(Answer& answer) {
    const auto supported = camera->getSupportedFormats();
    for (const auto& format : *supported) {
      if (!isRecordable(*format)) continue;
      OfferedFormat offered{format->mediaSubType(), format->dimensions(), {}};
      for (const uint32_t interval : camera->getSupportedFrameIntervals(format))
        if (interval != 0) offered.rates.push_back(1e7 / interval);
      answer.formats.push_back(std::move(offered));
    }
    answer.isEncodedHere = vesk::isEncodedHere(*camera);
    takeKeptFormat(answer);
  }

  /// A camera that does not have what is kept for it may have it again at another port.
  void takeKeptFormat(Answer& answer) {
    if (!takeFormat(memory.format().value_or(VideoFormatRequest()), answer)) takeFormat({}, answer);
  }

  /// Finds out what is taken for a request; nothing is asked of the camera.
  bool takeFormat(const VideoFormatRequest& request, Answer& answer) {
    const VideoFormatChoice choice = chooseVideoFormat(*camera, request, CapturePurpose::kRecord);
    answer.format = TakenFormat{request, choice.format, camera->captureInterval().value_or(0)};
    return choice.format != nullptr;
  }

  void setFormat(const VideoFormatRequest& request, Answer& answer) {
    const bool isAutomatic = !request.codec && !request.size && !request.rate;
    answer.keepError = memory.keepFormat(isAutomatic ? std::nullopt : std::optional(request));
    answer.isFormatKept = !answer.keepError;
    takeKeptFormat(answer);
  }

  void findMoves() {
    const bool canNudge = !find(ControlID::kPan) && !find(ControlID::kTilt) && camera->isNudgeSupported();
    for (const HeadTurn move : kAllMoves) {
      const Axis axis = axisOf(move);
      const ControlState* const state = find(axis.position);
      const bool isLens = axis.position == ControlID::kZoom;
      if ((state && state->minimum) || (isLens ? find(ControlID::kRelativeZoom) != nullptr : canNudge))
        moves.insert(move);
    }
  }

  ControlState* find(ControlID id) {
    const auto found =
        std::find_if(states.begin(), states.end(), [id](const ControlState& state) { return state.id == id; });
    return found == states.end() ? nullptr : &*found;
  }

  /// Sets what a person has chosen and keeps it, or what the camera has by itself and forgets it.
  void apply(const ControlValues& values, bool isReset, Answer& answer) {
    const ControlOutcome outcome = applyControlValues(*camera, values);
    if (!outcome.refused.empty()) answer.error = {Cause::kRefused, refusalText(outcome), ""};
    for (ControlState& state : states) {
      const auto mode = state.control().automatic;
      if (values.contains(nameOf(state.id)) || (mode && values.contains(nameOf(*mode))))
        updateControlState(*camera, state);
    }
    for (const std::string& name : outcome.automatic) kept.erase(name);
    for (const std::string& name : outcome.applied) {
      if (isReset)
        kept.erase(name);
      else
        kept[name] = values.at(name);
    }
    if (!isReset) keepWhatIsRuled(outcome, values);
    mustKeep = true;
    answer.isChange = true;
    answer.states = states;
  }

  /// A control that its mode has left alone stays as the mode left it; one that a mode has taken over is kept no more.
  void keepWhatIsRuled(const ControlOutcome& outcome, const ControlValues& values) {
    for (const ControlState& state : states) {
      const auto mode = state.control().automatic;
      if (!mode) continue;
      const std::string name = nameOf(state.id), modeName = nameOf(*mode);
      if (std::find(outcome.applied.begin(), outcome.applied.end(), modeName) == outcome.applied.end()) continue;
      if (values.at(modeName) != 0)
        kept.erase(name);
      else if (!values.contains(name))
        kept[name] = state.current;
    }
  }

  void look(Answer& answer) {
    for (ControlState& state : states) updateControlState(*camera, state);
    answer.states = states;
  }

  void keep(Answer& answer) {
    if (!std::exchange(mustKeep, false)) return;
    answer.keepError = memory.keepSettings(kept);
  }

  void step(HeadTurn move, Answer& answer) {
    const Axis axis = axisOf(move);
    ControlState* const state = find(axis.position);
    if (state && state->minimum) return stepTo(*state, axis.sign, answer);
    if (axis.position == ControlID::kZoom) return zoomAShortTime(axis.sign, answer);
    // Left and right of nudges are those of the person in front of the camera.
    switch (move) {
      case HeadTurn::kLeft:
        camera->panRelativeRight();
        break;
      case HeadTurn::kRight:
        camera->panRelativeLeft();
        break;
      case HeadTurn::kUp:
        camera->tiltRelativeUp();
        break;
      case HeadTurn::kDown:
        camera->tiltRelativeDown();
        break;
      case HeadTurn::kZoomIn:
      case HeadTurn::kZoomOut:
        break;
    }
    camera->waitForNudges();
  }

  void stepTo(ControlState& state, int sign, Answer& answer) {
    Target& target = targets[state.id];
    if (Clock::now() - target.time > kRow) target.value = state.current;
    const int64_t value = std::clamp(target.value + sign * stepOf(state), *state.minimum, *state.maximum);
    if (value == target.value) return;
    if (camera->writeControl(state.control(), value) != 0) {
      answer.error = camera->lastError();
      return;
    }
    target = {value, Clock::now()};
    state.current = value;
    kept[nameOf(state.id)] = value;
    mustKeep = true;
    answer.isChange = true;
    answer.states = states;
  }

  void zoomAShortTime(int sign, Answer& answer) {
    const CameraControl& control = cameraControl(ControlID::kRelativeZoom);
    if (camera->writeControl(control, sign) != 0) answer.error = camera->lastError();
    std::this_thread::sleep_for(kZoomTime);
    camera->writeControl(control, 0);
  }

  void centre(Answer& answer) {
    ControlValues middle;
    for (const ControlID id : {ControlID::kPan, ControlID::kTilt})
      if (const ControlState* const state = find(id); state && state->initial) middle[nameOf(id)] = *state->initial;
    targets.clear();
    if (!middle.empty()) return apply(middle, true, answer);
    if (camera->resetPanTiltRel() != 0) answer.error = camera->lastError();
  }

  struct Target {
    int64_t value = 0;
    Clock::time_point time;
  };

  const std::shared_ptr<VeskVideoDevice> camera;
  const CameraMemory memory;
  ControlValues kept;
  bool mustKeep = false;
  std::vector<ControlState> states;
  std::set<HeadTurn> moves;
  std::map<ControlID, Target> targets;
  uint64_t sequence = 0;
};

/// What a person wants that waits for the queue: the newest number of each control.
struct CameraControlsModel::Batch {
  std::mutex mutex;  ///< guards what follows
  ControlValues values;
  uint64_t sequence = 0;
  bool isTaken = false;

  /// @return false when the queue has it already
  bool add(ControlID id, int64_t value, uint64_t itsSequence) {
    const std::lock_guard lock(mutex);
    if (isTaken) return false;
    values[nameOf(id)] = value;
    sequence = itsSequence;
    return true;
  }
  ControlValues take(uint64_t& itsSequence) {
    const std::lock_guard lock(mutex);
    isTaken = true;
    itsSequence = sequence;
    return std::move(values);
  }
};

CameraControlsModel::CameraControlsModel(std::string folder) : CameraControlsModel(std::move(folder), Times()) {}

CameraControlsModel::CameraControlsModel(std::string folder, const Times& times)
    : mFolder(std::move(folder)),
      mTimes(times),
      mSelf(std::make_shared<CameraControlsModel*>(this)),
      mQueue(DispatchQueue::createSerial("vesk.controls")) {}

CameraControlsModel::~CameraControlsModel() {
  close();
}

/// Does work with the desk on the queue; what comes of it is received here.
template <class Work>
void CameraControlsModel::ask(Work work) {
  mBatch = nullptr;  // what is set from now on is set after this
  mQueue->async([desk = mDesk, self = std::weak_ptr(mSelf), work = std::move(work)] {
    Answer answer;
    work(*desk, answer);
    answer.sequence = desk->sequence;
    DispatchQueue::mainQueue()->async([desk, self, answer = std::move(answer)] {
      if (const auto model = self.lock()) (*model)->receive(desk, answer);
    });
  });
}

/// Does work here after a time, with the same camera.
template <class Work>
void CameraControlsModel::later(std::chrono::milliseconds delay, Work work) {
  DispatchQueue::mainQueue()->asyncAfter(
      delay, [desk = std::weak_ptr(mDesk), self = std::weak_ptr(mSelf), work = std::move(work)] {
        const auto model = self.lock();
        const auto same = desk.lock();
        if (model && same && same == (*model)->mDesk) work(**model);
      });
}

void CameraControlsModel::setCamera(std::shared_ptr<VeskDeviceInfo> camera) {
  if (camera == mInfo) return;
  close();
  mInfo = std::move(camera);
  mIsKnown = mIsLooking = mIsKeeping = mIsStepping = false;
  mMove.reset();
  mControls.clear();
  mMoves.clear();
  mPresets.clear();
  mFormats.clear();
  mFormat = {};
  mAsked.clear();
  if (mInfo) {
    mDesk = std::make_shared<Desk>(mFolder, mInfo);
    open(1);
  }
  if (onCamera) onCamera();
}

void CameraControlsModel::open(int tries) {
  ask([tries](Desk& desk, Answer& answer) {
    answer.isOpened = desk.open(answer);
    answer.nextTry = answer.isOpened || tries == kMostTries ? 0 : tries + 1;
  });
}

/// What a person has set is written, and the camera let go, when the queue comes to it.
void CameraControlsModel::close() {
  if (!mDesk) return;
  ask([](Desk& desk, Answer& answer) {
    desk.keep(answer);
    desk.camera->closeDevice();
  });
  mDesk = nullptr;
}

void CameraControlsModel::receive(const std::shared_ptr<Desk>& desk, const Answer& answer) {
  if (answer.keepError && onFailure) onFailure(answer.keepError);
  if (desk != mDesk) return;
  if (answer.nextTry != 0)
    return later(mTimes.retry, [next = answer.nextTry](CameraControlsModel& model) { model.open(next); });
  bool isNew = false;
  if (answer.isOpened) {
    isNew = !std::exchange(mIsKnown, true);
    mControls = answer.states;
    mMoves = answer.moves;
    mFormats = answer.formats;
    mIsEncodedHere = answer.isEncodedHere;
  }
  if (answer.format) mFormat = *answer.format;
  const bool isChanged = merge(answer);
  if (answer.presets) mPresets = *answer.presets;
  if (answer.isChange) keepSoon();
  if (answer.isLook) mIsLooking = false;
  if (answer.isLook || isNew) look();
  if (answer.isStep) {
    mIsStepping = false;
    if (mMove)
      later(mTimes.step, [](CameraControlsModel& model) {
        if (model.mMove) model.step(*model.mMove);
      });
  }
  if (isNew && onCamera) onCamera();
  if (desk == mDesk && !isNew && isChanged && onValues) onValues();
  if (desk == mDesk && !isNew && answer.presets && onPresets) onPresets();
  if (desk == mDesk && !isNew && answer.format && onFormat) onFormat(answer.isFormatKept);
  if (desk == mDesk && answer.error && onFailure) onFailure(answer.error);
}

/// Takes over what the camera answered, but for what a person has changed since. @return whether that is news
bool CameraControlsModel::merge(const Answer& answer) {
  const auto isOutdated = [&](ControlID id) {
    const auto asked = mAsked.find(id);
    return asked != mAsked.end() && asked->second > answer.sequence;
  };
  bool isChanged = false;
  for (const ControlState& state : answer.states) {
    const auto mode = state.control().automatic;
    if (isOutdated(state.id) || (mode && isOutdated(*mode))) continue;
    for (ControlState& shown : mControls) {
      if (shown.id != state.id || shown == state) continue;
      shown = state;
      isChanged = true;
    }
  }
  return isChanged;
}

void CameraControlsModel::setWatched(bool isWatched) {
  mIsWatched = isWatched;
  look();
}

void CameraControlsModel::look() {
  if (!mIsWatched || !mIsKnown || std::exchange(mIsLooking, true)) return;
  later(mTimes.watch, [](CameraControlsModel& model) {
    if (!model.mIsWatched) {
      model.mIsLooking = false;
      return;
    }
    model.ask([](Desk& desk, Answer& answer) {
      answer.isLook = true;
      desk.look(answer);
    });
  });
}

const ControlState* CameraControlsModel::find(ControlID id) const {
  const auto found =
      std::find_if(mControls.begin(), mControls.end(), [id](const ControlState& state) { return state.id == id; });
  return found == mControls.end() ? nullptr : &*found;
}

/// Shows a number before the camera has it.
void CameraControlsModel::show(ControlID id, int64_t value) {
  mAsked[id] = mSequence;
  for (ControlState& state : mControls) {
    if (state.id == id) state.current = value;
    if (state.control().automatic == id && state.isAutomatic) state.isAutomatic = value != 0;
  }
}

void CameraControlsModel::set(ControlID id, int64_t value) {
  if (!find(id)) return;
  ++mSequence;
  show(id, value);
  if (!mBatch || !mBatch->add(id, value, mSequence)) {
    const auto batch = std::make_shared<Batch>();
    batch->add(id, value, mSequence);
    ask([batch](Desk& desk, Answer& answer) {
      const ControlValues values = batch->take(desk.sequence);
      desk.targets.clear();
      desk.apply(values, false, answer);
    });
    mBatch = batch;
  }
  if (onValues) onValues();
}

void CameraControlsModel::apply(ControlValues values, bool isReset) {
  ++mSequence;
  for (const auto& [name, value] : values)
    if (const CameraControl* const control = cameraControlNamed(name)) show(control->id, value);
  ask([values = std::move(values), isReset, sequence = mSequence](Desk& desk, Answer& answer) {
    desk.sequence = sequence;
    desk.targets.clear();
    desk.apply(values, isReset, answer);
  });
  if (onValues) onValues();
}

void CameraControlsModel::setAll(const ControlValues& values) {
  if (mIsKnown) apply(values, false);
}

void CameraControlsModel::reset(ControlID id) {
  ControlValues values;
  const auto add = [&](ControlID each) {
    if (const ControlState* const state = find(each); state && state->initial) values[nameOf(each)] = *state->initial;
  };
  add(id);
  if (const auto mode = cameraControl(id).automatic) add(*mode);
  if (!values.empty()) apply(std::move(values), true);
}

void CameraControlsModel::resetAll() {
  if (!mIsKnown) return;
  ask([](Desk& desk, Answer&) { desk.kept.clear(); });
  apply(initialValues(mControls), true);
}

void CameraControlsModel::keepSoon() {
  if (std::exchange(mIsKeeping, true)) return;
  later(mTimes.keep, [](CameraControlsModel& model) {
    model.mIsKeeping = false;
    model.ask([](Desk& desk, Answer& answer) { desk.keep(answer); });
  });
}

void CameraControlsModel::startMoving(HeadTurn move) {
  mMove = move;
  step(move);
}

void CameraControlsModel::stopMoving() {
  mMove.reset();
}

void CameraControlsModel::moveOnce(HeadTurn move) {
  step(move);
}

void CameraControlsModel::step(HeadTurn move) {
  if (!canMove(move) || std::exchange(mIsStepping, true)) return;
  ask([move](Desk& desk, Answer& answer) {
    answer.isStep = true;
    desk.step(move, answer);
  });
}

void CameraControlsModel::centre() {
  if (canCentre()) ask([](Desk& desk, Answer& answer) { desk.centre(answer); });
}

void CameraControlsModel::setFormat(const VideoFormatRequest& request) {
  if (mIsKnown) ask([request](Desk& desk, Answer& answer) { desk.setFormat(request, answer); });
}

void CameraControlsModel::savePreset(const std::string& name) {
  if (!mIsKnown) return;
  ask([name](Desk& desk, Answer& answer) {
    desk.look(answer);
    answer.error = desk.memory.savePreset(name, lastingValues(desk.states));
    answer.presets = desk.memory.presets();
  });
}

void CameraControlsModel::applyPreset(const std::string& name) {
  if (!mIsKnown) return;
  ask([name, sequence = ++mSequence](Desk& desk, Answer& answer) {
    const auto values = desk.memory.preset(name, &answer.error);
    if (!values) return;
    desk.sequence = sequence;
    desk.targets.clear();
    desk.apply(*values, false, answer);
  });
}

void CameraControlsModel::renamePreset(const std::string& name, const std::string& newName) {
  if (!mIsKnown) return;
  ask([name, newName](Desk& desk, Answer& answer) {
    answer.error = desk.memory.renamePreset(name, newName);
    answer.presets = desk.memory.presets();
  });
}

void CameraControlsModel::removePreset(const std::string& name) {
  if (!mIsKnown) return;
  ask([name](Desk& desk, Answer& answer) {
    answer.error = desk.memory.removePreset(name);
    answer.presets = desk.memory.presets();
  });
}

}  // namespace vesk::camera
