// What is drawn is the same in every kind of context, and a host finds its GL state as it was.
#include <epoxy/gl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <ostream>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <vesk/bitmap_image_rep.h>
#include <vesk/camera_status_display.h>
#include <vesk/gl_string.h>
#include <vesk/preview_view.h>
#include "platform/graphics/gl_features.h"
#include "tests/support/gl_state_snapshot.h"
#include "tests/support/offscreen_host.h"
#include "tests/support/pictures.h"
#include "tests/support/temporary_folder.h"

namespace vesk {
namespace {

using test::kPictureFormats;
using test::OffscreenHost;
using test::PictureFormat;
using Profile = OffscreenHost::Profile;
using Matrix = YCbCrColour::Matrix;

/// A kind of context, and whether its renderer is taken for a graphics card.
struct ContextRow {
  const char* name;
  Profile profile;
  GLLimits limits;
};

std::ostream& operator<<(std::ostream& stream, const ContextRow& row) {
  return stream << row.name;
}

constexpr ContextRow kContexts[] = {
    {"Compatibility", Profile::kCompatibility, {}},
    {"OpenGL21", Profile::kCompatibility, {.version = 21}},
    {"Core", Profile::kCore, {.version = 32}},
    {"ES2", Profile::kES2, {.version = 20}},
    {"ES2WithoutExtensions", Profile::kES2, {.version = 20, .hasNoBGRA = true, .hasNoRowLength = true}},
    {"ES3", Profile::kES3, {.version = 30}},
};

/// Fails when the driver has anything to say of a call: an error, undefined behaviour, a slow way.
void GLAPIENTRY onMessage(GLenum /*source*/, GLenum type, GLuint /*id*/, GLenum severity, GLsizei /*length*/,
                          const GLchar* message, const void* /*context*/) {
  if (severity == GL_DEBUG_SEVERITY_NOTIFICATION || type == GL_DEBUG_TYPE_OTHER) return;
  ADD_FAILURE() << "GL: " << message;
}

/// A window of one kind of context, watched.
class WatchedHost : public OffscreenHost {
 public:
  WatchedHost(NSSize size, const ContextRow& row) : OffscreenHost(size, row.profile), mRow(row) {}

  bool makeContextCurrent() override {
    limitGL(mRow.limits);
    if (!OffscreenHost::makeContextCurrent()) return false;
    if (framebuffer) glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
    glEnable(GL_DEBUG_OUTPUT);
    glEnable(GL_DEBUG_OUTPUT_SYNCHRONOUS);
    glDebugMessageCallback(onMessage, nullptr);
    return true;
  }

  GLuint framebuffer = 0;  ///< to be drawn into, if not the window's own

 private:
  const ContextRow& mRow;
};

struct Scene {
  explicit Scene(const ContextRow& row, NSSize size = {64, 64}) : host(size, row) { view->setWindow(&host); }
  ~Scene() {
    view->setWindow(nullptr);
    limitGL({});
  }

  void resize(NSSize size) {
    host.resize(size);
    view->setFrame({0, 0, size.width, size.height});
  }

  CGImageRef snapshot() const {
    CGImageRef shown = view->snapshot();
    view->openGLContext()->makeCurrentContext();
    EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
    return shown;
  }

