// Previews in windows of GTK 4. Needs an X display of its own: xvfb-run gtk4_test.
//
//   VESK_HAS_WINDOW_MANAGER   windows can be minimized, and are not where they want to be
//   VESK_SECOND_DISPLAY       another display, for windows that move
//   VESK_WINDOWS              how many are opened and closed
#include <gtkmm.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>

#include <vesk/capture_choices.h>
#include <vesk/capture_host.h>
#include <vesk/device_manager.h>
#include <vesk/gtk4.h>
#include <vesk/preview_session.h>
#include <vesk/video_device.h>
#include "tests/toolkits/shown_pictures.h"

namespace vesk::test {
namespace {

class Area : public gtk4::PreviewArea {
 public:
  int draws = 0;
  Pixels shown;

 protected:
  bool on_render(const Glib::RefPtr<Gdk::GLContext>& context) override {
    PreviewArea::on_render(context);
    ++draws;
    shown = readFramebuffer(view->frame());
    return true;
  }
};

class Gtk4 : public ::testing::Test {
 protected:
  Gtk4() {
    window.set_decorated(false);
    window.set_default_size(401, 303);
    stack.add(area);
    stack.add(other);
    window.set_child(stack);
    window.present();
    EXPECT_TRUE(shows(50));
    countUploads();
  }
  ~Gtk4() override {
    window.close();
    runFor(std::chrono::milliseconds(20));
  }

  ::testing::AssertionResult shows(int level) { return test::shows(area, level); }

  Gtk::Window window;
  Gtk::Stack stack;
  Area area;
  Gtk::Label other;
};

TEST_F(Gtk4, DrawsThePictureThatIsNewestAtTheNextRefresh) {
  int painted = 0;
  GdkFrameClock* const clock = gtk_widget_get_frame_clock(GTK_WIDGET(area.gobj()));
  const auto handler =
      g_signal_connect_swapped(clock, "after-paint", G_CALLBACK(+[](int* count) { ++*count; }), &painted);
  expectToDrawOnlyTheNewest(area, painted);
  g_signal_handler_disconnect(clock, handler);
}

TEST_F(Gtk4, CostsNothingWhileItIsNotOnShow) {
  expectNoCostWhileHidden(
      area, {{"hidden", [&] { stack.set_visible(false); }, [&] { stack.set_visible(true); }},
             {"another page", [&] { stack.set_visible_child(other); }, [&] { stack.set_visible_child(area); }},
             {"hidden window", [&] { window.set_visible(false); }, [&] { window.set_visible(true); }},
             {"unrealized", [&] { window.unset_child(); }, [&] { window.set_child(stack); }},
             {"minimized", [&] { window.minimize(); }, [&] { window.unminimize(), window.present(); }}});
}

TEST_F(Gtk4, GoesOnInAnotherWindowAndOnAnotherDisplay) {
  Gtk::Window second;
  const auto* const name = std::getenv("VESK_SECOND_DISPLAY");
  const auto display = name ? Gdk::Display::open(name) : window.get_display();
  ASSERT_TRUE(display);
  second.set_display(display);
  second.set_default_size(301, 257);
  int level = 60;
  for (int i = 0; i < 3; ++i) {
    window.unset_child();
    area.view->refresh(gray(++level));
    second.set_child(stack);
    second.present();
    EXPECT_TRUE(comes([&] { return area.shown.middle() == level; }));
    EXPECT_TRUE(shows(++level));
    second.unset_child();
    second.set_visible(false);
    window.set_child(stack);
    EXPECT_TRUE(shows(++level));
  }
  area.view->refresh(gray(++level));
  window.set_display(display);  // with all that is in it
  EXPECT_TRUE(comes([&] { return area.shown.middle() == level; }));
  EXPECT_TRUE(shows(++level));
  second.close();
}

TEST_F(Gtk4, ShowsUnscaledPicturesExactlyAtOddSizes) {
  if (std::getenv("VESK_HAS_WINDOW_MANAGER")) GTEST_SKIP();
  expectExactPicturesAtOddSizes(area, window.get_scale_factor(),
                                [&](int width, int height) { window.set_default_size(width, height); });
}

/// Windows come and go in each order of window and session, while frames arrive on the camera's thread.
TEST(Gtk4Windows, OpenAndCloseWhileACameraRuns) {
  const char* const number = std::getenv("VESK_WINDOWS");
  const auto camera =
      VeskVideoDevice::initWithDeviceInfo(VeskDeviceManager::getSharedInstance()->getVideoDeviceList()->front());
  ASSERT_EQ(camera->openDevice(), 0);
  chooseVideoFormat(*camera);
  const auto session = VeskPreviewSession::initWithDevice(camera, nullptr);
  std::unique_ptr<Gtk::Window> last;  // a window that outlives the next one's beginning
  for (int i = 0; i < (number ? std::atoi(number) : 6); ++i) {
    auto window = std::make_unique<Gtk::Window>();
    auto* const area = Gtk::make_managed<Area>();
    window->set_default_size(300, 200);
    window->set_child(*area);
    window->present();
    ASSERT_EQ(session->startSessionWithPreview(area->view), 0);
    ASSERT_TRUE(comes([&] { return area->draws >= 3; }));
    if (i % 3 == 1) session->stopSession();
    if (i % 2 == 0) window->close();
    last = std::move(window);
  }
  last.reset();
  EXPECT_GT(session->statistics().shown, 0U);
  session->closeSession();
}

}  // namespace

void serveLoop() {
  auto turn = Glib::signal_timeout().connect([] { return true; }, 5);  // so that the loop looks again
  g_main_context_iteration(nullptr, TRUE);
  turn.disconnect();
}

}  // namespace vesk::test

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  gtk_init();
  const auto application = Gtk::Application::create();
  vesk::capture::selectSource("simulated", {});
  const int status = RUN_ALL_TESTS();
  vesk::VeskDeviceManager::destroy();
  return status;
}
