// Previews in windows of Qt 6. Needs an X display of its own: xvfb-run qt6_test.
//
//   VESK_HAS_WINDOW_MANAGER   windows can be minimized, and are not where they want to be
#include <QtCore/QElapsedTimer>
#include <QtCore/QEventLoop>
#include <QtGui/QScreen>
#include <QtWidgets/QApplication>
#include <QtWidgets/QStackedWidget>

#include <cstdlib>
#include <functional>
#include <memory>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include <vesk/qt6.h>
#include "tests/toolkits/shown_pictures.h"

namespace vesk::test {
namespace {

class Widget : public qt6::PreviewWidget {
 public:
  int draws = 0;
  Pixels shown;

 protected:
  void paintGL() override {
    PreviewWidget::paintGL();
    ++draws;
    shown = readFramebuffer(view->frame());
  }
};

/// Runs the event loop until that is so.
::testing::AssertionResult comes(const std::function<bool()>& isSo) {
  QElapsedTimer time;
  time.start();
  while (!isSo() && !time.hasExpired(60'000)) QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
  return isSo() ? ::testing::AssertionSuccess() : ::testing::AssertionFailure() << "it did not come";
}

void runFor(int milliseconds) {
  QElapsedTimer time;
  time.start();
  comes([&] { return time.hasExpired(milliseconds); });
}

class Qt6 : public ::testing::Test {
 protected:
  Qt6() {
    window.setWindowFlags(::Qt::FramelessWindowHint);
    window.resize(401, 303);
    window.addWidget(widget);
    window.addWidget(new QWidget);
    window.show();
    EXPECT_TRUE(shows(50));
    countUploads();
  }

  ::testing::AssertionResult shows(int level) {
    widget->view->refresh(gray(level));
    return comes([&] { return widget->shown.middle() == level; });
  }

  QStackedWidget window;
  Widget* const widget = new Widget;
};

TEST_F(Qt6, DrawsOnlyThePictureThatIsNewest) {
  runFor(100);
  const int drawsBefore = widget->draws;
  gUploads = 0;
  for (int i = 0; i < 30; ++i) {
    for (int waiting = 3; waiting >= 0; --waiting) widget->view->refresh(gray(100 + 3 * i - 40 * waiting % 100));
    const int draws = widget->draws;
    ASSERT_TRUE(comes([&] { return widget->draws > draws; }));
    EXPECT_EQ(widget->shown.middle(), 100 + 3 * i) << "in the first drawing";
  }
  EXPECT_EQ(widget->draws - drawsBefore, 30);
  EXPECT_EQ(gUploads, 30);
  runFor(200);
  EXPECT_EQ(widget->draws - drawsBefore, 30) << "nothing new, and drawn";
}

TEST_F(Qt6, CostsNothingWhileItIsNotOnShow) {
  const struct {
    const char* name;
    std::function<void()> hide, show;
  } kWays[] = {
      {"another page", [&] { window.setCurrentIndex(1); }, [&] { window.setCurrentIndex(0); }},
      {"hidden window", [&] { window.hide(); }, [&] { window.show(); }},
      {"minimized", [&] { window.showMinimized(); }, [&] { window.showNormal(); }},
  };
  int level = 60;
  for (const auto& way : kWays) {
    if (std::string(way.name) == "minimized" && !std::getenv("VESK_HAS_WINDOW_MANAGER")) continue;
    SCOPED_TRACE(way.name);
    way.hide();
    runFor(100);
    const int draws = widget->draws;
    gUploads = 0;
    for (int i = 0; i < 20; ++i) {
      widget->view->refresh(gray(++level));
      runFor(10);
    }
    EXPECT_EQ(widget->draws, draws);
    EXPECT_EQ(gUploads, 0);
    way.show();
    EXPECT_TRUE(comes([&] { return widget->draws > draws && widget->shown.middle() == level; }));
    EXPECT_TRUE(shows(++level));
  }
}

TEST_F(Qt6, GoesOnInAnotherWindowAndOutlivesItsContext) {
  QStackedWidget second;
  second.resize(301, 257);
  int level = 60;
  for (int i = 0; i < 3; ++i) {
    second.addWidget(widget);  // which makes a context of its own
    widget->show();
    second.show();
    EXPECT_TRUE(shows(++level));
    second.removeWidget(widget);
    window.insertWidget(0, widget);
    window.setCurrentIndex(0);
    EXPECT_TRUE(shows(++level));
  }
  const auto view = widget->view;
  delete widget;
  view->refresh(gray(1));
  EXPECT_EQ(view->window(), nullptr);
}

TEST_F(Qt6, ShowsUnscaledPicturesExactlyAtOddSizesAndFractionalScales) {
  if (std::getenv("VESK_HAS_WINDOW_MANAGER")) GTEST_SKIP();
  const double scale = widget->devicePixelRatio();
  std::mt19937 random(1);
  for (int i = 0; i < 12; ++i) {
    const int width = 230 + static_cast<int>(random() % 90);
    const int height = 140 + static_cast<int>(random() % 40);
    window.resize(width, height);
    const QSize pixels = QSize(width, height) * scale;
    const auto picture = noise(pixels.width() - static_cast<int>(random() % 40) - 1,
                               pixels.height() - static_cast<int>(random() % 30) - 1);
    ASSERT_TRUE(VeskPreviewView::showsUnscaled({picture->extent().width, picture->extent().height}));
    widget->view->refresh(picture);
    ASSERT_TRUE(
        comes([&] { return widget->shown.width == pixels.width() && widget->shown.height == pixels.height(); }));
    EXPECT_TRUE(comes([&] { return isExact(widget->shown, picture); })) << width << " x " << height;
    EXPECT_TRUE(comes([&] { return isExact(readScreen(pixels.width(), pixels.height()), picture); }))
        << "on the screen";
  }
}

}  // namespace
}  // namespace vesk::test

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  const QApplication application(argc, argv);
  return RUN_ALL_TESTS();
}
