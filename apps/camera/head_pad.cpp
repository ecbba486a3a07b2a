#include "apps/camera/head_pad.h"

#include <algorithm>
#include <string>

#include "apps/camera/adwaita.h"
#include "apps/camera/text.h"

namespace vesk::camera {

HeadPad::HeadPad(CameraControlsModel& model) : mModel(model) {
  set_spacing(24);
  set_halign(Gtk::Align::CENTER);
  set_margin(12);
  addButton(HeadTurn::kUp, "go-up-symbolic", _("Turn up (Ctrl+↑)"), 1, 0);
  addButton(HeadTurn::kLeft, "go-previous-symbolic", _("Turn left (Ctrl+←)"), 0, 1);
  addButton(HeadTurn::kRight, "go-next-symbolic", _("Turn right (Ctrl+→)"), 2, 1);
  addButton(HeadTurn::kDown, "go-down-symbolic", _("Turn down (Ctrl+↓)"), 1, 2);
  mCentre = makeIconButton("find-location-symbolic", _("Back to the middle (Ctrl+Home)"));
  mCentre->signal_clicked().connect([this] { mModel.centre(); });
  mArrows.attach(*mCentre, 1, 1);
  addButton(HeadTurn::kZoomIn, "zoom-in-symbolic", _("Zoom in (Ctrl++)"), 0, 0);
  addButton(HeadTurn::kZoomOut, "zoom-out-symbolic", _("Zoom out (Ctrl+−)"), 0, 1);
  mLens.set_row_spacing(6);
  mLens.set_valign(Gtk::Align::CENTER);
  append(mArrows);
  append(mLens);
}

/// A move as the person sees it, as the camera makes it.
HeadTurn HeadPad::asSeen(HeadTurn move) const {
  if (mIsMirrored && move == HeadTurn::kLeft) return HeadTurn::kRight;
  if (mIsMirrored && move == HeadTurn::kRight) return HeadTurn::kLeft;
  return move;
}

Gtk::Button* HeadPad::addButton(HeadTurn move, const char* icon, const std::string& name, int column, int row) {
  Gtk::Button* const button = makeIconButton(icon, name);
  button->remove_css_class("flat");
  button->add_css_class("circular");
  button->signal_clicked().connect([this, move] { mModel.moveOnce(asSeen(move)); });
  // The pointer is taken before the button sees it: a click is a short hold, and no step on top of it.
  const auto hold = Gtk::GestureClick::create();
  hold->set_propagation_phase(Gtk::PropagationPhase::CAPTURE);
  hold->signal_begin().connect([this, move, gesture = hold.get()](Gdk::EventSequence*) {
    gesture->set_state(Gtk::EventSequenceState::CLAIMED);
    mModel.startMoving(asSeen(move));
  });
  hold->signal_end().connect([this](Gdk::EventSequence*) { mModel.stopMoving(); });
  hold->signal_cancel().connect([this](Gdk::EventSequence*) { mModel.stopMoving(); });
  button->add_controller(hold);
  const bool isLens = move == HeadTurn::kZoomIn || move == HeadTurn::kZoomOut;
  (isLens ? mLens : mArrows).attach(*button, column, row);
  mButtons.emplace_back(move, button);
  return button;
}

void HeadPad::update() {
  for (const auto& [move, button] : mButtons) button->set_sensitive(mModel.canMove(move));
  mCentre->set_sensitive(mModel.canCentre());
  mArrows.set_visible(mModel.canCentre());
  mLens.set_visible(mModel.canMove(HeadTurn::kZoomIn));
  set_visible(mArrows.get_visible() || mLens.get_visible());
}

void HeadPad::addKeys(Gtk::Widget& window) {
  const auto keys = Gtk::EventControllerKey::create();
  keys->set_propagation_phase(Gtk::PropagationPhase::CAPTURE);
  keys->signal_key_pressed().connect(
      [this, &window](guint key, guint, Gdk::ModifierType modifiers) {
        const Gtk::Root* const root = window.get_root();
        const bool isTyping = root && dynamic_cast<const Gtk::Editable*>(const_cast<Gtk::Root*>(root)->get_focus());
        return !isTyping && keyPressed(key, modifiers);
      },
      false);
  window.add_controller(keys);
}

bool HeadPad::keyPressed(guint key, Gdk::ModifierType modifiers) {
  const auto relevant = Gdk::ModifierType::CONTROL_MASK | Gdk::ModifierType::ALT_MASK | Gdk::ModifierType::SUPER_MASK;
  if ((modifiers & relevant) != Gdk::ModifierType::CONTROL_MASK) return false;
  const auto move = [this](HeadTurn seen) {
    if (!mModel.canMove(seen)) return false;
    mModel.moveOnce(asSeen(seen));
    return true;
  };
  switch (key) {
    case GDK_KEY_Left:
    case GDK_KEY_KP_Left:
      return move(HeadTurn::kLeft);
    case GDK_KEY_Right:
    case GDK_KEY_KP_Right:
      return move(HeadTurn::kRight);
    case GDK_KEY_Up:
    case GDK_KEY_KP_Up:
      return move(HeadTurn::kUp);
    case GDK_KEY_Down:
    case GDK_KEY_KP_Down:
      return move(HeadTurn::kDown);
    case GDK_KEY_plus:
    case GDK_KEY_equal:
    case GDK_KEY_KP_Add:
      return move(HeadTurn::kZoomIn);
    case GDK_KEY_minus:
    case GDK_KEY_KP_Subtract:
      return move(HeadTurn::kZoomOut);
    case GDK_KEY_Home:
    case GDK_KEY_KP_Home:
      if (!mModel.canCentre()) return false;
      mModel.centre();
      return true;
    default:
      return false;
  }
}

}  // namespace vesk::camera
