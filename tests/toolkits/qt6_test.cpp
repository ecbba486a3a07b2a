// Previews in windows of Qt 6. Needs an X display of its own: xvfb-run qt6_test.
//
//   VESK_HAS_WINDOW_MANAGER   windows can be minimized, and are not where they want to be
#include <QtCore/QEventLoop>
#include <QtGui/QScreen>
#include <QtWidgets/QApplication>
#include <QtWidgets/QStackedWidget>

#include <cstdlib>

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

  ::testing::AssertionResult shows(int level) { return test::shows(*widget, level); }

  QStackedWidget window;
  Widget* const widget = new Widget;
};

TEST_F(Qt6, DrawsOnlyThePictureThatIsNewest) {
  expectToDrawOnlyTheNewest(*widget, widget->draws);
}

TEST_F(Qt6, CostsNothingWhileItIsNotOnShow) {
  expectNoCostWhileHidden(*widget,
                          {{"another page", [&] { window.setCurrentIndex(1); }, [&] { window.setCurrentIndex(0); }},
                           {"hidden window", [&] { window.hide(); }, [&] { window.show(); }},
                           {"minimized", [&] { window.showMinimized(); }, [&] { window.showNormal(); }}});
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
  expectExactPicturesAtOddSizes(*widget, widget->devicePixelRatio(),
                                [&](int width, int height) { window.resize(width, height); });
}

}  // namespace

void serveLoop() {
  QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
}

}  // namespace vesk::test

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  const QApplication application(argc, argv);
  return RUN_ALL_TESTS();
}
