#pragma once

#include <gtkmm.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "apps/camera/presence.h"

namespace vesk::camera {

/// Something that a person is told in one line, with what can be done about it.
struct Message {
  enum class Kind { kNote, kProblem };
  struct Action {
    std::string label;
    std::function<void()> run;
  };

  std::string id;  ///< a newer message of the same takes its place
  Kind kind = Kind::kNote;
  std::string text;
  std::vector<Action> actions;
  bool endsByItself = false;  ///< goes after some seconds
};

/// The messages that stand over the picture, the newest at the bottom.
class MessageList : public Gtk::Box {
 public:
  MessageList();
  void show(const Message& message);
  /// Nothing when there is none.
  void remove(const std::string& id);
  /// One that holds as long as something is so.
  void showWhile(bool isSo, const Message& message);
  /// Whether the buttons of a message stand below its text.
  void setNarrow(bool isNarrow);
  bool has(const std::string& id) const { return mRows.count(id) > 0; }
  const Presence<MessageList>& presence() const { return mPresence; }

 private:
  struct Row {
    std::string text;
    Gtk::Grid* widget = nullptr;
    Gtk::Box* buttons = nullptr;
    sigc::connection timeout;
  };
  Row makeRow(const Message& message);
  void placeButtons(const Row& row) const;

  std::map<std::string, Row> mRows;
  bool mIsNarrow = false;
  const Presence<MessageList> mPresence{this};
};

}  // namespace vesk::camera
