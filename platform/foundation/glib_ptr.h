#pragma once

#include <glib.h>

#include <memory>

namespace vesk {

struct UnrefMainContext {
  void operator()(GMainContext* context) const noexcept { g_main_context_unref(context); }
};
using MainContextPtr = std::unique_ptr<GMainContext, UnrefMainContext>;

struct UnrefSource {
  void operator()(GSource* source) const noexcept { g_source_unref(source); }
};
using SourcePtr = std::unique_ptr<GSource, UnrefSource>;

/// A source for `context` that becomes ready at `readyTime` (microseconds of g_get_monotonic_time,
/// 0 for at once) and then runs functions->dispatch with `data` as the last argument.
inline SourcePtr makeTimeSource(GSourceFuncs* functions, int64_t readyTime, void* data) {
  SourcePtr source(g_source_new(functions, sizeof(GSource)));
  g_source_set_priority(source.get(), G_PRIORITY_DEFAULT);
  g_source_set_ready_time(source.get(), readyTime);
  // The callback itself is never called; GLib hands it and the data to dispatch.
  g_source_set_callback(
      source.get(), [](void*) -> gboolean { return G_SOURCE_REMOVE; }, data, nullptr);
  return source;
}

}  // namespace vesk
