/// A live picture in a window of GTK 4, beside what a program does that has no view for it: libyuv makes pixels
/// of a frame, a GdkTexture takes them, a picture widget shows it.
///
///   widget_bench [--runs N]        needs a display: xvfb-run -a widget_bench
///
/// Figures are CPU time of the whole process for each 1080p frame in a window of 1280 × 720, GTK's own drawing
/// and the renderer's threads included; the best of N runs taken in turn. Each frame waits for the one before to be
/// shown.

#include <gtkmm.h>
#include <libyuv.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <memory>
#include <vector>

#include <vesk/gtk4.h>

namespace {

using namespace vesk;

constexpr int kWidth = 1920;
constexpr int kHeight = 1080;
constexpr int kFrames = 60;

CVPixelBufferRef makeFrame(int seed) {
  const auto bytes = std::make_shared<std::vector<uint8_t>>(size_t{kWidth} * kHeight * 3 / 2);
  for (size_t i = 0; i < bytes->size(); ++i) (*bytes)[i] = static_cast<uint8_t>(64 + (i / 7 + size_t(seed) * 13) % 128);
  const size_t luma = size_t{kWidth} * kHeight;
  const CVPixelBuffer::Planes planes{PixelPlane{bytes->data(), kWidth}, PixelPlane{bytes->data() + luma, kWidth / 2},
                                     PixelPlane{bytes->data() + luma * 5 / 4, kWidth / 2}};
  return CVPixelBuffer::wrap(kWidth, kHeight, kCVPixelFormat_420Planar, planes, {}, bytes);
}

/// A widget that shows frames.
class Shower {
 public:
  virtual ~Shower() = default;
  virtual Gtk::Widget& widget() = 0;
  virtual void show(const CVPixelBufferRef& frame) = 0;
};

class Area : public gtk4::PreviewArea, public Shower {
 public:
  Gtk::Widget& widget() override { return *this; }
  void show(const CVPixelBufferRef& frame) override { view->refresh(CIImage::imageWithCVImageBuffer(frame)); }
};

class Picture : public Shower {
 public:
  Gtk::Widget& widget() override { return mPicture; }
  void show(const CVPixelBufferRef& frame) override {
    const size_t size = size_t{kWidth} * kHeight * 4;
    auto* const pixels = static_cast<uint8_t*>(g_malloc(size));
    libyuv::I420ToARGB(frame->plane(0).data, kWidth, frame->plane(1).data, kWidth / 2, frame->plane(2).data, kWidth / 2,
                       pixels, kWidth * 4, kWidth, kHeight);
    GBytes* const bytes = g_bytes_new_take(pixels, size);
    GdkTexture* const texture =
        gdk_memory_texture_new(kWidth, kHeight, GDK_MEMORY_B8G8R8A8_PREMULTIPLIED, bytes, size_t{kWidth} * 4);
    gtk_picture_set_paintable(mPicture.gobj(), GDK_PAINTABLE(texture));
    g_object_unref(texture);
    g_bytes_unref(bytes);
  }

 private:
  Gtk::Picture mPicture;
};

double cpuMilliseconds() {
  timespec time{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_nsec) * 1e-6;
}

/// CPU milliseconds a frame.
double costOf(Shower& shower, const std::array<CVPixelBufferRef, 2>& frames) {
  Gtk::Window window;
  window.set_decorated(false);
  window.set_default_size(1280, 720);
  window.set_child(shower.widget());
  window.present();
  int painted = 0;
  const auto showNext = [&] {
    const int before = painted;
    shower.show(frames.at(static_cast<size_t>(before) % 2));
    while (painted == before) g_main_context_iteration(nullptr, TRUE);
  };
  GdkFrameClock* const clock = gtk_widget_get_frame_clock(GTK_WIDGET(window.gobj()));
  const auto handler =
      g_signal_connect_swapped(clock, "after-paint", G_CALLBACK(+[](int* count) { ++*count; }), &painted);
  for (int i = 0; i < 10; ++i) showNext();
  const double start = cpuMilliseconds();
  const int first = painted;
  for (int i = 0; i < kFrames; ++i) showNext();
  const double cost = (cpuMilliseconds() - start) / kFrames;
  if (painted - first > 2 * kFrames) std::fprintf(stderr, "GTK painted %d times\n", painted - first);
  g_signal_handler_disconnect(clock, handler);
  window.unset_child();
  window.close();
  while (g_main_context_iteration(nullptr, FALSE)) {
  }
  return cost;
}

}  // namespace

int main(int argc, char** argv) {
  const int runs = argc == 3 && std::strcmp(argv[1], "--runs") == 0 ? std::max(std::atoi(argv[2]), 1) : 5;
  if (!gtk_init_check()) {
    std::fprintf(stderr, "widget_bench: no display\n");
    return 1;
  }
  const auto application = Gtk::Application::create();
  const std::array<CVPixelBufferRef, 2> frames{makeFrame(0), makeFrame(1)};
  Area ours;
  Picture peer;
  double best[2] = {std::numeric_limits<double>::max(), std::numeric_limits<double>::max()};
  for (int run = 0; run < runs; ++run) {
    best[0] = std::min(best[0], costOf(ours, frames));
    best[1] = std::min(best[1], costOf(peer, frames));
  }
  std::printf("| CPU ms | ours | peer | ratio |\n|---|---|---|---|\n");
  std::printf("| 1080p I420 in a 720p window of GTK 4 / libyuv, GdkTexture, GtkPicture | %.2f | %.2f | %.2f |\n",
              best[0], best[1], best[0] / best[1]);
  return 0;
}