  WatchedHost host;
  std::shared_ptr<VeskPreviewView> view = VeskPreviewView::initWithFrame({0, 0, 64, 64});
};

CIImageRef noise(int32_t width, int32_t height, const PictureFormat& format, std::minstd_rand& random) {
  return CIImage::imageWithCVImageBuffer(test::noisePicture(width, height, format.format, format.colour, random));
}

int largestDifference(const CGImage& a, const CGImage& b) {
  if (a.pixels() == b.pixels()) return 0;
  if (a.pixels().size() != b.pixels().size()) return 256;
  int largest = 0;
  for (size_t i = 0; i < a.pixels().size(); ++i) largest = std::max(largest, std::abs(a.pixels()[i] - b.pixels()[i]));
  return largest;
}

struct Sizes : testing::TestWithParam<bool> {};

/// As a card converts and scales it in a shader, and as a software renderer has it done on the CPU.
TEST_P(Sizes, ShowTheSameInEveryContext) {
  const bool isHardware = GetParam();
  std::vector<ContextRow> rows(std::begin(kContexts), std::end(kContexts));
  for (ContextRow& row : rows) row.limits.isHardware = isHardware;
  std::vector<std::unique_ptr<Scene>> scenes;
  scenes.reserve(rows.size());
  for (const ContextRow& row : rows) scenes.push_back(std::make_unique<Scene>(row));
  std::minstd_rand random(isHardware ? 1 : 2);
  const auto side = [&random](int least, int most) { return static_cast<int32_t>(random() % (most - least)) + least; };
  for (int trial = 0; trial < 96; ++trial) {
    const PictureFormat& format = kPictureFormats[trial % std::size(kPictureFormats)];
    const NSSize size{static_cast<float>(side(1, 500)), static_cast<float>(side(1, 400))};
    const bool isScaled = trial % 3 != 0;
    const int32_t width = isScaled ? side(640, 1000) : side(1, 639);
    const int32_t height = isScaled ? side(1, 600) : side(1, 359);
    const auto image = noise(width, height, format, random);
    const auto next = noise(width, height, format, random);
    const NSRect part{static_cast<float>(side(0, 200)), static_cast<float>(side(0, 200)),
                      static_cast<float>(side(1, 300)), static_cast<float>(side(1, 300))};
    ASSERT_TRUE(image && next) << format.name << ' ' << width << " x " << height;
    CGImageRef first;
    CGImageRef firstPart;
    for (size_t i = 0; i < scenes.size(); ++i) {
      Scene& scene = *scenes[i];
      scene.resize(size);
      scene.view->setIsRecording(trial % 2 == 0 ? 1 : 0);
      scene.view->refresh(image);
      const CGImageRef whole = scene.snapshot();
      ASSERT_TRUE(whole);
      scene.view->setImage(next, part);
      scene.view->displayIfNeeded();
      // Read back as it is after the partial drawing.
      scene.host.makeContextCurrent();
      const auto after =
          CGImage::create(whole->width(), whole->height(), test::drawnPixels(whole->width(), whole->height()));
      EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
      if (i == 0) {
        first = whole;
        firstPart = after;
        continue;
      }
      const int allowed = isScaled ? 1 : 0;
      ASSERT_LE(largestDifference(*first, *whole), allowed)
          << rows[i].name << ": " << width << " x " << height << " in " << size.width << " x " << size.height
          << ", format " << trial % std::size(kPictureFormats);
      ASSERT_LE(largestDifference(*firstPart, *after), allowed) << rows[i].name << ", a part";
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Ways, Sizes, testing::Bool(),
                         [](const auto& row) { return row.param ? "OfACard" : "OfASoftwareRenderer"; });

/// What a shader makes of each value is what libyuv does, so an unscaled picture is the same on every machine.
TEST(DrawingContexts, ConvertEveryColourAsTheCPUDoes) {
  constexpr int32_t kSide = 1024;
  constexpr size_t kPixels = size_t{kSide} * kSide;
  const auto memory = std::make_shared<std::vector<uint8_t>>(3 * kPixels);
  for (size_t i = 0; i < kPixels; ++i) {  // all of Y, and every fourth of Cb and Cr
    (*memory)[i] = static_cast<uint8_t>(i);
    (*memory)[i + kPixels] = static_cast<uint8_t>((i >> 8 & 63) * 4 + (i & 3));
    (*memory)[i + 2 * kPixels] = static_cast<uint8_t>((i >> 14) * 4 + (i >> 2 & 3));
  }
  const auto* const data = memory->data();
  const CVPixelBuffer::Planes planes{PixelPlane{data, kSide}, PixelPlane{data + kPixels, kSide},
                                     PixelPlane{data + 2 * kPixels, kSide}};
  std::vector<uint8_t> pixels(4 * kPixels);
  for (const YCbCrColour colour : {YCbCrColour{}, YCbCrColour{Matrix::kBT709, false}, YCbCrColour{Matrix::kBT601, true},
                                   YCbCrColour{Matrix::kBT709, true}}) {
    const auto image = CIImage::imageWithCVImageBuffer(
        CVPixelBuffer::wrap(kSide, kSide, kCVPixelFormat_444Planar, planes, colour, memory));
    const CGImageRef expected = CIContext().createCGImage(image, image->extent());
    for (const ContextRow& row : kContexts) {
      ContextRow card = row;
      card.limits.isHardware = true;
      WatchedHost host({kSide, kSide}, card);
      const auto context = NSOpenGLContext::initWithWindow(host);
      context->makeCurrentContext();
      context->setCoordinates({kSide, kSide});
      CIContext(context).drawImage(image, CGPoint{0, 0}, image->extent());
      for (int32_t y = 0; y < kSide; ++y)
        glReadPixels(0, kSide - 1 - y, kSide, 1, GL_RGBA, GL_UNSIGNED_BYTE,
                     pixels.data() + 4 * static_cast<size_t>(kSide * y));
      EXPECT_TRUE(pixels == expected->pixels()) << row.name;
      EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
    }
  }
  limitGL({});
}

/// Stripes of one pixel are an even grey when they become much smaller, on a card too.
TEST(DrawingContexts, DoNotAliasWhatBecomesMuchSmaller) {
  std::vector<CIImageRef> images;
  for (const uint32_t format : {kCVPixelFormat_420Planar, kCMPixelFormat_422YpCbCr8, kCVPixelFormat_32BGRA})
    images.push_back(CIImage::imageWithCVImageBuffer(test::stripedPicture(1280, 720, format)));
  for (const ContextRow& row : kContexts) {
    ContextRow card = row;
    card.limits.isHardware = true;
    Scene scene(card);
    for (const float height : {330.F, 211.F, 97.F, 20.F}) {
      scene.resize({height * 2, height});
      for (const CIImageRef& image : images) {
        scene.view->refresh(image);
        const CGImageRef shown = scene.snapshot();
        ASSERT_TRUE(shown);
        int least = 255;
        int most = 0;
        for (int y = 2; y < shown->height() - 2; y += 3)
          for (int x = shown->width() / 4; x < shown->width() * 3 / 4; ++x) {
            least = std::min(least, test::colourAt(*shown, x, y).green);
            most = std::max(most, test::colourAt(*shown, x, y).green);
          }
        const uint32_t format = image->imageBuffer()->pixelFormat();
        EXPECT_LE(most - least, 48) << row.name << ", " << height << " high, " << format;
        EXPECT_NEAR((most + least) / 2.0, 128, 8) << row.name << ", " << height << " high, " << format;
      }
    }
  }
}

uint64_t gUploaded = 0;
int gStorages = 0;
decltype(epoxy_glTexSubImage2D) gUpload = nullptr;
decltype(epoxy_glTexImage2D) gStore = nullptr;

void GLAPIENTRY countUpload(GLenum target, GLint level, GLint x, GLint y, GLsizei width, GLsizei height, GLenum format,
                            GLenum type, const void* pixels) {
  gUploaded += uint64_t(width) * uint64_t(height) * (format == GL_RED ? 1 : format == GL_RG ? 2 : 4);
  gUpload(target, level, x, y, width, height, format, type, pixels);
}
void GLAPIENTRY countStorage(GLenum target, GLint level, GLint storage, GLsizei width, GLsizei height, GLint border,
                             GLenum format, GLenum type, const void* pixels) {
  ++gStorages;
  gStore(target, level, storage, width, height, border, format, type, pixels);
}

/// A frame goes to the card as it was decoded, once, into the textures of the frame before.
TEST(DrawingContexts, UploadPlanesAsTheyAreAndOnce) {
  struct Row {
    uint32_t format;
    double bytesEach;  ///< a pixel
  };
  const ContextRow row{"Core", Profile::kCore, {.isHardware = true}};
  Scene scene(row);
  scene.resize({320, 200});
  std::minstd_rand random(4);
  const auto show = [&](uint32_t format) {
    scene.view->refresh(noise(640, 400, {"", format, {}}, random));
    scene.view->displayIfNeeded();
  };
  for (const Row& wanted :
       {Row{kCVPixelFormat_420Planar, 1.5}, Row{kCVPixelFormat_420BiPlanar, 1.5}, Row{kCVPixelFormat_422Planar, 2},
        Row{kCMPixelFormat_422YpCbCr8, 2}, Row{kCVPixelFormat_Gray, 1}, Row{kCVPixelFormat_32BGRA, 4}}) {
    show(wanted.format);
    gUpload = std::exchange(epoxy_glTexSubImage2D, countUpload);
    gStore = std::exchange(epoxy_glTexImage2D, countStorage);
    gUploaded = 0;
    gStorages = 0;
    show(wanted.format);
    EXPECT_EQ(static_cast<double>(gUploaded), 640 * 400 * wanted.bytesEach) << wanted.format;
    scene.view->setNeedsDisplay(true);
    scene.view->displayIfNeeded();
    EXPECT_EQ(static_cast<double>(gUploaded), 640 * 400 * wanted.bytesEach) << wanted.format << " drawn again";
    EXPECT_EQ(gStorages, 0) << wanted.format;
    epoxy_glTexSubImage2D = gUpload;
    epoxy_glTexImage2D = gStore;
  }
}

struct Contexts : testing::TestWithParam<ContextRow> {
  ~Contexts() override { limitGL({}); }

  /// A host's own program of the simplest kind.
  static GLuint makeProgram() {
    const bool isES = !epoxy_is_desktop_gl();
    const std::string version = isES ? "#version 100\n" : "#version 120\n";
    const bool isCore = !isES && isCoreProfile();
    const std::string head = isCore ? "#version 150\n" : version;
    const std::string vertex = head + (isCore ? "in" : "attribute") + " vec4 a; void main() { gl_Position = a; }";
    const std::string fragment = isCore ? head + "out vec4 c; void main() { c = vec4(1.0); }"
                                        : head + "void main() { gl_FragColor = vec4(1.0); }";
    const GLuint program = glCreateProgram();
    for (const auto& [kind, source] : {std::pair{GL_VERTEX_SHADER, vertex}, std::pair{GL_FRAGMENT_SHADER, fragment}}) {
      const GLuint shader = glCreateShader(kind);
      const char* const text = source.c_str();
      glShaderSource(shader, 1, &text, nullptr);
      glCompileShader(shader);
      glAttachShader(program, shader);
    }
    glLinkProgram(program);
    return program;
  }

  static bool isCoreProfile() {
    GLint profile = 0;
    glGetIntegerv(GL_CONTEXT_PROFILE_MASK, &profile);
    return (profile & GL_CONTEXT_CORE_PROFILE_BIT) != 0;
  }

  /// A framebuffer of the host's own with one colour, `samples` a pixel.
  static GLuint makeFramebuffer(int width, int height, int samples) {
    GLuint pixels = 0;
    GLuint framebuffer = 0;
    glGenRenderbuffers(1, &pixels);
    glBindRenderbuffer(GL_RENDERBUFFER, pixels);
    if (samples > 0)
      glRenderbufferStorageMultisample(GL_RENDERBUFFER, samples, GL_RGBA8, width, height);
    else
      glRenderbufferStorage(GL_RENDERBUFFER, GL_RGBA8, width, height);
    glGenFramebuffers(1, &framebuffer);
    glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
    glFramebufferRenderbuffer(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_RENDERBUFFER, pixels);
    EXPECT_EQ(glCheckFramebufferStatus(GL_FRAMEBUFFER), static_cast<GLenum>(GL_FRAMEBUFFER_COMPLETE));
    return framebuffer;
  }

  /// Everything that a host may have set, and that a drawing could stumble over or forget.
  static void disturb(bool isThree, bool isES2, bool hasSamplers) {
    const bool isES = !epoxy_is_desktop_gl();
    glUseProgram(makeProgram());
    GLuint names[6] = {};
    if (isThree) {
      glGenVertexArrays(1, names);
      glBindVertexArray(names[0]);
    }
    glGenBuffers(2, names + 1);
    glBindBuffer(GL_ARRAY_BUFFER, names[1]);
    glBufferData(GL_ARRAY_BUFFER, 64, nullptr, GL_STATIC_DRAW);
    glVertexAttribPointer(0, 3, GL_SHORT, GL_TRUE, 8, nullptr);
    glEnableVertexAttribArray(0);
    if (!isES2) {
      glBindBuffer(GL_PIXEL_UNPACK_BUFFER, names[2]);
      glBufferData(GL_PIXEL_UNPACK_BUFFER, 16, nullptr, GL_STATIC_DRAW);
    }
    for (GLenum unit = 0; unit < 5; ++unit) {
      glActiveTexture(GL_TEXTURE0 + unit);
      glGenTextures(1, names + 3);
      glBindTexture(GL_TEXTURE_2D, names[3]);
      if (!hasSamplers) continue;
      glGenSamplers(1, names + 4);
      glSamplerParameteri(names[4], GL_TEXTURE_WRAP_S, GL_REPEAT);
      glSamplerParameteri(names[4], GL_TEXTURE_MIN_FILTER, GL_LINEAR_MIPMAP_LINEAR);
      glBindSampler(unit, names[4]);
    }
    glActiveTexture(GL_TEXTURE2);
    glViewport(3, 5, 17, 19);
    glScissor(1, 2, 3, 4);
    for (const GLenum name :
         {GL_SCISSOR_TEST, GL_BLEND, GL_DEPTH_TEST, GL_CULL_FACE, GL_STENCIL_TEST, GL_SAMPLE_ALPHA_TO_COVERAGE})
      glEnable(name);
    if (isThree) glEnable(GL_RASTERIZER_DISCARD);
    glBlendFuncSeparate(GL_ZERO, GL_DST_COLOR, GL_ONE, GL_SRC_ALPHA);
    glBlendEquationSeparate(GL_FUNC_SUBTRACT, GL_FUNC_REVERSE_SUBTRACT);
    glColorMask(GL_TRUE, GL_FALSE, GL_TRUE, GL_FALSE);
    glClearColor(0, 0, 0, 0.25F);
    glStencilMask(0x5);
    glCullFace(GL_FRONT_AND_BACK);
    glPixelStorei(GL_UNPACK_ALIGNMENT, 8);
    glPixelStorei(GL_PACK_ALIGNMENT, 2);
    if (!isES2)
      for (const auto& [name, value] : {std::pair{GL_UNPACK_ROW_LENGTH, 7}, std::pair{GL_UNPACK_SKIP_ROWS, 2},
                                        std::pair{GL_UNPACK_SKIP_PIXELS, 3}, std::pair{GL_PACK_ROW_LENGTH, 999}})
        glPixelStorei(name, value);
    if (isES) return;
    glPolygonMode(GL_FRONT_AND_BACK, GL_LINE);
    glEnable(GL_COLOR_LOGIC_OP);
    glLogicOp(GL_INVERT);
    if (isThree) glEnable(GL_FRAMEBUFFER_SRGB);
    glEnable(GL_CLIP_DISTANCE0);
    if (isCoreProfile()) return;
    glMatrixMode(GL_TEXTURE);
    glScalef(0.5F, 3, 1);
    glTranslatef(1, 2, 3);
    glMatrixMode(GL_PROJECTION);
    glRotatef(30, 0, 0, 1);
    glMatrixMode(GL_MODELVIEW);
    glScalef(2, 2, 2);
    glColor4f(0.1F, 0.2F, 0.3F, 0.4F);
    for (const GLenum name : {GL_LIGHTING, GL_FOG, GL_ALPHA_TEST, GL_TEXTURE_GEN_S, GL_TEXTURE_2D}) glEnable(name);
    glTexEnvi(GL_TEXTURE_ENV, GL_TEXTURE_ENV_MODE, GL_DECAL);
    glMatrixMode(GL_TEXTURE);
  }
};

TEST_P(Contexts, GiveTheHostItsStateBackAndAreNotDisturbedByIt) {
  for (const bool isHardware : {false, true}) {
    ContextRow row = GetParam();
    row.limits.isHardware = isHardware;
    Scene calm(row, {320, 200});
    Scene disturbed(row, {320, 200});
    for (Scene* const scene : {&calm, &disturbed}) {
      scene->view->setFrame({0, 0, 320, 200});
      scene->view->setIsRecording(1);
    }
    disturbed.view->display();
    disturbed.host.makeContextCurrent();
    const int version = row.limits.version;
    disturb(version == 0 || version >= 30, version == 20, version == 0 || version == 30);
    ASSERT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
    const test::GLStateSnapshot before;
    std::minstd_rand random(5);
    for (const PictureFormat& format : kPictureFormats) {
      for (const auto& [width, height] : {std::pair{301, 180}, std::pair{800, 450}}) {
        const auto image = noise(width, height, format, random);
        calm.view->refresh(image);
        const CGImageRef expected = calm.snapshot();
        disturbed.view->refresh(image);
        const CGImageRef shown = disturbed.snapshot();
        ASSERT_TRUE(expected && shown);
        EXPECT_EQ(largestDifference(*expected, *shown), 0)
            << format.format << ", " << width << (isHardware ? " on a card" : "");
        ASSERT_EQ(before.differenceTo(test::GLStateSnapshot()), "") << format.format << ", " << width;
      }
    }
    disturbed.view->setImage(nullptr);
    disturbed.view->displayIfNeeded();
    ASSERT_EQ(before.differenceTo(test::GLStateSnapshot()), "") << "the black view";
    disturbed.view->setWindow(nullptr);
    disturbed.host.makeContextCurrent();
    ASSERT_EQ(before.differenceTo(test::GLStateSnapshot()), "") << "after the view has gone";
    EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
  }
}

TEST_P(Contexts, DrawIntoFramebuffersOfTheHostAtAnyPlace) {
  for (const bool isHardware : {false, true}) {
    for (const int samples : {0, 4}) {
      ContextRow row = GetParam();
      row.limits.isHardware = isHardware;
      if (samples > 0 && row.limits.version == 20) continue;  // has none
      Scene plain(row, {200, 100});
      plain.resize({200, 100});
      Scene left(row, {10, 10});
      left.host.makeContextCurrent();
      left.host.framebuffer = makeFramebuffer(500, 300, samples);
      glClearColor(0, 0, 1, 1);
      glClear(GL_COLOR_BUFFER_BIT);
      glClearColor(0, 0, 0, 0);
      left.host.keeps = false;
      left.view->setFrame({20, 30, 200, 100});
      const auto right = VeskPreviewView::initWithFrame({270, 130, 200, 100});  // of the same window
      right->setWindow(&left.host);
      std::minstd_rand random(9);
      const auto first = noise(90, 70, {"", kCVPixelFormat_420Planar, {}}, random);
      const auto second = noise(700, 400, {"", kCMPixelFormat_422YpCbCr8, {}}, random);
      const auto expect = [&](VeskPreviewView& view, const CIImageRef& image) {
        plain.view->refresh(image);
        plain.view->setIsRecording(view.isRecording());
        const CGImageRef expected = plain.snapshot();
        view.refresh(image);
        const CGImageRef shown = view.snapshot();
        ASSERT_TRUE(expected && shown);
        EXPECT_LE(largestDifference(*expected, *shown), 1) << row.name << ", " << samples << " samples";
      };
      right->setIsRecording(1);
      for (int turn = 0; turn < 2; ++turn) {
        expect(*left.view, turn ? first : second);
        expect(*right, turn ? second : first);
      }
      for (const PictureFormat& format : kPictureFormats) expect(*left.view, noise(91, 71, format, random));
      left.view->setFrame({50, 180, 200, 100});  // moved, and of the same size
      expect(*left.view, first);
      left.host.makeContextCurrent();
      if (samples == 0) {
        EXPECT_EQ(test::drawnPixels(1, 1, 260, 200), (std::vector<uint8_t>{0, 0, 255, 255}))
            << "between the views nothing is drawn";
      }
      EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
      right->setWindow(nullptr);
    }
  }
}

TEST_P(Contexts, ComeAndGoWithNothingLostButTextures) {
  ContextRow row = GetParam();
  row.limits.isHardware = true;
  Scene scene(row, {320, 200});
  scene.view->setFrame({0, 0, 320, 200});
  scene.view->setIsRecording(1);
  std::minstd_rand random(3);
  scene.view->refresh(noise(640, 400, {"", kCVPixelFormat_420Planar, {}}, random));
  const CGImageRef first = scene.snapshot();
  for (const ContextRow& other : kContexts) {
    scene.view->setWindow(nullptr);
    WatchedHost next({320, 200}, other);
    scene.view->setWindow(&next);
    ASSERT_TRUE(scene.view->snapshot()) << other.name;
    scene.view->setWindow(nullptr);
    scene.view->setWindow(&scene.host);
    const CGImageRef again = scene.snapshot();
    ASSERT_TRUE(again);
    EXPECT_TRUE(first->pixels() == again->pixels()) << "after " << other.name;
  }
}

/// Texts and status pictures without a view, as they are in a context with fixed functions.
TEST_P(Contexts, DrawTextsAndStatusPicturesAlike) {
  test::TemporaryFolder folder;
  std::vector<uint8_t> bytes;
  for (int i = 0; i < 40 * 30; ++i) bytes.insert(bytes.end(), {uint8_t(i), uint8_t(i * 7), uint8_t(i * 3), 255});
  const auto bitmap = NSBitmapImageRep::initWithCGImage(CGImage::create(40, 30, bytes));
  const std::string picture = folder.write("status.png", [&] {
    const auto png = bitmap->representationUsingType(NSPNGFileType);
    return std::string(png.begin(), png.end());
  }());
  std::vector<std::vector<uint8_t>> shown;
  for (const ContextRow& row : {kContexts[0], GetParam()}) {
    WatchedHost host({200, 120}, row);
    const auto context = NSOpenGLContext::initWithWindow(host);
    context->makeCurrentContext();
    glViewport(10, 10, 180, 100);
    context->setCoordinates({90, 50});
    const auto display = CameraStatusDisplay::initWithStatusImage(picture);
    display->setViewSize({91, 50});
    display->renderStatus();
    auto text =
        GLString::initWithString("Recording", {}, NSColor::whiteColor(), NSColor::redColor(), NSColor::blackColor());
    context->setColor(NSColor::colorWithDeviceRed(0.5F, 1, 0.25F, 0.75F));
    glScissor(0, 0, 120, 120);
    glEnable(GL_SCISSOR_TEST);
    text->drawWithBounds({3, 4, 80, 20});
    text->setString(NSAttributedString::initWithString("Again"));
    text->drawWithBounds({3.5F, 30, 80, 10.5F});
    EXPECT_TRUE(glIsEnabled(GL_SCISSOR_TEST));
    shown.push_back(test::drawnPixels(200, 120));
    EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
  }
  int largest = 0;
  int drawn = 0;
  for (size_t i = 0; i < shown[0].size(); ++i) {
    largest = std::max(largest, std::abs(shown[0][i] - shown[1][i]));
    drawn += shown[0][i] != 0 && i % 4 != 3 ? 1 : 0;
  }
  EXPECT_LE(largest, 1);
  EXPECT_GT(drawn, 5000);
}

INSTANTIATE_TEST_SUITE_P(All, Contexts, testing::ValuesIn(kContexts), [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace vesk
