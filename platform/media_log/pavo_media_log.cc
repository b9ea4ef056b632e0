// Development stand-in of the platform media log: one readable line per call
// on standard error, written with a single write so lines never interleave.
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "pavo_media_log.h"
#include "pavo_media_log_standin.h"

namespace pavo::standin {
namespace {

std::atomic<bool> g_capturing{false};
std::mutex g_mutex;
std::vector<MediaLogLine> g_lines;  // guarded by g_mutex

}  // namespace

void media_log_capture(bool on) { g_capturing.store(on); }

std::vector<MediaLogLine> media_log_lines() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_lines;
}

void media_log_clear() {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_lines.clear();
}

}  // namespace pavo::standin

extern "C" void pavo_media_log(PavoMediaLogLevel level, int pid, long tid, const char* file,
                               const char* function, int line, const void* ptr, const char* format,
                               ...) {
  (void)ptr;
  char text[2048] = "";
  if (format != nullptr) {
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
  }

  char out[2304];
  int n = std::snprintf(out, sizeof out, "[media-log %d] pid=%d tid=%ld %s:%s:%d %s\n",
                        static_cast<int>(level), pid, tid, file ? file : "?",
                        function ? function : "?", line, text);
  if (n > 0) {
    const size_t len = static_cast<size_t>(n) < sizeof out ? static_cast<size_t>(n) : sizeof out - 1;
    if (write(STDERR_FILENO, out, len) < 0) {
      // Logging never fails its caller.
    }
  }
  if (pavo::standin::g_capturing.load()) {
    std::lock_guard<std::mutex> lock(pavo::standin::g_mutex);
    pavo::standin::g_lines.push_back({static_cast<int>(level), function ? function : "", text});
  }
}
