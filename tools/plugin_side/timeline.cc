#include "plugin_side/timeline.h"

#include <cmath>

namespace pavo::plugin {

Timeline::Timeline(std::FILE* out, bool live)
    : out_(out), live_(live), start_(std::chrono::steady_clock::now()) {}

double Timeline::seconds() const {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

void Timeline::line(const char* tag, const std::string& text) {
  std::lock_guard<std::mutex> lock(mutex_);
  erase_progress_locked();
  std::fprintf(out_, "%8.3f  %-6s %s\n", seconds(), tag, text.c_str());
  draw_progress_locked();
  std::fflush(out_);
}

void Timeline::progress(const std::string& text) {
  if (!live_) {
    line("pos", text);
    return;
  }
  std::lock_guard<std::mutex> lock(mutex_);
  progress_ = text;
  erase_progress_locked();
  draw_progress_locked();
  std::fflush(out_);
}

void Timeline::clear_progress() {
  std::lock_guard<std::mutex> lock(mutex_);
  erase_progress_locked();
  progress_.clear();
  std::fflush(out_);
}

void Timeline::erase_progress_locked() {
  if (live_ && !progress_.empty()) std::fputs("\r\033[K", out_);
}

void Timeline::draw_progress_locked() {
  if (live_ && !progress_.empty()) std::fprintf(out_, "%8.3f  >>>    %s", seconds(), progress_.c_str());
}

std::string clock_text(double ms) {
  if (!(ms >= 0)) return "-";
  const long tenths = std::lround(ms / 100.0);
  char text[32];
  std::snprintf(text, sizeof text, "%02ld:%02ld.%ld", tenths / 600, tenths / 10 % 60, tenths % 10);
  return text;
}

}  // namespace pavo::plugin
