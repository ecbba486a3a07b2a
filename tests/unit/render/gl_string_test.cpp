#include <vesk/gl_string.h>

#include <epoxy/gl.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/font_caches.h"
#include "tests/support/log_recorder.h"
#include "tests/support/offscreen_host.h"
#include "tests/support/pictures.h"

namespace vesk {
namespace {

using test::Colour;
using test::drawnColour;
using test::isNear;

constexpr int kSide = 200;

/// A view whose only drawing is what a test does; a point is a pixel.
struct Canvas : NSOpenGLView {
  Canvas() : NSOpenGLView({0, 0, kSide, kSide}, nullptr) {}
  void drawRect(NSRect /*rect*/) override {}
};

struct GLStringTest : testing::Test {
  GLStringTest() {
    canvas.setWindow(&host);
    canvas.displayIfNeeded();
    glViewport(0, 0, kSide, kSide);
    glMatrixMode(GL_PROJECTION);
    glOrtho(0, kSide, 0, kSide, -1, 1);
    glMatrixMode(GL_MODELVIEW);
    clear();
  }
  ~GLStringTest() override {
    text.reset();
    canvas.setWindow(nullptr);
  }

  static void clear() {
    glClearColor(0, 0, 1, 1);
    glClear(GL_COLOR_BUFFER_BIT);
    glColor4f(1, 1, 1, 1);
  }

  static int countIn(NSRect rect, Colour colour, int tolerance) {
    int count = 0;
    for (int y = static_cast<int>(rect.y); y < static_cast<int>(rect.y + rect.height); ++y)
      for (int x = static_cast<int>(rect.x); x < static_cast<int>(rect.x + rect.width); ++x)
        count += isNear(drawnColour(x, y), colour, tolerance) ? 1 : 0;
    return count;
  }

  std::shared_ptr<GLString> make(const std::string& string, NSColor box = NSColor::clearColor()) {
    NSTextAttributes attributes;
    attributes.font = NSFont::fontWithName("Sans", 30);
    auto made = GLString::initWithString(string, attributes, NSColor::whiteColor(), box, NSColor::clearColor());
    made->setParentView(&canvas);
    return made;
  }

