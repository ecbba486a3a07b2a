#include "apps/camera/picture_panel.h"

#include <algorithm>
#include <array>
#include <utility>

#include <vesk/four_char_code.h>
#include "apps/camera/adwaita.h"
#include "apps/camera/control_words.h"
#include "apps/camera/format_words.h"
#include "apps/camera/text.h"
#include "apps/camera/widgets.h"

namespace vesk::camera {
namespace {

constexpr int kWidth = 340;  // pixels
constexpr int kMargin = 12;
constexpr double kSteps = 100;

constexpr std::array kGroups = {ControlGroup::kPicture, ControlGroup::kExposure, ControlGroup::kFocus,
                                ControlGroup::kHead};

/// The wheel moves the page and no slider that happens to lie below the pointer.
void leaveWheelToPage(Gtk::Widget& slider, Gtk::ScrolledWindow& page) {
  const auto wheel = Gtk::EventControllerScroll::create();
  wheel->set_flags(Gtk::EventControllerScroll::Flags::VERTICAL);
  wheel->set_propagation_phase(Gtk::PropagationPhase::CAPTURE);
  wheel->signal_scroll().connect(
      [&page](double, double way) {
        const auto place = page.get_vadjustment();
        place->set_value(place->get_value() + way * place->get_page_size() / 6);
        return true;
      },
      false);
  slider.add_controller(wheel);
}

/// A row that holds widgets, which are reached without it.
GtkWidget* makePlainRow(Gtk::Widget& content, const std::string& title) {
  GtkWidget* const row = adw_preferences_row_new();
  adw_preferences_row_set_use_markup(ADW_PREFERENCES_ROW(row), FALSE);
  adw_preferences_row_set_title(ADW_PREFERENCES_ROW(row), title.c_str());
  gtk_list_box_row_set_activatable(GTK_LIST_BOX_ROW(row), FALSE);
  gtk_widget_set_focusable(row, FALSE);
  gtk_list_box_row_set_child(GTK_LIST_BOX_ROW(row), content.gobj());
  return row;
}

void setValueText(Gtk::Widget& slider, const std::string& text) {
  gtk_accessible_update_property(GTK_ACCESSIBLE(slider.gobj()), GTK_ACCESSIBLE_PROPERTY_VALUE_TEXT, text.c_str(), -1);
}

}  // namespace

PicturePanel::PicturePanel(const std::string& folder)
    : Gtk::Box(Gtk::Orientation::VERTICAL), mModel(folder), mPad(mModel), mUndo(_("Undo")) {
  set_size_request(kWidth, -1);
  set_hexpand(false);           // the picture takes what is left
  add_css_class("background");  // a narrow window shows it over the picture
  describeSilently(mScroll, _("Picture settings"));

  auto* const message = Gtk::make_managed<Gtk::Box>(Gtk::Orientation::HORIZONTAL, kMargin);
  message->set_margin(kMargin);
  mMessageText.set_wrap();
  mMessageText.set_wrap_mode(Pango::WrapMode::WORD_CHAR);
  mMessageText.set_xalign(0);
  mMessageText.set_hexpand();
  mUndo.set_valign(Gtk::Align::CENTER);
  mUndo.signal_clicked().connect([this] {
    mMessage.set_reveal_child(false);
    mModel.setAll(mBefore);
  });
  Gtk::Button* const close = makeIconButton("window-close-symbolic", _("Close the message"));
  close->signal_clicked().connect([this] { mMessage.set_reveal_child(false); });
  message->append(mMessageText);
  message->append(mUndo);
  message->append(*close);
  mMessage.set_child(*message);
  append(mMessage);

  mScroll.set_policy(Gtk::PolicyType::NEVER, Gtk::PolicyType::AUTOMATIC);
  mScroll.set_vexpand();
  append(mScroll);

  mModel.onCamera = [this] { showCamera(); };
  mModel.onValues = [this] { showValues(); };
  mModel.onPresets = [this] { showPresets(); };
  mModel.onFormat = [this](bool isChosen) {
    showFormat();
    if (isChosen) mFormatChosen.emit();
  };
  mModel.onFailure = [this](const Error& error) { showFailure(error); };
  signal_map().connect([this] {
    mModel.setWatched(true);
    if (!mScroll.get_child()) showCamera();
  });
  signal_unmap().connect([this] {
    mModel.setWatched(false);
    mModel.stopMoving();
  });
}

PicturePanel::~PicturePanel() {
  mGone.disconnect();
}

void PicturePanel::setCamera(const std::shared_ptr<VeskVideoDevice>& camera) {
  constexpr unsigned kMoment = 1000;  // ms
  if (camera) {
    mGone.disconnect();
    mModel.setCamera(camera->deviceInfo());
  } else if (mModel.camera() && !mGone.connected()) {
    mGone = Glib::signal_timeout().connect([this] { return mModel.setCamera(nullptr), false; }, kMoment);
  }
}

/// Nothing is made while nobody looks: most who film never open the page.
void PicturePanel::showCamera() {
  mSteps.clear();
  mRows.clear();
  mPresets = mFormat = nullptr;
  mPresetRows.clear();
  mMessage.set_reveal_child(false);
  mPad.update();
  if (!get_mapped()) return mScroll.unset_child();
  if (!mModel.camera())
    return showNothing("camera-disabled-symbolic", _("No camera"), _("Its settings are here while it is on."));
  if (!mModel.isKnown()) return showNothing("camera-web-symbolic", _("Just a moment"), _("The camera is being asked."));
  if (mModel.controls().empty() && mModel.formats().empty())
    return showNothing("camera-web-symbolic", _("Nothing to set"), _("This camera does everything by itself."));

  mPage = Gtk::make_managed<Gtk::Box>(Gtk::Orientation::VERTICAL, 2 * kMargin);
  mPage->set_margin(kMargin);
  mScroll.set_child(*mPage);
  for (const ControlGroup group : kGroups) addControls(group);
  if (!mModel.controls().empty()) {
    mSteps.add([this] {
      addPresets();
      showPresets();
    });
    mSteps.add([this] { addResetAll(); });
  }
  mSteps.add([this] {
    addFormat();
    showFormat();
  });
}

void PicturePanel::showNothing(const char* icon, const std::string& title, const std::string& text) {
  auto* const page = ADW_STATUS_PAGE(adw_status_page_new());
  adw_status_page_set_icon_name(page, icon);
  adw_status_page_set_title(page, Glib::Markup::escape_text(title).c_str());
  adw_status_page_set_description(page, Glib::Markup::escape_text(text).c_str());
  gtk_widget_add_css_class(GTK_WIDGET(page), "compact");
  mScroll.set_child(*Glib::wrap(GTK_WIDGET(page)));
}

void PicturePanel::addControls(ControlGroup which) {
  mSteps.add([this] { mGroup = nullptr; });
  const auto needed = [this, which] {
    if (!mGroup) mGroup = addGroup(*mPage, titleOf(which));
    return mGroup;
  };
  if (which == ControlGroup::kHead && mPad.get_visible()) mSteps.add([this, needed] { addPad(needed()); });
  // A mode stands above what it rules.
  std::vector<const ControlState*> states;
  for (const ControlState& state : mModel.controls()) {
    if (groupOf(state.id) != which) continue;
    if (const auto mode = state.control().automatic; mode && mModel.find(*mode)) states.push_back(mModel.find(*mode));
    if (std::find(states.begin(), states.end(), &state) == states.end() && !isAutomaticMode(state.control()))
      states.push_back(&state);
  }
  for (const ControlState& state : mModel.controls())  // a mode that rules nothing here
    if (groupOf(state.id) == which && std::find(states.begin(), states.end(), &state) == states.end())
      states.push_back(&state);
  for (const ControlState* const known : states)
    mSteps.add([this, needed, id = known->id] {
      const ControlState* const state = mModel.find(id);
      if (!state) return;
      switch (lookOf(*state)) {
        case ControlLook::kSwitch:
          mRows.push_back(makeSwitch(needed(), *state));
          break;
        case ControlLook::kChoice:
          mRows.push_back(makeChoice(needed(), *state));
          break;
        case ControlLook::kSlider:
          if (!state->minimum) return;
          mRows.push_back(makeSlider(needed(), *state));
          break;
      }
      mIsShowing = true;
      showValue(mRows.back(), *state);
      mIsShowing = false;
    });
}

Gtk::Button* PicturePanel::makeReset(ControlID id) {
  Gtk::Button* const button = makeIconButton("edit-undo-symbolic", filled(_("{}: back to the default"), titleOf(id)));
  button->signal_clicked().connect([this, id] { mModel.reset(id); });
  return button;
}

PicturePanel::Row PicturePanel::makeSlider(AdwPreferencesGroup* group, const ControlState& state) {
  const ControlID id = state.id;
  Row row{id};
  auto* const box = Gtk::make_managed<Gtk::Box>(Gtk::Orientation::VERTICAL);
  box->set_margin_start(kMargin);
  box->set_margin_end(kMargin / 2);
  box->set_margin_top(kMargin / 2);
  box->set_margin_bottom(kMargin / 2);

  auto* const line = Gtk::make_managed<Gtk::Box>(Gtk::Orientation::HORIZONTAL, kMargin / 2);
  auto* const title = Gtk::make_managed<Gtk::Label>(titleOf(id));
  title->set_xalign(0);
  title->set_hexpand();
  title->set_wrap();
  row.value = Gtk::make_managed<Gtk::Label>();
  row.value->add_css_class("dim-label");
  row.value->add_css_class("numeric");
  row.reset = makeReset(id);
  line->append(*title);
  line->append(*row.value);
  line->append(*row.reset);

  row.slider = Gtk::make_managed<Gtk::Scale>(Gtk::Orientation::HORIZONTAL);
  const auto range = static_cast<double>(*state.maximum - *state.minimum);
  row.slider->set_range(0, 1);
  row.slider->set_increments(1 / std::clamp(range, 1.0, kSteps), 10 / std::clamp(range, 10.0, kSteps));
  row.slider->set_margin_end(kMargin / 2);
  if (state.initial) row.slider->add_mark(placeOnSlider(state, *state.initial), Gtk::PositionType::BOTTOM, "");
  describeSilently(*row.slider, titleOf(id));
  row.slider->set_tooltip_text(hintOf(id));
  row.slider->signal_value_changed().connect([this, id, slider = row.slider] {
    const ControlState* const now = mIsShowing ? nullptr : mModel.find(id);
    if (now) mModel.set(id, valueOnSlider(*now, slider->get_value()));
  });
  leaveWheelToPage(*row.slider, mScroll);
  box->append(*line);
  box->append(*row.slider);

  addRow(group, makePlainRow(*box, titleOf(id)));
  row.row = row.slider;
  return row;
}

PicturePanel::Row PicturePanel::makeSwitch(AdwPreferencesGroup* group, const ControlState& state) {
  const ControlID id = state.id;
  Row row{id};
  AdwActionRow* const widget = addActionRow(group, titleOf(id), hintOf(id));
  row.toggle = Gtk::make_managed<Gtk::Switch>();
  row.toggle->set_valign(Gtk::Align::CENTER);
  row.toggle->property_active().signal_changed().connect([this, id, toggle = row.toggle] {
    if (!mIsShowing) mModel.set(id, toggle->get_active() ? 1 : 0);
  });
  if (!isAutomaticMode(state.control())) {
    row.reset = makeReset(id);
    adw_action_row_add_suffix(widget, GTK_WIDGET(row.reset->gobj()));
  }
  adw_action_row_add_suffix(widget, GTK_WIDGET(row.toggle->gobj()));
  adw_action_row_set_activatable_widget(widget, GTK_WIDGET(row.toggle->gobj()));
  row.row = Glib::wrap(GTK_WIDGET(widget));
  return row;
}

PicturePanel::Row PicturePanel::makeChoice(AdwPreferencesGroup* group, const ControlState& state) {
  const ControlID id = state.id;
  Row row{id};
  row.choice = addComboRow(group, titleOf(id));
  gtk_widget_set_tooltip_text(GTK_WIDGET(row.choice), hintOf(id).c_str());
  std::vector<std::string> choices;
  for (int64_t value = state.minimum.value_or(0); value <= state.maximum.value_or(0); ++value)
    choices.push_back(valueText(id, value));
  setChoices(row.choice, choices);
  onSignal(row.choice, "notify::selected", [this, id, choice = row.choice] {
    const ControlState* const now = mIsShowing ? nullptr : mModel.find(id);
    if (now) mModel.set(id, now->minimum.value_or(0) + adw_combo_row_get_selected(choice));
  });
  row.reset = makeReset(id);
  adw_action_row_add_suffix(ADW_ACTION_ROW(row.choice), GTK_WIDGET(row.reset->gobj()));
  row.row = Glib::wrap(GTK_WIDGET(row.choice));
  return row;
}

void PicturePanel::addPad(AdwPreferencesGroup* group) {
  if (mPad.get_parent()) mPad.unparent();
  addRow(group, makePlainRow(mPad, titleOf(ControlGroup::kHead)));
}

void PicturePanel::addFormat() {
  if (mModel.formats().empty()) return;
  mFormat = addGroup(*mPage, _("Films"));
  mSize = addComboRow(mFormat, _("Size"));
  mRate = addComboRow(mFormat, _("Pictures"));
  const auto& formats = mModel.formats();
  const auto has = [&](bool isH264) {
    return std::any_of(formats.begin(), formats.end(),
                       [&](const OfferedFormat& format) { return (format.codec == kCMVideoCodecType_H264) == isH264; });
  };
  mCodec = has(true) && has(false) ? addComboRow(mFormat, _("Recorded")) : nullptr;
  if (mCodec)
    setChoices(mCodec, {mModel.isEncodedHere() ? _("By this computer") : _("By the camera"), _("Uncompressed")});

  onSignal(mSize, "notify::selected", [this] {
    if (mIsShowing) return;
    VideoFormatRequest request = mModel.format().request;
    const guint index = adw_combo_row_get_selected(mSize);
    request.size = index >= 1 && index <= mSizes.size() ? std::optional(mSizes[index - 1]) : std::nullopt;
    chooseFormat(request);
  });
  onSignal(mRate, "notify::selected", [this] {
    if (mIsShowing) return;
    VideoFormatRequest request = mModel.format().request;
    const guint index = adw_combo_row_get_selected(mRate);
    request.rate = index >= 1 && index <= mRates.size() ? std::optional(mRates[index - 1]) : std::nullopt;
    chooseFormat(request);
  });
  if (mCodec)
    onSignal(mCodec, "notify::selected", [this] {
      if (mIsShowing) return;
      VideoFormatRequest request = mModel.format().request;
      request.codec.reset();
      if (adw_combo_row_get_selected(mCodec) == 1) request.codec = kCMPixelFormat_422YpCbCr8;
      chooseFormat(request);
    });
}

/// Takes a request without what is not offered together.
void PicturePanel::chooseFormat(const VideoFormatRequest& request) {
  VideoFormatRequest offered = request;
  const auto sizes = sizesIn(mModel.formats(), offered.codec);
  if (offered.size && std::find(sizes.begin(), sizes.end(), *offered.size) == sizes.end()) offered.size.reset();
  const auto rates = ratesIn(mModel.formats(), offered);
  if (offered.rate && std::find(rates.begin(), rates.end(), *offered.rate) == rates.end()) offered.rate.reset();
  mModel.setFormat(offered);
}

void PicturePanel::showFormat() {
  if (!mFormat) return;
  mIsShowing = true;
  const VideoFormatRequest& request = mModel.format().request;
  mSizes = sizesIn(mModel.formats(), request.codec);
  mRates = ratesIn(mModel.formats(), request);
  const auto show = [](AdwComboRow* row, const auto& values, const auto& chosen, auto nameOf) {
    std::vector<std::string> names = {_("Automatic")};
    guint selected = 0;
    for (const auto& value : values) {
      names.push_back(nameOf(value));
      if (chosen && *chosen == value) selected = static_cast<guint>(names.size() - 1);
    }
    setChoices(row, names);
    adw_combo_row_set_selected(row, selected);
  };
  show(mSize, mSizes, request.size, sizeName);
  show(mRate, mRates, request.rate, rateName);
  if (mCodec) adw_combo_row_set_selected(mCodec, request.codec && *request.codec != kCMVideoCodecType_H264 ? 1 : 0);
  const std::string text = mIsRecording ? _("The format stays as it is while a film is recorded.")
                                        : costText(mModel.format(), mModel.isEncodedHere());
  adw_preferences_group_set_description(mFormat, Glib::Markup::escape_text(text).c_str());
  for (AdwComboRow* const row : {mSize, mRate, mCodec})  // each, or screen readers would not know
    if (row) gtk_widget_set_sensitive(GTK_WIDGET(row), mIsRecording ? FALSE : TRUE);
  mIsShowing = false;
}

void PicturePanel::setRecording(bool isRecording) {
  if (std::exchange(mIsRecording, isRecording) != isRecording) showFormat();
}

void PicturePanel::addPresets() {
  mPresets = addGroup(*mPage, _("Presets"), _("What all is set to, under a name"));
  auto* const line = Gtk::make_managed<Gtk::Box>(Gtk::Orientation::HORIZONTAL, kMargin / 2);
  line->set_margin(kMargin);
  auto* const entry = Gtk::make_managed<Gtk::Entry>();
  entry->set_placeholder_text(_("Name of a new preset"));
  entry->set_hexpand();
  describeSilently(*entry, _("Name of a new preset"));
  auto* const save = Gtk::make_managed<Gtk::Button>(_("Save"));
  save->set_sensitive(false);
  describe(*save, _("Save the preset"));
  entry->signal_changed().connect([entry, save] { save->set_sensitive(!entry->get_text().empty()); });
  const auto keep = [this, entry] {
    if (entry->get_text().empty()) return;
    mModel.savePreset(entry->get_text());
    entry->set_text("");
  };
  entry->signal_activate().connect(keep);
  save->signal_clicked().connect(keep);
  line->append(*entry);
  line->append(*save);
  addRow(mPresets, makePlainRow(*line, _("New preset")));
}

void PicturePanel::addResetAll() {
  auto* const button = Gtk::make_managed<Gtk::Button>(_("Reset all settings"));
  button->set_halign(Gtk::Align::CENTER);
  button->add_css_class("pill");
  button->signal_clicked().connect([this] {
    mBefore = lastingValues(mModel.controls());
    mModel.resetAll();
    showMessage(_("All settings are at the camera's defaults."), true);
  });
  mPage->append(*button);
}

void PicturePanel::showValues() {
  mIsShowing = true;
  for (const Row& row : mRows)
    if (const ControlState* const state = mModel.find(row.id)) showValue(row, *state);
  mIsShowing = false;
}

void PicturePanel::showValue(const Row& row, const ControlState& state) {
  const bool isAutomatic = state.isAutomatic.value_or(false);
  row.row->set_sensitive(!isAutomatic);
  if (row.slider) {
    const std::string text = valueText(row.id, state.current);
    row.value->set_text(isAutomatic ? filled(_("{} (automatic)"), text) : text);
    setValueText(*row.slider, text);
    // Between two values of the camera's the slider stays where the person holds it.
    if (valueOnSlider(state, row.slider->get_value()) != state.current)
      row.slider->set_value(placeOnSlider(state, state.current));
  }
  if (row.toggle) row.toggle->set_active(state.current != 0);
  if (row.choice) {
    const int64_t least = state.minimum.value_or(0);
    adw_combo_row_set_selected(
        row.choice, state.takes(state.current) ? static_cast<guint>(state.current - least) : GTK_INVALID_LIST_POSITION);
  }
  if (row.reset) row.reset->set_sensitive(!isAtDefault(state));
}

/// As the camera has it by itself, its mode too; also where nobody knows.
bool PicturePanel::isAtDefault(const ControlState& state) const {
  const auto modeID = state.control().automatic;
  const ControlState* const mode = modeID ? mModel.find(*modeID) : nullptr;
  if (mode && mode->initial && mode->current != *mode->initial) return false;
  return state.isAutomatic.value_or(false) || !state.initial || state.current == *state.initial;
}

void PicturePanel::showPresets() {
  if (!mPresets) return;
  for (GtkWidget* const row : mPresetRows) adw_preferences_group_remove(mPresets, row);
  mPresetRows.clear();
  for (const std::string& name : mModel.presets()) addPreset(name);
}

void PicturePanel::addPreset(const std::string& name) {
  AdwActionRow* const row = addActionRow(mPresets, name);
  auto* const use = Gtk::make_managed<Gtk::Button>(_("Use"));
  use->set_valign(Gtk::Align::CENTER);
  describe(*use, filled(_("Set the camera to “{}”"), name));
  use->signal_clicked().connect([this, name] { mModel.applyPreset(name); });
  Gtk::Button* const rename = makeIconButton("document-edit-symbolic", filled(_("Rename “{}”"), name));
  rename->signal_clicked().connect([this, name] { askForName(name); });
  Gtk::Button* const remove = makeIconButton("user-trash-symbolic", filled(_("Delete “{}”"), name));
  remove->signal_clicked().connect([this, name] { confirmRemoval(name); });
  for (Gtk::Button* const button : {use, rename, remove}) adw_action_row_add_suffix(row, GTK_WIDGET(button->gobj()));
  mPresetRows.push_back(GTK_WIDGET(row));
}

void PicturePanel::askForName(const std::string& name) {
  auto* const window = dynamic_cast<Gtk::Window*>(get_root());
  GtkWidget* const dialog = adw_message_dialog_new(window ? window->gobj() : nullptr, _("Rename the preset"), nullptr);
  auto* const entry = Gtk::make_managed<Gtk::Entry>();
  entry->set_text(name);
  entry->set_activates_default();
  describeSilently(*entry, _("New name"));
  adw_message_dialog_set_extra_child(ADW_MESSAGE_DIALOG(dialog), GTK_WIDGET(entry->gobj()));
  adw_message_dialog_add_responses(ADW_MESSAGE_DIALOG(dialog), "cancel", _("Cancel"), "rename", _("Rename"), nullptr);
  adw_message_dialog_set_response_appearance(ADW_MESSAGE_DIALOG(dialog), "rename", ADW_RESPONSE_SUGGESTED);
  adw_message_dialog_set_default_response(ADW_MESSAGE_DIALOG(dialog), "rename");
  adw_message_dialog_set_close_response(ADW_MESSAGE_DIALOG(dialog), "cancel");
  onSignal(dialog, "response::rename", [this, name, entry] { mModel.renamePreset(name, entry->get_text()); });
  gtk_window_present(GTK_WINDOW(dialog));
}

void PicturePanel::confirmRemoval(const std::string& name) {
  auto* const window = dynamic_cast<Gtk::Window*>(get_root());
  GtkWidget* const dialog =
      adw_message_dialog_new(window ? window->gobj() : nullptr, filled(_("Delete the preset “{}”?"), name).c_str(),
                             _("What the camera is set to stays as it is."));
  adw_message_dialog_add_responses(ADW_MESSAGE_DIALOG(dialog), "cancel", _("Cancel"), "delete", _("Delete"), nullptr);
  adw_message_dialog_set_response_appearance(ADW_MESSAGE_DIALOG(dialog), "delete", ADW_RESPONSE_DESTRUCTIVE);
  adw_message_dialog_set_close_response(ADW_MESSAGE_DIALOG(dialog), "cancel");
  onSignal(dialog, "response::delete", [this, name] { mModel.removePreset(name); });
  gtk_window_present(GTK_WINDOW(dialog));
}

void PicturePanel::showFailure(const Error& error) {
  showMessage(sentences(error), false);
}

void PicturePanel::showMessage(const std::string& text, bool canUndo) {
  mMessageText.set_text(text);
  mUndo.set_visible(canUndo);
  mMessage.set_reveal_child(true);
}

}  // namespace vesk::camera
