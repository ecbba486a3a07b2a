#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <vesk/control_settings.h>
#include <vesk/device_info.h>
#include <vesk/dispatch_queue.h>
#include <vesk/error.h>
#include "apps/camera/format_words.h"

namespace vesk::camera {

/// What a person moves the camera's head or lens by. Left and right as the camera looks: what lies beyond the right
/// edge of the picture comes into view by kRight.
enum class HeadTurn : uint8_t { kLeft, kRight, kUp, kDown, kZoomIn, kZoomOut };

/// What a camera is set to, as a panel shows and changes it. What a person sets is kept for the camera and set again
/// whenever it comes back.
///
/// The camera is opened here a second time, beside whoever shows or records it, and asked on a queue of its own: a
/// motor takes long and nobody waits for it, not even for the camera to be closed. Of values that come faster than the
/// camera takes them the newest wins. Other programs' changes are seen by asking again and again while somebody
/// watches.
///
/// Threads: all of the main thread, where handlers are called too; they may do anything but destroy the model.
/// Destroying it waits for what was asked of the camera before.
class CameraControlsModel {
 public:
  /// How long things take; tests are in a hurry.
  struct Times {
    std::chrono::milliseconds watch{1000};  ///< from one look at a camera that is watched to the next
    std::chrono::milliseconds keep{500};    ///< from a change until it is written to the disk
    std::chrono::milliseconds retry{500};   ///< a camera that has just come may refuse to be opened for a moment
    std::chrono::milliseconds step{80};     ///< from one step of a head to the next, beside what it takes itself
  };

  /// @param folder where the application keeps what it knows about cameras
  explicit CameraControlsModel(std::string folder);
  CameraControlsModel(std::string folder, const Times& times);
  ~CameraControlsModel();
  CameraControlsModel(const CameraControlsModel&) = delete;
  CameraControlsModel& operator=(const CameraControlsModel&) = delete;

  // Handlers.

  std::function<void()> onCamera;               ///< another camera, or its controls are known now
  std::function<void()> onValues;               ///< numbers or modes of the controls have changed
  std::function<void()> onPresets;              ///< the names of the presets have changed
  std::function<void(bool isChosen)> onFormat;  ///< the format that is taken; a person has chosen it, and it is kept
  std::function<void(const Error&)> onFailure;  ///< what a person has asked for could not be done

  /// The camera to be shown from now on; null for none. What is kept for it is set at once.
  void setCamera(std::shared_ptr<VeskDeviceInfo> camera);
  const std::shared_ptr<VeskDeviceInfo>& camera() const { return mInfo; }
  /// Whether the camera has answered: until then it has no controls here.
  bool isKnown() const { return mIsKnown; }
  /// Whether somebody looks at the numbers.
  void setWatched(bool isWatched);

  /// Settings and modes; no moves.
  const std::vector<ControlState>& controls() const { return mControls; }
  const ControlState* find(ControlID id) const;
  /// Sets a control, later; shown at once.
  void set(ControlID id, int64_t value);
  /// Sets many, in the order in which the camera takes them.
  void setAll(const ControlValues& values);
  /// Back to the camera's default, with its mode.
  void reset(ControlID id);
  /// All back to their defaults; nothing is kept for the camera any more.
  void resetAll();

  bool canMove(HeadTurn move) const { return mMoves.contains(move); }
  /// Whether the head can be sent back to its middle.
  bool canCentre() const { return canMove(HeadTurn::kLeft) || canMove(HeadTurn::kUp); }
  /// Moves until stopMoving.
  void startMoving(HeadTurn move);
  void stopMoving();
  /// One step; nothing while the one before is under way.
  void moveOnce(HeadTurn move);
  void centre();

  /// The formats that a film can have.
  const std::vector<OfferedFormat>& formats() const { return mFormats; }
  bool isEncodedHere() const { return mIsEncodedHere; }
  const TakenFormat& format() const { return mFormat; }
  /// Keeps for the camera what a person has chosen; whoever films takes it from CameraMemory.
  void setFormat(const VideoFormatRequest& request);

  const std::vector<std::string>& presets() const { return mPresets; }
  /// Keeps what the camera is set to under a name, in place of one that has it.
  void savePreset(const std::string& name);
  void applyPreset(const std::string& name);
  void renamePreset(const std::string& name, const std::string& newName);
  void removePreset(const std::string& name);

 private:
  struct Desk;
  struct Answer;
  struct Batch;

  template <class Work>
  void ask(Work work);
  template <class Work>
  void later(std::chrono::milliseconds delay, Work work);
  void open(int tries);
  void close();
  void receive(const std::shared_ptr<Desk>& desk, const Answer& answer);
  bool merge(const Answer& answer);
  void show(ControlID id, int64_t value);
  void apply(ControlValues values, bool isReset);
  void keepSoon();
  void look();
  void step(HeadTurn move);

  const std::string mFolder;
  const Times mTimes;
  const std::shared_ptr<CameraControlsModel*> mSelf;  ///< for what comes back, which may be after the model has gone
  std::shared_ptr<DispatchQueue> mQueue;

  std::shared_ptr<VeskDeviceInfo> mInfo;
  std::shared_ptr<Desk> mDesk;  ///< of the camera; null for none
  bool mIsKnown = false;
  std::vector<ControlState> mControls;
  std::set<HeadTurn> mMoves;
  std::vector<std::string> mPresets;
  std::vector<OfferedFormat> mFormats;
  bool mIsEncodedHere = false;
  TakenFormat mFormat;

  std::shared_ptr<Batch> mBatch;         ///< the last one asked for
  uint64_t mSequence = 0;                ///< of changes asked for
  std::map<ControlID, uint64_t> mAsked;  ///< the last change of each control
  bool mIsWatched = false;
  bool mIsLooking = false;        ///< the next look is on its way
  bool mIsKeeping = false;        ///< what is kept is about to be written
  std::optional<HeadTurn> mMove;  ///< until it is stopped
  bool mIsStepping = false;
};

}  // namespace vesk::camera
