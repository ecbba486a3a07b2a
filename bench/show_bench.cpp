/// Shows planes of 640 x 480 4:2:0 from standard input in a window of GTK 4 as they come, each at the next refresh:
/// what compare_latency.py measures.
#include <gtkmm.h>
#include <unistd.h>

#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

#include <vesk/dispatch_queue.h>
#include <vesk/gtk4.h>

namespace {

using namespace vesk;

constexpr int32_t kWidth = 640;
constexpr int32_t kHeight = 480;
constexpr size_t kLuma = size_t{kWidth} * kHeight;

/// The next frame; null at the end.
CIImageRef readFrame() {
  const auto bytes = std::make_shared<std::vector<uint8_t>>(kLuma * 3 / 2);
  for (size_t done = 0; done < bytes->size();) {
    const ssize_t count = read(STDIN_FILENO, bytes->data() + done, bytes->size() - done);
    if (count <= 0) return nullptr;
    done += static_cast<size_t>(count);
  }
  const CVPixelBuffer::Planes planes{PixelPlane{bytes->data(), kWidth}, PixelPlane{bytes->data() + kLuma, kWidth / 2},
                                     PixelPlane{bytes->data() + kLuma * 5 / 4, kWidth / 2}};
  return CIImage::imageWithCVImageBuffer(
      CVPixelBuffer::wrap(kWidth, kHeight, kCVPixelFormat_420Planar, planes, {}, bytes));
}

}  // namespace

int main() {
  gtk_init();
  const auto application = Gtk::Application::create();
  const auto loop = Glib::MainLoop::create();
  Gtk::Window window;
  gtk4::PreviewArea area;
  window.set_decorated(false);
  window.set_default_size(kWidth, kHeight);
  window.set_child(area);
  window.present();
  std::thread reader([view = area.view, &loop] {
    while (const auto frame = readFrame()) DispatchQueue::mainQueue()->async([view, frame] { view->refresh(frame); });
    DispatchQueue::mainQueue()->async([&loop] { loop->quit(); });
  });
  loop->run();
  reader.join();
  return 0;
}