  test::OffscreenHost host{{kSide, kSide}};
  Canvas canvas;
  std::shared_ptr<GLString> text;
};

constexpr Colour kBlue{0, 0, 255};
constexpr Colour kWhite{255, 255, 255};

TEST_F(GLStringTest, DrawsUprightAtItsOwnSize) {
  text = make("L");
  text->drawAtPoint({50, 60});
  const NSSize size = text->texSize();
  EXPECT_EQ(size, text->frameSize());
  EXPECT_EQ(countIn({0, 0, kSide, 60}, kBlue, 0), kSide * 60) << "nothing below";
  const NSRect lower{50, 60, size.width, size.height / 2};
  const NSRect upper{50, 60 + size.height / 2, size.width, size.height / 2};
  EXPECT_GT(countIn(lower, kWhite, 60), countIn(upper, kWhite, 60)) << "the foot of an L";
  EXPECT_GT(countIn(upper, kWhite, 60), 10);
}

TEST_F(GLStringTest, TakesTheCurrentColourAndRestoresGL) {
  text = make("M");
  glColor4f(1, 0, 0, 1);
  text->drawAtPoint({50, 60});
  EXPECT_GT(countIn({50, 60, text->texSize().width, text->texSize().height}, {255, 0, 0}, 60), 50);
  EXPECT_FALSE(glIsEnabled(GL_TEXTURE_RECTANGLE));
  EXPECT_FALSE(glIsEnabled(GL_BLEND));
  EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
}

TEST_F(GLStringTest, StretchesOverBoundsWithItsBox) {
  text = make("", NSColor::colorWithDeviceRed(1, 0, 0, 0.5F));
  text->useStaticFrame({20, 10});
  text->drawWithBounds({100, 100, 40, 20});
  EXPECT_TRUE(isNear(drawnColour(120, 110), {128, 0, 127}, 2)) << "premultiplied over what was there";
  EXPECT_TRUE(isNear(drawnColour(99, 110), kBlue, 0));
  EXPECT_TRUE(isNear(drawnColour(100, 119), kBlue, 40)) << "a rounded corner";
}

TEST_F(GLStringTest, IsInvisibleWithoutAParentView) {
  text = make("Text");
  text->setParentView(nullptr);
  text->drawAtPoint({0, 60});
  EXPECT_NE(text->texName(), 0U);
  EXPECT_EQ(countIn({0, 0, kSide, kSide}, kBlue, 0), kSide * kSide);
}

TEST_F(GLStringTest, IsSharpOnAScaledWindow) {
  host.scale = 2;
  text = make("Text");
  text->genTexture();
  EXPECT_EQ(text->texSize().width, 2 * text->frameSize().width);
}

TEST_F(GLStringTest, FollowsItsTextUnlessTheFrameIsStatic) {
  text = make("Text");
  const NSSize plain = text->frameSize();
  text->setMargins({10, 10});
  EXPECT_EQ(text->frameSize(), (NSSize{plain.width + 12, plain.height + 16}));
  text->useStaticFrame({50, 20});
  text->setMargins({1, 1});
  text->setString(NSAttributedString::initWithString("A longer text"));
  EXPECT_EQ(text->frameSize(), (NSSize{50, 20}));
  text->genTexture();
  EXPECT_EQ(text->texSize(), (NSSize{50, 20}));
  text->useDynamicFrame();
  EXPECT_NE(text->frameSize(), (NSSize{50, 20}));
}

/// Which texture a drawing uses shows whether it was made anew.
TEST_F(GLStringTest, IsRebuiltOnlyAfterAChangeAndKeepsItsTexture) {
  text = make("Text");
  text->drawAtPoint({10, 10});
  const uint32_t name = text->texName();
  const NSSize size = text->texSize();
  // Marks the texture: a rebuild would paint over it.
  const auto isMarked = [&] {
    clear();
    text->drawWithBounds({0, 0, kSide, kSide});
    return isNear(drawnColour(100, 100), {0, 255, 0}, 2);
  };
  const auto mark = [&] {
    std::vector<uint8_t> green;
    for (int i = 0; i < static_cast<int>(size.width * size.height); ++i) green.insert(green.end(), {0, 255, 0, 255});
    glBindTexture(GL_TEXTURE_RECTANGLE, text->texName());
    glTexSubImage2D(GL_TEXTURE_RECTANGLE, 0, 0, 0, static_cast<int>(size.width), static_cast<int>(size.height), GL_RGBA,
                    GL_UNSIGNED_BYTE, green.data());
  };
  mark();
  EXPECT_TRUE(isMarked());
  text->useDynamicFrame();
  EXPECT_TRUE(isMarked()) << "the frame was dynamic already";
  text->setAntialias(false);
  EXPECT_FALSE(isMarked());
  EXPECT_EQ(text->texName(), name);
  for (const auto& change : std::vector<std::function<void()>>{[&] { text->setTextColor(NSColor::redColor()); },
                                                               [&] { text->setBoxColor(NSColor::clearColor()); },
                                                               [&] { text->setBorderColor(NSColor::clearColor()); },
                                                               [&] {
                                                                 text->setMargins({4, 2});
                                                               }}) {
    mark();
    change();
    EXPECT_FALSE(isMarked());
  }
  text->setString(NSAttributedString::initWithString("A much longer text"));
  text->genTexture();
  EXPECT_EQ(text->texName(), name);
  GLint width = 0;
  glBindTexture(GL_TEXTURE_RECTANGLE, name);
  glGetTexLevelParameteriv(GL_TEXTURE_RECTANGLE, 0, GL_TEXTURE_WIDTH, &width);
  EXPECT_EQ(static_cast<float>(width), text->texSize().width);
  EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
}

TEST_F(GLStringTest, DeletesItsTextureInItsOwnContext) {
  text = make("Text");
  text->genTexture();
  const uint32_t name = text->texName();
  const NSSize size = text->texSize();
  test::OffscreenHost other({10, 10});
  const auto otherContext = NSOpenGLContext::initWithWindow(other);
  otherContext->makeCurrentContext();
  GLuint stranger = 0;
  glGenTextures(1, &stranger);
  glBindTexture(GL_TEXTURE_2D, stranger);
  EXPECT_EQ(stranger, name) << "the same name in another context";
  text->deleteTexture();
  EXPECT_EQ(CGLGetCurrentContext(), otherContext);
  EXPECT_TRUE(glIsTexture(stranger));
  canvas.openGLContext()->makeCurrentContext();
  EXPECT_FALSE(glIsTexture(name));
  EXPECT_EQ(text->texName(), 0U);
  EXPECT_EQ(text->texSize(), size);
  text->genTexture();
  clear();
  text->drawAtPoint({10, 10});
  EXPECT_GT(countIn({10, 10, size.width, size.height}, kWhite, 60), 50) << "specified in full again";
}

TEST_F(GLStringTest, LogsThatThereIsNoContextAndWaitsForAChange) {
  NSOpenGLContext::clearCurrentContext();
  test::LogRecorder log;
  text = make("Text");
  text->genTexture();
  EXPECT_EQ(log.items(),
            (std::vector<std::string>{"StringTexture -genTexture: Failure to get current OpenGL context"}));
  EXPECT_EQ(text->texName(), 0U);
  EXPECT_EQ(text->texSize(), text->frameSize());
  canvas.openGLContext()->makeCurrentContext();
  text->drawAtPoint({10, 10});
  EXPECT_EQ(text->texName(), 0U);
  text->setTextColor(NSColor::whiteColor());
  text->drawAtPoint({10, 10});
  EXPECT_NE(text->texName(), 0U);
}

TEST_F(GLStringTest, ShowsNothingOfWhatIsTooLargeOrEmpty) {
  text = make("Text");
  text->genTexture();
  GLint most = 0;
  glGetIntegerv(GL_MAX_RECTANGLE_TEXTURE_SIZE, &most);
  test::LogRecorder log;
  for (const NSSize size : {NSSize{1e6F, 10}, NSSize{static_cast<float>(most) + 1, 10}, NSSize{0, 10}}) {
    text->useStaticFrame({20, 10});
    text->genTexture();
    EXPECT_NE(text->texName(), 0U);
    text->useStaticFrame(size);
    text->drawWithBounds({0, 0, 10, 10});
    text->drawWithBounds({0, 0, 10, 10});
    EXPECT_EQ(text->texName(), 0U);
  }
  EXPECT_EQ(log.items().size(), 2U) << "one line for each that is too large";
  EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
  EXPECT_EQ(countIn({0, 0, 10, 10}, kBlue, 0), 100);
}

}  // namespace
}  // namespace vesk
