#include "apps/camera/last_item.h"

#include <unistd.h>

#include <filesystem>

#include <vesk/dispatch_queue.h>
#include "apps/camera/text.h"
#include "apps/camera/widgets.h"

namespace vesk::camera {
namespace {

constexpr int kSize = 48;  ///< pixels

/// A picture cut to a square, from another thread; null when the file is none.
Glib::RefPtr<Gdk::Pixbuf> readSquare(const std::string& picture) {
  try {
    const auto whole = Gdk::Pixbuf::create_from_file(picture, kSize * 4, kSize * 2, true);
    const int side = std::min(whole->get_width(), whole->get_height());
    return Gdk::Pixbuf::create_subpixbuf(whole, (whole->get_width() - side) / 2, (whole->get_height() - side) / 2, side,
                                         side);
  } catch (const Glib::Error&) {
    return {};
  }
}

}  // namespace

LastItem::LastItem() {
  mButton.set_child(mImage);
  mButton.add_css_class("last-item");
  mButton.signal_clicked().connect([this] { open(); });
  mImage.set_pixel_size(kSize);
  append(mButton);
  set_visible(false);
}

void LastItem::show(const std::string& file, const std::string& picture, bool removesPicture) {
  mFile = file;
  const std::string name = std::filesystem::path(file).filename();
  describe(mButton, filled(_("Open “{}”"), name));
  set_visible(true);
  const auto show = mPresence.whileThere([file](LastItem& item, const Glib::RefPtr<Gdk::Pixbuf>& square) {
    if (item.mFile != file) return;  // a newer one has come meanwhile
    if (square)
      item.mImage.set(Gdk::Texture::create_for_pixbuf(square));
    else
      item.mImage.set_from_icon_name("video-x-generic-symbolic");
  });
  DispatchQueue::globalQueue()->async([show, picture, removesPicture] {
    auto square = readSquare(picture);
    if (removesPicture) unlink(picture.c_str());
    DispatchQueue::mainQueue()->async([show, square = std::move(square)] { show(square); });
  });
}

void LastItem::open() {
  if (mFile.empty()) return;
  auto* const window = dynamic_cast<Gtk::Window*>(get_root());
  gtk_show_uri(window ? window->gobj() : nullptr, Glib::filename_to_uri(mFile).c_str(), GDK_CURRENT_TIME);
}

void LastItem::showInFolder() {
  if (!mFile.empty()) showInFileManager(mFile);
}

void showInFileManager(const std::string& file) {
  const std::string folder = Glib::filename_to_uri(std::filesystem::path(file).parent_path().string());
  const auto openFolder = [folder] { gtk_show_uri(nullptr, folder.c_str(), GDK_CURRENT_TIME); };
  try {
    const auto bus = Gio::DBus::Connection::get_sync(Gio::DBus::BusType::SESSION);
    const auto arguments = Glib::VariantContainerBase::create_tuple(
        std::vector<Glib::VariantBase>{Glib::Variant<std::vector<Glib::ustring>>::create({Glib::filename_to_uri(file)}),
                                       Glib::Variant<Glib::ustring>::create("")});
    bus->call(
        "/org/freedesktop/FileManager1", "org.freedesktop.FileManager1", "ShowItems", arguments,
        [bus, openFolder](const Glib::RefPtr<Gio::AsyncResult>& result) {
          try {
            bus->call_finish(result);
          } catch (const Glib::Error&) {
            openFolder();
          }
        },
        "org.freedesktop.FileManager1");
  } catch (const Glib::Error&) {
    openFolder();
  }
}

}  // namespace vesk::camera
