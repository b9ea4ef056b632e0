#include "av_control_adaptor/live_objects.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <new>
#include <vector>

namespace pavo::avctrl {
namespace {

struct Entry {
  PavoAVCtrlContext* ctx;
  int running;       // translations in progress
  bool alive;        // false once destruction began
  bool free_on_end;  // the last translation to end releases the object
};

std::mutex g_mutex;
std::condition_variable g_translation_ended;
std::vector<Entry> g_entries;  // guarded by g_mutex; a handful of objects at most

// The innermost translation span of this thread (spans nest only when a
// translation is started from inside another one).
thread_local const Translation* t_innermost = nullptr;

std::vector<Entry>::iterator find_entry(PavoAVCtrlContext* ctx) {
  return std::find_if(g_entries.begin(), g_entries.end(),
                      [ctx](const Entry& e) { return e.ctx == ctx; });
}

}  // namespace

bool live_add(PavoAVCtrlContext* ctx) {
  std::lock_guard<std::mutex> lock(g_mutex);
  try {
    g_entries.push_back(Entry{ctx, 0, true, false});
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

Removal live_remove(PavoAVCtrlContext* ctx) {
  bool on_this_thread = false;
  for (const Translation* span = t_innermost; span != nullptr; span = span->outer()) {
    on_this_thread = on_this_thread || (span->context() == ctx && span->alive());
  }
  std::unique_lock<std::mutex> lock(g_mutex);
  auto it = find_entry(ctx);
  if (it == g_entries.end() || !it->alive) return Removal::kUnknown;
  it->alive = false;
  if (on_this_thread) {
    it->free_on_end = true;
    return Removal::kDeferred;
  }
  g_translation_ended.wait(lock, [ctx] { return find_entry(ctx)->running == 0; });
  g_entries.erase(find_entry(ctx));
  return Removal::kRelease;
}

Translation::Translation(PavoAVCtrlContext* ctx) : ctx_(ctx), outer_(t_innermost), alive_(false) {
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    auto it = find_entry(ctx);
    if (it != g_entries.end() && it->alive) {
      ++it->running;
      alive_ = true;
    }
  }
  t_innermost = this;
}

Translation::~Translation() {
  t_innermost = outer_;
  if (!alive_) return;
  bool release = false;
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    auto it = find_entry(ctx_);
    if (--it->running == 0) {
      if (it->free_on_end) {
        g_entries.erase(it);
        release = true;
      } else if (!it->alive) {
        g_translation_ended.notify_all();
      }
    }
  }
  if (release) free_context(ctx_);
}

}  // namespace pavo::avctrl
